// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Files of records: the bytes of a stream and of a swap file.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>

#include "tests/support/bytes.h"
#include "tests/support/record_samples.h"

namespace kddc::test {

inline std::string asText(const Bytes& data) {
  return {data.begin(), data.end()};
}
inline std::string wireOf(const Sample& sample) {
  return asText(bytes(sample.wire));
}

// For records that a test makes up as its input.
inline std::string wireOf(const FlrJrnCommandRaw& record) {
  Bytes wire(getRawCmdSize(&record));
  encodeRawCmd(&record, wire.data());
  return asText(wire);
}

// The length in front of a record of a swap file.
inline std::string prefix(int length) {
  const auto value = static_cast<std::int16_t>(length);
  std::string text(sizeof value, '\0');
  std::memcpy(text.data(), &value, sizeof value);
  return text;
}
inline std::string framed(const std::string& record) {
  return prefix(static_cast<int>(record.size())) + record;
}

inline std::string stream(std::initializer_list<Sample> records) {
  std::string text;
  for (const Sample& record : records) text += wireOf(record);
  return text;
}
inline std::string swapFile(std::initializer_list<Sample> records) {
  std::string text;
  for (const Sample& record : records) text += framed(wireOf(record));
  return text;
}

}  // namespace kddc::test
