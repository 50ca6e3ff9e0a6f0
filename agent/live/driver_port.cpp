// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/driver_port.h"

#include "agent/errors.h"

namespace kddc {

DriverPort::DriverPort(DriverOptions options, DriverSinks sinks)
    : doubt_(sinks.doubt), driver_(std::move(options), std::move(sinks)) {}

void DriverPort::start() {
  thread_ = std::thread([this] { run(); });
}

void DriverPort::run() {
  while (!ending_) {
    try {
      driver_.run();
      return;
    } catch (...) {
      doubt_("the queue cannot take records: " + describeCurrentException());
    }
  }
}

void DriverPort::end() {
  if (!thread_.joinable()) return;
  ending_ = true;
  driver_.stop();
  thread_.join();
}

// Numbers rise, but two threads may come here in any order.
std::uint64_t VolumePort::note(std::uint64_t question) {
  std::uint64_t last = lastQuestion_;
  while (last < question && !lastQuestion_.compare_exchange_weak(last, question)) {
  }
  return question;
}

}  // namespace kddc
