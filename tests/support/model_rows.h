// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Rows of a catalogue as plain values, and as the text in which SQLite prints them.
#pragma once

#include <limits>
#include <string>
#include <variant>

#include "platform/file_id.h"
#include "tests/support/database_view.h"

namespace kddc::test {

// An integer column that SQL text writes to: from 2^63 on SQLite takes it for a floating-point
// number, and does not read its last digits.
struct FloatingPoint {
  std::string text;
};
using Number = std::variant<long long, FloatingPoint>;

inline Number literal(unsigned long long value) {
  if (value <= std::numeric_limits<long long>::max()) return static_cast<long long>(value);
  static DatabaseView sqlite(":memory:");
  return FloatingPoint{sqlite.cell("SELECT " + std::to_string(value))};
}

// A floating-point number here is always too great for an integer: SQLite reads the greatest one.
inline long long integer(const Number& number) {
  const auto* value = std::get_if<long long>(&number);
  return value ? *value : std::numeric_limits<long long>::max();
}

struct ModelFile {
  long long fidRowId = 0, parent = 0;
  long long mode = 0, nlink = 0;
  Number uid, gid, size, blocks;
  long long atime = 0, mtime = 0, ctime = 0, time = 0;
  int type = 0;
  std::string name;
};

struct ModelFid {
  long long filesRowId = 0;
  fsf_fid fid{};
};

inline std::string cellText(long long value) {
  return std::to_string(value);
}
inline std::string cellText(const std::string& value) {
  return value;
}
inline std::string cellText(const Number& value) {
  const auto* integer = std::get_if<long long>(&value);
  return integer ? std::to_string(*integer) : std::get<FloatingPoint>(value).text;
}

template <class... Cells>
std::string rowText(const Cells&... cells) {
  std::string text;
  ((text += (text.empty() ? "" : "|") + cellText(cells)), ...);
  return text;
}

// The four columns of an identifier: 48 bits each, lowest byte first.
inline std::string fidText(const fsf_fid& fid) {
  std::string text;
  for (int piece = 0; piece < 4; ++piece) {
    long long number = 0;
    for (int byte = 5; byte >= 0; --byte) number = number << 8 | fid.data[6 * piece + byte];
    text += (piece == 0 ? "" : "|") + std::to_string(number);
  }
  return text;
}

}  // namespace kddc::test
