// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/staged_records.h"

namespace kddc {
namespace {

constexpr std::size_t kMuch = 64 * 1024;

}  // namespace

void StagedRecords::take(std::span<const unsigned char> record) {
  if (bytes_.size() >= kMuch) handOver();
  bytes_.insert(bytes_.end(), record.begin(), record.end());
  lengths_.push_back(record.size());
}

void StagedRecords::handOver() {
  std::size_t given = 0;
  try {
    for (; !lengths_.empty(); lengths_.pop_front()) {
      sink_({bytes_.data() + given, lengths_.front()});
      given += lengths_.front();
    }
  } catch (...) {
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(given));
    throw;
  }
  bytes_.clear();
}

void StagedRecords::clear() {
  bytes_.clear();
  lengths_.clear();
}

}  // namespace kddc
