// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Whether threads get on. Each notes when it begins to wait for something to do, which it may do as
// long as it likes, and when it begins a piece of work, which must end, or go over into the next
// one, within a time that is the same for all.
//
//   waits ──beat()──► works ──beat()──► works ──rest()──► waits
//                       └── no further call in time: hangs
//
// A piece of work is what is bounded by itself: a record, a commit, a batch of events; never a
// whole queue of them.
#pragma once

#include <atomic>
#include <chrono>
#include <limits>
#include <list>
#include <mutex>

namespace kddc {

// Threads: any. Outlives its pulses.
class Heartbeat {
 public:
  using Clock = std::chrono::steady_clock;

  // `longest`: what a piece of work may take.
  explicit Heartbeat(Clock::duration longest) : longest_(longest) {}

  // Whether no thread hangs.
  bool isWell(Clock::time_point now = Clock::now()) const;

  // One thread's. Rests in the beginning. Cheap enough to be called for each record.
  class Pulse {
   public:
    explicit Pulse(Heartbeat& heart);
    ~Pulse();
    Pulse(const Pulse&) = delete;
    Pulse& operator=(const Pulse&) = delete;

    void beat(Clock::time_point now = Clock::now()) noexcept {
      since_.store(now.time_since_epoch().count(), std::memory_order_relaxed);
    }
    void rest() noexcept { since_.store(kRests, std::memory_order_relaxed); }
    // The two as a call, for whoever knows only of that.
    void operator()(bool waits) noexcept { waits ? rest() : beat(); }

   private:
    friend Heartbeat;
    static constexpr Clock::rep kRests = std::numeric_limits<Clock::rep>::max();

    Heartbeat& heart_;
    std::atomic<Clock::rep> since_ = kRests;
  };

 private:
  const Clock::duration longest_;
  mutable std::mutex mutex_;
  std::list<const Pulse*> pulses_;
};

}  // namespace kddc
