// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A monitor: a lock and one condition to wait for under it.
//
//   KdMonitor::Guard guard(monitor);          // enter; leave at the end of the scope
//   while (queue.empty())
//     if (!monitor.wait(60000)) break;        // gives the lock up while it waits
//
// A wait may end without a broadcast, so every waiter tests its own condition again. Time-outs run
// on the monotonic clock: setting the host's clock neither shortens nor lengthens them.
//
// Threads: any, of course; not recursive: a thread that enters twice waits for itself. Failures:
// none are reported.
#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/export.h"
#include "platform/thread_annotations.h"

// The primitive that KdMonitor wraps. Every call but lock may be made only by the thread that holds
// the lock, except wakeAll, which anyone may call.
class KDDC_API CAPABILITY("monitor primitive") KdMonitorH {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  void wakeAll() { condition_.notify_all(); }
  // Gives the lock up until a wakeAll or until `milliseconds` have passed (0 or less: not at all),
  // and holds it again when it returns: false when the time had run out.
  bool waitFor(int milliseconds) REQUIRES(this);

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
};

// The monitor itself. Its owner keeps it alive until no thread is in it.
class KDDC_API CAPABILITY("monitor") KdMonitor {
 public:
  class Guard;

  KdMonitor() = default;
  KdMonitor(const KdMonitor&) = delete;
  KdMonitor& operator=(const KdMonitor&) = delete;

  // Waits until no other thread is in the monitor.
  void enter() ACQUIRE();
  // By the thread that entered.
  void leave() RELEASE();
  // Wakes every waiter. Best called before leave, so that none misses the change it waits for.
  void broadcast();
  // Between enter and leave. False when `milliseconds` passed without a broadcast; 0 or less gives
  // others one chance to enter and answers false.
  bool wait(int milliseconds) REQUIRES(this);

 private:
  KdMonitorH primitive_;
};

// Enters a monitor for the life of a scope.
class SCOPED_CAPABILITY KdMonitor::Guard {
 public:
  explicit Guard(KdMonitor& monitor) ACQUIRE(monitor) : monitor_(monitor) { monitor_.enter(); }
  ~Guard() RELEASE() { monitor_.leave(); }
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

 private:
  KdMonitor& monitor_;
};
