// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How often work that may have to be done again and again is done: after each time there is a
// pause, twice as long as the one before while the work fails or is needed again soon, and never
// shorter than the work itself took, so that it gets half of the time at most.
//
// Threads: one at a time.
#pragma once

#include <algorithm>
#include <chrono>

namespace kddc {

class Pacer {
 public:
  using Clock = std::chrono::steady_clock;

  static constexpr std::chrono::seconds kFirstPause{1}, kLongestPause{30};
  static constexpr std::chrono::minutes kCalm{5};  // after which the pauses begin anew

  bool isDue(Clock::time_point now) const { return now >= notBefore_; }
  // It may be done at once: what stood in the way has changed, or somebody asks for it.
  void hurry() { notBefore_ = {}; }
  void ended(Clock::time_point began, Clock::time_point now, bool well) {
    const bool again = !well || now - lastEnd_ < kCalm;
    pause_ = again ? std::min<Clock::duration>(2 * pause_, kLongestPause) : kFirstPause;
    lastEnd_ = now;
    notBefore_ = now + std::max<Clock::duration>(pause_, now - began);
    failed_ = !well;
  }
  // Whether the last time it was done in vain.
  bool hasFailed() const { return failed_; }

 private:
  Clock::duration pause_ = Clock::duration(kFirstPause) / 2;
  Clock::time_point notBefore_{}, lastEnd_{};
  bool failed_ = false;
};

}  // namespace kddc
