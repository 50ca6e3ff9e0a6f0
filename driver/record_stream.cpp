// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "driver/record_stream.h"

#include <utility>

namespace kddc {

RecordStream::RecordStream(std::uint64_t devt, std::uint64_t firstSequence, Sink sink)
    : devt_(devt), next_(firstSequence), sink_(std::move(sink)) {}

bool RecordStream::write(FlrJrnCommandRaw record) {
  const unsigned int size = getRawCmdSize(&record);
  if (size == 0 || size > kMaxRecordBytes) return false;
  const std::uint64_t sequence = nextSequence();
  record.devt = devt_;
  record.seq_num = sequence;
  bytes_.resize(size);
  encodeRawCmd(&record, bytes_.data());
  sink_(bytes_);
  next_.store(sequence + 1, std::memory_order_release);
  return true;
}

}  // namespace kddc
