// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/logging.h"

#include <fmt/format.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <memory>

#include "platform/ev_debug.h"

namespace kddc {
namespace {

// The library's level for each -v; its deepest is 7.
constexpr std::array kLevels = {0, 2, 5, 7};

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

bool isC1Control(std::string_view sequence) {
  return sequence.size() == 2 && sequence[0] == '\xc2' &&
         static_cast<unsigned char>(sequence[1]) < 0xa0;
}

bool isHarmless(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  return first >= 0x20 && first != 0x7f && !isC1Control(sequence);
}

void escape(std::string_view bytes, std::string& out) {
  for (const char c : bytes) {
    if (c == '\n')
      out += "\\n";
    else if (c == '\t')
      out += "\\t";
    else
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", static_cast<unsigned char>(c));
  }
}

void writeLine(spdlog::logger& logger, const EvDebug::Line& line) {
  const auto level = line.kind == EvDebug::Line::kError ? spdlog::level::err
                     : line.level <= 1                  ? spdlog::level::info
                                                        : spdlog::level::debug;
  logger.log(level, "{}: {}", printable(line.tag), printable(line.text));
}

}  // namespace

void startLogging(int verbosity) {
  if (verbosity <= 0) {
    dbg.SetSink([](const EvDebug::Line&) {});
    return;
  }
  const auto logger =
      std::make_shared<spdlog::logger>("kddc", std::make_shared<spdlog::sinks::stderr_sink_mt>());
  logger->set_level(spdlog::level::debug);
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
  dbg.SetSink([logger](const EvDebug::Line& line) { writeLine(*logger, line); });
  dbg.SetLevel(kLevels[std::min(static_cast<std::size_t>(verbosity), kLevels.size() - 1)]);
}

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

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = sequenceAt(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace kddc
