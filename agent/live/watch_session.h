// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Keeps the catalogues of volumes current: the owner of the queue, the threads and the catalogues,
// and the only place that knows in which order things happen.
//
//   start   the file systems are marked, so that no change is missed from here on
//           the driver threads run, one for each file system, and fill the queue
//           a volume without a catalogue to go on with is scanned, through DCSqliteDBSortedInsert
//           the database thread runs and empties the queue
//           a volume that had a catalogue is compared with the disk
//           what was asked for by then is answered: live
//   run     a doubt makes a comparison of the volume necessary; meanwhile it is "rescanning"
//           a volume whose disk goes is let go of within a second, and taken up when it is back;
//           one that fails is tried again; neither is noticed by the others
//   stop    the marks go, everything queued is applied, the catalogues are closed, the queue is
//           saved. A second interrupt, or half a minute, and the queue is saved as it is.
//
// A volume is taken up in steps, each of which may fail and is then tried again:
//
//   arrive    it is there, and nobody else watches it
//   examine   its catalogue can be gone on with; else it is set aside, and a new one is begun
//   connect   its file system is marked, by a driver that others may share
//   scan      the new catalogue is filled
//   attach    the database thread applies its records
//   compare   with the disk
//
// docs/live.md says why no change is lost between these steps.
//
// Threads: run on the main thread, which does all of the above; a thread of its own lets go of
// volumes (watchPlaces); stop, flush, rescan and status from any. One thread at a time has a volume
// in hand.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
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
#include "agent/live/mount_watch.h"
#include "agent/live/quiet_rescan.h"
#include "agent/live/sequence_file.h"
#include "agent/live/volume_rows.h"
#include "agent/registry/volume_mount.h"
#include "agent/service/service_manager.h"
#include "buffer/persistent_raw_buffer.h"

namespace kddc {

struct WatchPlan {
  struct Volume {
    std::string path;       // its real path
    std::string catalogue;  // the folder of its catalogue
    std::string lockFile;   // taken by the one process that watches it
  };
  std::vector<Volume> volumes;
  // Those that are registered, asked for now and then, and with `mountsChanged` when the mount
  // table has changed; null: `volumes` are all there ever are.
  std::function<std::vector<Volume>(bool mountsChanged)> registered;
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
  // A volume is known from now on that was not in the plan.
  std::function<void(const std::string& volume)> added = [](const std::string&) {};
};

class WatchSession {
 public:
  // Looks at everything and marks the file systems. A volume of the plan's that cannot be followed
  // is a failure: CannotWatch when its file system cannot be, else Failure. A registered one is
  // passed over, unless there is no other.
  WatchSession(WatchPlan plan, WatchListeners listeners, ServiceManager& manager);
  ~WatchSession();
  WatchSession(const WatchSession&) = delete;
  WatchSession& operator=(const WatchSession&) = delete;

  // Scans or compares, calls `live` when every volume that is there is, and works until `stop`.
  void run(const std::function<void()>& live);
  // Ends in good order; the second call at once. From any thread.
  void stop();
  // Whether what is queued is saved instead of applied, so that nobody may hold that up any more.
  bool savesQueue() const { return stops_ > 1; }

  // Returns true once everything that happened on the volume before the call is in the catalogue
  // and visible to readers; false when `giveUp` says so or the session ends. Failure when the
  // volume is not there, or its catalogue cannot be kept.
  bool flush(const std::string& path, const std::function<bool()>& giveUp);
  // Compares the volume with the disk and answers what has changed meanwhile; none as above.
  std::optional<RescanCounts> rescan(const std::string& path, const std::function<bool()>& giveUp);
  VolumeStatus status(const std::string& path) const;
  // The volumes that are known, those that are not there at the moment, too.
  std::vector<std::string> volumes() const;
  // How each volume is doing. Cheap.
  std::vector<VolumeStatus::State> states() const;

 private:
  struct Volume;
  struct Stopped;
  class Absent;
  class InHand;
  class Questions;

