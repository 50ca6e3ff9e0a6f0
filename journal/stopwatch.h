// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How long something took, for the statistics. Private.
#pragma once

#include <ctime>

#include "support/journal_stats.h"

namespace kddc {

// Runs from its construction on, by the real-time clock, as all statistics do.
class Stopwatch {
 public:
  unsigned long long nanoseconds() const {
    unsigned long long elapsed = 0;
    MeasureTime(&elapsed, start_, now());
    return elapsed;
  }

 private:
  static timespec now() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return time;
  }

  timespec start_ = now();
};

}  // namespace kddc
