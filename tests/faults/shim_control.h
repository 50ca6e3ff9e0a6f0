// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a test and the shim in the program that it torments have in common: a page of memory, in
// which the test says what shall go wrong and the shim counts. It may be changed at any time.
#pragma once

#include <atomic>
#include <cstddef>

namespace kddc::faults {

// The calls that a fault may hit; bits of a set.
enum Calls : unsigned {
  kReads = 1,
  kWrites = 2,
  kSyncs = 4,
  kRenames = 8,
  kUnlinks = 16,
  kOpens = 32,
  kTruncations = 64,
  kAllocations = 128,
  kLooks = 256,  // name_to_handle_at
  kChanges = kWrites | kSyncs | kRenames | kUnlinks,
};

enum class Fault : int {
  kNone,
  kKill,     // the process dies before the call
  kTear,     // the same, but half of what a write was to write is written
  kFail,     // the call fails with the error number
  kShorten,  // a read or a write moves half of the bytes it was asked to
  kHold,     // the call waits as long as the fault stands
};

struct ShimControl {
  static constexpr std::size_t kMostPath = 512;

  std::atomic<Fault> fault = Fault::kNone;
  std::atomic<int> error = 0;
  std::atomic<unsigned> calls = 0;       // which ones count; allocations have no path
  char folder[kMostPath] = {};           // only those on files below it count; empty: all
  std::atomic<long> first = 1;           // counted from 1: the first call that is hit,
  std::atomic<long> every = 1;           // each so-many-th from there on,
  std::atomic<long> hitsLeft = 0;        // and so many of them
  std::atomic<long> counted = 0;         // by the shim
  std::atomic<long> hits = 0;            // the same
  char lastHit[kMostPath] = {};          // the path of the last one
  std::atomic<long long> clockStep = 0;  // seconds that the real clock is ahead
  std::atomic<long> realClockWaits = 0;  // by the shim: waits that the step would reach
};

}  // namespace kddc::faults
