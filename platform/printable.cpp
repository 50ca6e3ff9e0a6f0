// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/printable.h"

#include <algorithm>

namespace kddc {
namespace {

struct Sequence {
  unsigned char firstLow, firstHigh;    // the range of the first byte
  unsigned char secondLow, secondHigh;  // of the second; the rest are 80 to bf
  std::size_t length;
};

// The well-formed byte sequences of UTF-8, without overlong forms and surrogates.
constexpr Sequence kSequences[] = {
    {0x00, 0x7f, 0x00, 0x00, 1}, {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3},
    {0xe1, 0xec, 0x80, 0xbf, 3}, {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3},
    {0xf0, 0xf0, 0x90, 0xbf, 4}, {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
};

// The length of the sequence that `text` begins with, 0 when it is none.
std::size_t sequenceAt(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  for (const Sequence& s : kSequences) {
    if (byte(0) < s.firstLow || byte(0) > s.firstHigh) continue;
    if (text.size() < s.length) return 0;
    if (s.length > 1 && (byte(1) < s.secondLow || byte(1) > s.secondHigh)) return 0;
    for (std::size_t i = 2; i < s.length; ++i)
      if (byte(i) < 0x80 || byte(i) > 0xbf) return 0;
    return s.length;
  }
  return 0;
}

// Some terminals take these for the beginnings of commands, as they do the ones below 0x20.
bool isC1Control(std::string_view sequence) {
  if (sequence.size() != 2 || sequence[0] != '\xc2') return false;
  const auto second = static_cast<unsigned char>(sequence[1]);
  return second >= 0x80 && second < 0xa0;
}

bool isHarmless(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  return first >= 0x20 && first != 0x7f && !isC1Control(sequence);
}

void appendHex(const char* before, char byte, std::string& out) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  out.append(before).append({kDigits[value >> 4], kDigits[value & 15]});
}

void escape(std::string_view bytes, std::string& out) {
  for (const char c : bytes) {
    if (c == '\n')
      out += "\\n";
    else if (c == '\t')
      out += "\\t";
    else
      appendHex("\\x", c, out);
  }
}

}  // namespace

std::string printable(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t length = sequenceAt(text);
    const std::string_view piece = text.substr(0, std::max<std::size_t>(length, 1));
    if (length > 0 && isHarmless(piece))
      out += piece;
    else
      escape(piece, out);
    text.remove_prefix(piece.size());
  }
  return out;
}

std::string printableJson(std::string json) {
  const auto isSuspect = [](char c) { return c == '\x7f' || c == '\xc2'; };
  if (std::ranges::none_of(json, isSuspect)) return json;
  std::string out;
  for (std::size_t i = 0; i < json.size(); ++i) {
    const std::string_view rest = std::string_view(json).substr(i);
    if (isC1Control(rest.substr(0, 2)))
      appendHex("\\u00", json[++i], out);
    else if (json[i] == '\x7f')
      out += "\\u007f";
    else
      out += json[i];
  }
  return out;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = sequenceAt(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace kddc
