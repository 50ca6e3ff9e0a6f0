// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// SIGINT and SIGTERM, as a question that long work asks from time to time, or as a call.
#pragma once

#include <functional>
#include <thread>

namespace kddc {

// From now on the two signals are noted instead of ending the process.
void noteInterrupts();

// Whether one came. Cheap; from any thread.
bool interrupted();

// Notes the signals, and calls `onInterrupt` on a thread of its own for each that comes. At most
// one at a time in a process.
class InterruptThread {
 public:
  explicit InterruptThread(std::function<void()> onInterrupt);
  ~InterruptThread();
  InterruptThread(const InterruptThread&) = delete;
  InterruptThread& operator=(const InterruptThread&) = delete;

 private:
  std::thread thread_;
};

}  // namespace kddc
