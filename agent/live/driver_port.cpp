// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/driver_port.h"

#include <chrono>

#include "agent/errors.h"
#include "agent/live/give_way.h"

namespace kddc {
namespace {

// While the queue takes nothing, what it would have taken is dropped; the disk knows it.
constexpr std::chrono::milliseconds kRetry(100);

}  // namespace

DriverPort::DriverPort(DriverOptions options, DriverSinks sinks, ServiceManager& manager)
    : doubt_(sinks.doubt),
      staged_(std::move(sinks.record)),
      kept_(manager, options.roots.at(0), options.queue),
      pulse_(manager.heart()),
      driver_(std::move(options),
              {.record = [this](std::span<unsigned char> bytes) { staged_.take(bytes); },
               .doubt = doubt_,
               .pause = [this] { staged_.handOver(); },
               .pulse = std::ref(pulse_)},
              kept_.take()) {
  kept_.keep(driver_.group());
}

void DriverPort::start() {
  thread_ = std::thread([this] { run(); });
}

void DriverPort::run() {
  giveWay();
  while (!ending_) {
    try {
      driver_.run();
      return pulse_.rest();
    } catch (...) {
      doubt_("the queue cannot take records: " + describeCurrentException());
      staged_.clear();
      std::this_thread::sleep_for(kRetry);
    }
  }
}

void DriverPort::end() {
  if (!thread_.joinable()) return;
  ending_ = true;
  driver_.stop();
  thread_.join();
  ended_ = true;
  kept_.forget();
}

// Numbers rise, but two threads may come here in any order.
std::uint64_t VolumePort::note(std::uint64_t question) {
  std::uint64_t last = lastQuestion_;
  while (last < question && !lastQuestion_.compare_exchange_weak(last, question)) {
  }
  return question;
}

}  // namespace kddc
