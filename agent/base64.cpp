// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/base64.h"

#include <cstdint>

namespace kddc {
namespace {

constexpr std::string_view kDigits =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string toBase64(std::string_view bytes) {
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = 0;
    for (std::size_t k = i; k < i + 3; ++k)
      group = group << 8 | (k < bytes.size() ? static_cast<unsigned char>(bytes[k]) : 0u);
    for (const int shift : {18, 12, 6, 0}) out += kDigits[group >> shift & 63];
  }
  for (std::size_t padding = (3 - bytes.size() % 3) % 3, i = 1; i <= padding; ++i)
    out[out.size() - i] = '=';
  return out;
}

std::optional<std::string> fromBase64(std::string_view text) {
  std::string bytes;
  std::uint32_t group = 0;
  int bits = 0;
  for (const char c : text.substr(0, text.find('='))) {
    const std::size_t digit = kDigits.find(c);
    if (digit == std::string_view::npos) return std::nullopt;
    group = (group << 6 | static_cast<std::uint32_t>(digit)) & 0xffffff;
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    bytes += static_cast<char>(group >> bits & 0xff);
  }
  // Length, padding and the bits left over have one right form each.
  if (toBase64(bytes) != text) return std::nullopt;
  return bytes;
}

}  // namespace kddc
