// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Bytes as a person writes them: hexadecimal digits, with blanks anywhere and comments from ; to
// the end of the line.
#pragma once

#include <cctype>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kddc::test {

using Bytes = std::vector<unsigned char>;

// The digits of `text`, without blanks and comments.
inline std::string digitsOf(std::string_view text) {
  std::string digits;
  bool comment = false;
  for (const char c : text) {
    if (c == ';') comment = true;
    if (c == '\n') comment = false;
    if (comment || std::isspace(static_cast<unsigned char>(c))) continue;
    if (!std::isxdigit(static_cast<unsigned char>(c)))
      throw std::invalid_argument("not a hexadecimal digit: " + std::string(1, c));
    digits += c;
  }
  return digits;
}

// bytes("05 000078  ; a comment") is {0x05, 0x00, 0x00, 0x78}.
inline Bytes bytes(std::string_view text) {
  const std::string digits = digitsOf(text);
  if (digits.size() % 2 != 0) throw std::invalid_argument("half a byte: " + digits);
  Bytes result;
  for (std::size_t i = 0; i < digits.size(); i += 2)
    result.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  return result;
}

// The other way, for messages.
inline std::string hex(std::span<const unsigned char> data) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : data) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xf];
  }
  return text;
}

}  // namespace kddc::test