  // watch_session.cpp: the order of things.
  void openQueue();
  void startThreads();
  void compareAll();
  void work();
  void takeUp(Volume& volume);
  void finish();
  bool drain(bool inOrder);
  void listAsClosed(const Volume& volume);
  void endPlacing();
  void finishBeforeApplying();
  void keepNumbers();
  template <class Work>
  void forEach(Work&& work);

  // watch_steps.cpp: a volume is taken up, or let go of.
  void arrive(Volume& volume);
  void examine(Volume& volume);
  void connect(Volume& volume);
  std::shared_ptr<DriverPort> makePort(dev_t device, DriverOptions options);
  std::vector<fsf_fid> ownFolders(const Volume& volume) const;
  void scan(Volume& volume);
  void fill(Volume& volume);
  void attach(Volume& volume);
  bool detach(Volume& volume, std::time_t asOf);
  void putBack(const Volume& volume, VolumeRows& rows);
  void disconnect(Volume& volume);
  void leave(Volume& volume, const std::string& why);
  WalkOptions walkOptions(const Volume& volume) const;

  // watch_places.cpp: volumes come and go.
  Volume& add(WatchPlan::Volume plan);
  // Whether what stands at its place now is the volume, and whether it was there all the time.
  Standing standing(const Volume& volume, const std::optional<VolumeMount>& now) const;
  void watchPlaces();
  void lookAt(Volume& volume);
  void noteMounts();
  void lookForReturn(Volume& volume);
  void followRegistered(bool mountsChanged);

  // watch_comparison.cpp: what is in doubt is compared with the disk.
  void compare(Volume& volume);
  CompareCounts compareNow(Volume& volume);
  Volume* nextToDo() const;
  void doubt(const VolumeRows* rows, const Doubt& why);
  void doubt(dev_t device, const Doubt& why);
  void doubt(Volume& volume, const Doubt& why);
  void fail(Volume& volume, const std::string& why);
  void setLive(Volume& volume);
  static void setStale(Volume& volume);

  // watch_answers.cpp: what others ask.
  Volume* find(const std::string& path) const;
  bool catchUp(const Volume& volume, const std::function<bool()>& giveUp);
  using AskForNoop = std::uint64_t (Driver::*)(Driver::Reached reached);
  std::optional<std::uint64_t> applyUpTo(VolumePort& port, AskForNoop ask,
                                         const std::function<bool()>& giveUp);
  bool isCutOff(const VolumePort& port, const std::function<bool()>& giveUp) const;
  bool waitUntilLive(Volume& volume, const std::function<bool()>& giveUp);
  VolumeStatus::State stateOf(const Volume& volume) const;
  void fillFromCatalogue(VolumeStatus& status) const;
  void fillFromThreads(const Volume& volume, VolumeStatus& status) const;
  static SettleCounts settledIn(const Volume& volume);

  bool isLive(const Volume& volume) const;
  bool isStill(const Volume& volume) const;
  bool isInDoubt(const Volume& volume) const;
  bool mustReopen(const Volume& volume) const;
  bool isEnding(const Volume& volume) const;
  bool isStopping() const { return stops_ > 0; }
  std::vector<Volume*> allVolumes() const;

  WatchPlan plan_;
  WatchListeners listeners_;
  ServiceManager& manager_;
  std::unique_ptr<PersistentDCRawBuffer> queue_;
  std::mutex adding_;  // the queue is made for one producer
  std::unique_ptr<Applier> applier_;
  std::thread applying_, placing_;
  MountWatch mountWatch_;
  std::atomic<int> stops_ = 0;
  std::atomic<std::uint64_t> queuedRecords_ = 0, queuedBytes_ = 0;
  bool isRunning_ = false;  // the threads are started; of the main thread

  std::mutex connecting_;  // while a driver begins or ends; before mutex_

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::unique_ptr<Volume>> volumes_;
  std::map<dev_t, std::shared_ptr<DriverPort>> ports_;
  NumbersByDevt numbers_;  // with which drivers began, or ended
  bool mountsChanged_ = false;
  std::atomic<bool> endPlacing_ = false;
};

}  // namespace kddc
