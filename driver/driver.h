// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Follows one file system live: changes on it come out as encoded journal records.
//
//   kernel's queue ─► read ─► Translator ─► RecordStream ─► record sink (AddEntry)
//   requests of other threads ───┘
//
// Changes are noted from the construction on, while nobody has called run() yet. All looks at the
// disk are made by the thread in run(), and their records leave in the order of the looks: the last
// record of a name or a file therefore says how it is, once the queue is empty.
//
// REQUESTS are questions whose answers come as records in the stream. They are numbered from 1 and
// served first in first out between reads, long ones in slices; only a resolve() that has to be
// asked again lets others pass. finished() tells how far they are served, and where in the stream
// their answers end. A request that finds nothing to say gives no record.
//
// NOOP. When nothing was said for 100 ms, one NOOP follows, so that whoever applies the records
// knows that it may commit; it follows requests that had nothing to say, too.
//
// REST. After that NOOP the volumes are let go of, so that an umount is complete when it returns.
// One that is unmounted sooner goes at once too, and is let go of within the same time.
//
// DOUBT. What the records may have missed is reported: the kernel's queue overflowed, the file
// system found an error in itself, a look failed. Only a comparison with the disk can mend it, and
// it must start after the report: losses end there, not before.
//
// Threads: the constructor, run() and the destructor belong to one thread, or to one after the
// other; all else may be called from any. The sinks are called by the thread in run(), with no lock
// held, and may make requests. stop() may be called by a signal handler.
#pragma once

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "driver/fanotify_group.h"
#include "driver/live_disk.h"
#include "driver/record_stream.h"
#include "driver/translator.h"
#include "platform/kd_monitor.h"

namespace kddc {

struct DriverOptions {
  std::vector<std::string> roots;  // the volumes: folders on one file system, at least one
  std::vector<fsf_fid> leaveOut;   // folders, with all below them; see translator.h and disk.h
  std::string stubAttribute;
  std::uint64_t firstSequence = 1;  // number of the first record
  EventQueue queue = EventQueue::kUnlimited;
  int ownPid = getpid();  // the process whose changes are dropped; -1: none is, for tests
};

struct DriverSinks {
  // Takes an encoded record. An exception of it leaves run(), see there.
  RecordStream::Sink record;
  // Takes one line that says what may have been missed. May come often.
  std::function<void(const std::string&)> doubt;
  // Called when nothing more will be said for the moment, after records or after none.
  std::function<void()> pause = [] {};
  // Tells a watchdog how it goes: true when it begins to wait for something to do, false when a
  // piece of work begins that ends soon, unless something hangs.
  std::function<void(bool waits)> pulse = [](bool) {};
};

// For people who want to know how it goes.
struct DriverCounts {
  std::uint64_t events = 0;
  std::uint64_t records = 0;
  std::uint64_t overflows = 0;
  std::uint64_t failedLooks = 0;
};

class Driver {
 public:
  // All requests up to `request` are served, and their answers are records with numbers below
  // `sequence`.
  struct Served {
    std::uint64_t request = 0;
    std::uint64_t sequence = 0;
  };
  // Is given the number of the NOOP. Called by the thread in run().
  using Reached = std::function<void(std::uint64_t sequence)>;

  // Throws CannotWatch when the file system cannot be followed, std::system_error when a root
  // cannot be opened. `kept`: the group of an earlier process to go on with, see FanotifyGroup.
  Driver(DriverOptions options, DriverSinks sinks, UniqueFd kept = {});
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  // Works until stop(). Then takes no more events from the kernel, says what the queued ones give,
  // and reaches the barriers and marks that wait; other requests that wait are left unserved. May
  // be called again when an exception of the record sink has ended it: what the batch under way had
  // still to say was lost, so what the volumes hold is in doubt.
  void run();
  void stop() noexcept;

