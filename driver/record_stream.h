// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Numbers records and encodes them for whoever takes them further.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "records/journal_record.h"

namespace kddc {

// Threads: write() is for one thread, nextSequence() for any.
class RecordStream {
 public:
  // Takes one encoded record, valid during the call. One that throws has taken nothing.
  using Sink = std::function<void(std::span<unsigned char>)>;

  // What journal buffers take; longer than any record that names and link texts can make.
  static constexpr unsigned int kMaxRecordBytes = 32767;

  RecordStream(std::uint64_t devt, std::uint64_t firstSequence, Sink sink);

  // Gives a record its device and the next number and hands its bytes on. False for a record that
  // is too long or unknown: it is dropped and uses no number up. An exception of the sink leaves
  // the call, and its number is given to the next record.
  bool write(FlrJrnCommandRaw record);
  // The number of the next record. All before it were handed on.
  std::uint64_t nextSequence() const { return next_.load(std::memory_order_acquire); }

 private:
  std::uint64_t devt_;
  std::atomic<std::uint64_t> next_;
  Sink sink_;
  std::vector<unsigned char> bytes_;
};

}  // namespace kddc
