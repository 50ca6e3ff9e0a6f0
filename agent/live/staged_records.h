// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records on their way into the queue: those of one turn of the driver go together.
//
// The database thread is mostly faster than the driver that looks at the disk. Woken for every
// record, it would find one, sleep, and be woken again, and each time displace whoever makes the
// changes.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <span>
#include <utility>
#include <vector>

namespace kddc {

// Threads: one.
class StagedRecords {
 public:
  // Takes one encoded record, valid during the call. One that throws has taken nothing.
  using Sink = std::function<void(std::span<unsigned char>)>;

  explicit StagedRecords(Sink sink) : sink_(std::move(sink)) {}

  // Keeps a copy. Hands over what there is by itself when it becomes much.
  void take(std::span<const unsigned char> record);
  // Gives the sink everything, in order. An exception of it leaves the call; what was not taken is
  // kept for the next one.
  void handOver();
  void clear();

 private:
  Sink sink_;
  std::vector<unsigned char> bytes_;  // one record after the other
  std::deque<std::size_t> lengths_;
};

}  // namespace kddc
