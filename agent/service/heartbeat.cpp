// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/service/heartbeat.h"

#include <algorithm>

namespace kddc {

Heartbeat::Pulse::Pulse(Heartbeat& heart) : heart_(heart) {
  const std::lock_guard lock(heart_.mutex_);
  heart_.pulses_.push_back(this);
}

Heartbeat::Pulse::~Pulse() {
  const std::lock_guard lock(heart_.mutex_);
  heart_.pulses_.remove(this);
}

// Relaxed loads, and stores: a time is compared with the present one, and with nothing else.
bool Heartbeat::isWell(Clock::time_point now) const {
  const Clock::rep earliest = (now - longest_).time_since_epoch().count();
  const std::lock_guard lock(mutex_);
  return std::ranges::all_of(pulses_, [&](const Pulse* pulse) {
    return pulse->since_.load(std::memory_order_relaxed) >= earliest;
  });
}

}  // namespace kddc
