// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records so large that few of them fill a block, each with a number in front.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "buffer/raw_buffer.h"
#include "tests/support/queue_folders.h"

namespace kddc::test {

// As many of them, with their lengths, fill a block to the last byte.
inline constexpr int kInBlock = 64;

// Of 32766 bytes, the most that a record may have.
inline std::string big(int number) {
  std::string record = std::to_string(number) + " ";
  record.resize(32766, '.');
  return record;
}

inline void fill(DCRawBuffer& queue, int first, int count) {
  for (int i = 0; i < count; ++i) ASSERT_EQ(add(queue, big(first + i)), 0);
}

// The next record, or nothing: one call.
inline std::optional<std::string> readOnce(DCRawBuffer& queue) {
  unsigned char* data = nullptr;
  int length = 0;
  if (!queue.ReadEntry(&data, &length)) return std::nullopt;
  return asText(data, length);
}

// The numbers in front of the next `count` records; calls again after each switch of blocks.
inline std::vector<int> numbers(DCRawBuffer& queue, int count) {
  std::vector<int> found;
  for (int calls = 0; static_cast<int>(found.size()) < count && calls < 2 * count + 20; ++calls)
    if (const auto record = readOnce(queue)) found.push_back(std::stoi(*record));
  return found;
}

inline std::vector<int> upTo(int first, int count) {
  std::vector<int> all(static_cast<std::size_t>(count));
  std::iota(all.begin(), all.end(), first);
  return all;
}

}  // namespace kddc::test
