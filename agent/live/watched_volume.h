// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the parts of a watch session know of one volume, and how long they wait. Theirs alone.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <string>

#include "agent/engine/new_catalogue.h"
#include "agent/live/watch_session.h"
#include "platform/lock_file.h"
#include "platform/unique_fd.h"

namespace kddc {

using WatchClock = std::chrono::steady_clock;

inline constexpr std::chrono::milliseconds kLook(200);  // how often a wait asks whether to go on
inline constexpr std::chrono::seconds kFirstPause(1), kLongestPause(300);

// Leaves a scan or a comparison because the session is being stopped.
struct WatchSession::Stopped {};

struct WatchSession::Volume {
  WatchPlan::Volume plan;
  LockFile lock;
  dev_t device = 0;
  std::unique_ptr<NewCatalogue> fresh;  // as long as there is no good catalogue
  bool isNew = false;                   // there was none
  std::unique_ptr<VolumePort> port;
  std::unique_ptr<VolumeRows> rows;

  // Guarded by the session's mutex.
  bool live = false, comparing = false;
  std::string doubt;  // why a comparison is due; empty: none is
  std::time_t staleSince = 0;
  std::time_t lastComparison = 0;
  std::uint64_t comparisons = 0;  // that have ended
  CompareCounts compared;         // by the last of them
  std::deque<VolumeStatus::Rescan> reasons;
  WatchClock::time_point notBefore{};
  WatchClock::duration pause = kFirstPause;
};

// Opens the folder of a volume for reading; Failure when that is not possible.
UniqueFd openRoot(const std::string& path);

}  // namespace kddc
