// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the parts of a watch session know of one volume, and how long they wait. Theirs alone.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>

#include "agent/engine/new_catalogue.h"
#include "agent/errors.h"
#include "agent/live/pacer.h"
#include "agent/live/watch_session.h"
#include "agent/registry/volume_mount.h"
#include "platform/detached_folder.h"
#include "platform/lock_file.h"

namespace kddc {

inline constexpr std::chrono::milliseconds kLook(200);  // how often a wait asks whether to go on

// Leaves a scan or a comparison because the session, or the watching of the volume, ends.
struct WatchSession::Stopped {};

// What stood at the place of a volume is not there.
class WatchSession::Absent : public Failure {
 public:
  using Failure::Failure;
};

struct WatchSession::Volume {
  WatchPlan::Volume plan;
  std::unique_ptr<LockFile> lock;  // null until it was first followed

  // Of the thread that has it in hand.
  std::unique_ptr<NewCatalogue> fresh;  // as long as there is no catalogue to go on with
  std::optional<VolumeMount> mount;     // where it was last; also of others, while there is a port
  bool isAnother = false;               // another disk than the one that the catalogue is of

  // Of the thread that looks at places.
  std::vector<std::string> mountsInside;

  std::atomic<bool> leaving = false;  // whatever is done with it is to end early

  // Guarded by the session's mutex. What it lacks of the two is made, or waited for.
  std::shared_ptr<VolumePort> port;  // its file system is marked
  std::shared_ptr<VolumeRows> rows;  // records are applied
  FileKey catalogueFile;             // the database that is open
  bool inHand = false;               // a thread is at work on it
  bool wanted = true;
  bool absent = false;  // nothing stands at its place
  bool live = false, scanning = false, comparing = false;
  bool failed = false;  // what was tried last
  std::uint64_t failures = 0;
  std::string doubt;  // why it may not be exact; empty: it is
  Doubt::Remedy remedy = Doubt::Remedy::kCompare;
  std::time_t staleSince = 0;
  std::time_t lastComparison = 0;
  std::uint64_t comparisons = 0;  // that have ended
  std::uint64_t overflows = 0;    // of drivers that are gone
  CompareCounts compared;         // by the last of them
  SettleCounts settled;           // in rows that were let go of
  std::deque<VolumeStatus::Rescan> reasons;
  Pacer pacer;
};

// While it lives the volume is in the hand of the thread that made it.
class WatchSession::InHand {
 public:
  // Waits for its turn.
  InHand(WatchSession& session, Volume& volume);
  ~InHand();
  InHand(const InHand&) = delete;
  InHand& operator=(const InHand&) = delete;

 private:
  WatchSession& session_;
  Volume& volume_;
};

// The file at a path; zeroes when there is none.
FileKey keyOf(const std::string& path);
// Opens the folder of a volume for reading; Failure when that is not possible.
DetachedFolder openRoot(const std::string& path);
// What a walk through it passes over; Failure when the volume is not there any more.
std::vector<CoveredPlace> coveredIn(const DetachedFolder& root, const std::string& path);

}  // namespace kddc
