// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The standard condition variable waits on the steady clock by itself, which a plain POSIX
// condition does not.
#include "platform/kd_monitor.h"

#include <algorithm>
#include <chrono>

bool KdMonitorH::waitFor(int milliseconds) {
  std::unique_lock lock(mutex_, std::adopt_lock);
  // wait_for counts on the steady clock.
  const auto status =
      condition_.wait_for(lock, std::chrono::milliseconds(std::max(0, milliseconds)));
  lock.release();  // the caller holds it on
  return status == std::cv_status::no_timeout;
}

// The compiler sees the primitive's lock taken and not given back; it stands for the monitor's own.
void KdMonitor::enter() NO_THREAD_SAFETY_ANALYSIS {
  primitive_.lock();
}
void KdMonitor::leave() NO_THREAD_SAFETY_ANALYSIS {
  primitive_.unlock();
}
void KdMonitor::broadcast() {
  primitive_.wakeAll();
}
bool KdMonitor::wait(int milliseconds) NO_THREAD_SAFETY_ANALYSIS {
  return primitive_.waitFor(milliseconds);
}
