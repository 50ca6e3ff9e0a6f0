// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Keeps the catalogues of volumes current: the owner of the queue, the two threads and the
// catalogues, and the only place that knows in which order things happen.
//
//   start   the file systems are marked, so that no change is missed from here on
//           the driver threads run, one for each file system, and fill the queue
//           a volume without a good catalogue is scanned; it goes through DCSqliteDBSortedInsert
//           the database thread runs and empties the queue
//           a volume that had a good catalogue is compared with the disk
//           what was asked for by then is answered: live
//   run     a doubt makes a comparison of the volume necessary; meanwhile it is "rescanning"
//   stop    the marks go, everything queued is applied, the catalogues are closed, the queue is
//           saved. A second interrupt stops at once, and the queue is saved as it is.
//
// docs/live.md says why no change is lost between these steps.
//
// Threads: run on the main thread; stop, flush, rescan and status from any.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/control/volume_status.h"
#include "agent/engine/walk.h"
#include "agent/live/applier.h"
#include "agent/live/driver_port.h"
#include "agent/live/quiet_rescan.h"
#include "agent/live/sequence_file.h"
#include "agent/live/volume_rows.h"
#include "buffer/persistent_raw_buffer.h"

namespace kddc {

struct WatchPlan {
  struct Volume {
    std::string path;       // its real path
    std::string catalogue;  // the folder of its catalogue
    std::string lockFile;   // taken by the one process that watches it
  };
  std::vector<Volume> volumes;
  std::string stateFolder;
  std::string queueFolder;
  std::string numbersFile;
  std::string stubAttribute;
  EventQueue events = EventQueue::kUnlimited;
};

// What the session tells while it runs; called on its threads.
struct WatchListeners {
  std::function<void(const std::string& line)> note;  // for people
  // What happens to an entry, by its path relative to its volume; null: nobody asks.
  std::function<void(const std::string& volume, CatalogueChange::Kind, const std::string& path)>
      change;
  std::function<void(std::uint64_t entries)> progress;
};

class WatchSession {
 public:
  // Looks at everything and marks the file systems. CannotWatch when one cannot be followed,
  // Failure when a catalogue is in use or a folder cannot be used.
  WatchSession(WatchPlan plan, WatchListeners listeners);
  ~WatchSession();
  WatchSession(const WatchSession&) = delete;
  WatchSession& operator=(const WatchSession&) = delete;

  // Scans or compares, calls `live` when every volume is, and works until `stop`.
  void run(const std::function<void()>& live);
  // Ends in good order; the second call at once. From any thread.
  void stop();

  // Returns true once everything that happened on the volume before the call is in the catalogue
  // and visible to readers; false when `giveUp` says so or the session ends.
  bool flush(const std::string& volume, const std::function<bool()>& giveUp);
  // Compares the volume with the disk and answers what has changed meanwhile; none as above.
  std::optional<RescanCounts> rescan(const std::string& volume,
                                     const std::function<bool()>& giveUp);
  VolumeStatus status(const std::string& volume) const;

 private:
  struct Volume;
  struct Stopped;
  class Questions;

  Volume* find(const std::string& path) const;
  void prepare(WatchPlan::Volume plan);
  void openQueue();
  void follow(dev_t device);
  void scanNew();
  void scan(Volume& volume);
  WalkOptions walkOptions(const Volume& volume) const;
  void applyRecords();
  void compareOld();
  void compare(Volume& volume);
  CompareCounts compareNow(Volume& volume);
  bool catchUp(Volume& volume, const std::function<bool()>& giveUp);
  void watchOver();
  Volume* nextInDoubt();
  void finish();
  void finishBeforeApplying();
  void keepNumbers() const;
  template <class Work>
  void unlessStopped(Work&& work);
  void fillFromCatalogue(VolumeStatus& status) const;
  void fillFromThreads(const Volume& volume, VolumeStatus& status) const;
  VolumeStatus::State stateOf(const Volume& volume) const;
  void doubt(const VolumeRows* rows, const std::string& reason);
  void doubt(dev_t device, const std::string& reason);
  void doubt(Volume& volume, const std::string& reason);
  bool isLive(const Volume& volume) const;
  void setLive(Volume& volume);
  bool isStopping() const { return stops_ > 0; }

  WatchPlan plan_;
  WatchListeners listeners_;
  std::vector<std::unique_ptr<Volume>> volumes_;
  std::vector<std::unique_ptr<DriverPort>> ports_;
  NumbersByDevt numbers_;  // with which the run began
  std::unique_ptr<PersistentDCRawBuffer> queue_;
  std::mutex adding_;  // the queue is made for one producer
  std::unique_ptr<Applier> applier_;
  std::thread applying_;
  std::atomic<int> stops_ = 0;
  std::atomic<std::uint64_t> queuedRecords_ = 0, queuedBytes_ = 0;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
};

}  // namespace kddc