  // Lists a folder with all below it: its names, each found by listing.
  std::uint64_t list(const fsf_fid& folder);
  // What a name stands for.
  std::uint64_t look(const fsf_fid& folder, std::string name);
  // How a file is.
  std::uint64_t lookAt(const fsf_fid& fid);
  // Whether a file without a known name is gone or has left the volume with that root (any volume
  // when none is named). Looked at after everything that is queued now; while it lies inside, asked
  // again for a while, because then an event with its name must be on the way. Answered with a link
  // count of 0, or, when it still lies inside at the end of that while, with a doubt.
  std::uint64_t resolve(const fsf_fid& fid, std::optional<fsf_fid> root = {});
  // Says everything that happened before this call, and then a NOOP.
  std::uint64_t barrier(Reached reached);
  // The same, but first ends the taking of events: the last barrier before an end in good order.
  // Requests are served after it as before.
  std::uint64_t endCapture(Reached reached);
  // Says a NOOP behind the answers to what was asked before; of what happened perhaps not all yet.
  std::uint64_t mark(Reached reached);

  // Follows one more folder on the file system, and leaves out these. When it cannot be opened that
  // is a doubt.
  std::uint64_t addRoot(const std::string& path, std::vector<fsf_fid> leaveOut);
  // Follows a folder no longer, unless it is the last.
  std::uint64_t dropRoot(const fsf_fid& root);

  Served finished() const;
  DriverCounts counts() const;
  // Whether changes still raise events, see fanotify_group.h.
  bool hasMark() const { return group_.hasMark(); }
  // The number of the next record: where the next driver of this volume begins.
  std::uint64_t nextSequence() const { return stream_.nextSequence(); }
  // st_dev of the file system: the devt of its records.
  std::uint64_t device() const { return disk_.device(); }
  // The kernel's queue, for somebody to keep in case that this process dies; not to be read.
  int group() const { return group_.fd(); }

 private:
  using Clock = std::chrono::steady_clock;
  enum class Kind {
    kList,
    kLook,
    kLookAt,
    kResolve,
    kBarrier,
    kMark,
    kEndCapture,
    kAddRoot,
    kDropRoot
  };
  struct Request {
    Kind kind = Kind::kList;
    fsf_fid fid{};
    std::string name;
    Reached reached;
    std::optional<fsf_fid> root = {};
    std::uint64_t number = 0;
    std::vector<fsf_fid> leaveOut = {};
  };
  // A resolve() that is to be asked again.
  struct Unresolved {
    fsf_fid fid{};
    std::optional<fsf_fid> root;
    std::uint64_t number = 0;
    int timesLeft = 0;
  };

  std::uint64_t ask(Request request);
  std::uint64_t lastAsked() const;
  bool hasRequests() const;
  bool takeRequest();
  void wake() noexcept;

  // What one turn does.
  void turn();
  void wait();
  int patience() const;
  bool pollFor(int milliseconds, bool events);
  std::size_t readBatch();
  void readQueued();
  void readAll();
  void examine(const std::vector<Event>& events);
  void serveSome(std::uint64_t share);
  bool serve(Request& request);
  bool listSome(const fsf_fid& folder);
  void follow(Request& request);
  void resolveAgain();
  void publish();
  void rest();
  std::uint64_t noop();
  void endTaking();
  void drain();
  void write(const FlrJrnCommandRaw& record);
  void failedLook(int error);

  DriverSinks sinks_;
  FanotifyGroup group_;
  LiveDisk disk_;
  RecordStream stream_;
  Translator translator_;
  UniqueFd wake_;  // an eventfd
  std::atomic<bool> stop_ = false;
  std::atomic<std::uint64_t> events_ = 0, records_ = 0, overflows_ = 0, failedLooks_ = 0;

  mutable KdMonitor monitor_;
  std::deque<Request> requests_ GUARDED_BY(monitor_);
  std::uint64_t lastNumber_ GUARDED_BY(monitor_) = 0;
  Served finished_ GUARDED_BY(monitor_);

  // Of the thread in run().
  std::vector<unsigned char> buffer_;
  std::vector<Event> batch_;
  bool lastReadWasFull_ = false;
  int nap_;
  bool takesEvents_ = true;
  std::optional<Request> current_;  // being served
  bool isListing_ = false;
  std::uint64_t served_ = 0;   // the last request that was served, or is unresolved
  std::uint64_t readFor_ = 0;  // what was queued when this one was asked is read
  std::deque<Unresolved> unresolved_;
  Clock::time_point lastTry_;
  bool saidSomething_ = false;  // since the last NOOP
  Clock::time_point lastSaid_;
};

}  // namespace kddc
