// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The parser of points in time, on any text: a number or std::invalid_argument. What it gives lies
// within what the longest digits can mean, and the same moment written as seconds, and as a date
// and time of day, is the same moment again.
#include <fmt/chrono.h>

#include <optional>
#include <stdexcept>

#include "agent/when.h"
#include "tests/fuzz/fuzz.h"

using kddc::fuzz::require;

namespace {

constexpr long long kNow = 1'700'000'000;
constexpr long long kMostDigits = 999'999'999'999;
constexpr long long kWeek = 7 * 86'400;
// 0000-01-01T00:00:00Z to 9999-12-31T23:59:59Z
constexpr long long kYear0 = -62'167'219'200, kYear9999 = 253'402'300'799;

std::optional<long long> secondsOf(const std::string& text, long long now) {
  try {
    return kddc::parseWhen(text, now);
  } catch (const std::invalid_argument& e) {
    require(std::string(e.what()).find(text.c_str()) != std::string::npos);
    return std::nullopt;
  }
}

void checkWrittenAgain(long long seconds) {
  if (seconds >= 0) require(kddc::parseWhen(fmt::format("@{}", seconds), kNow) == seconds);
  if (seconds < kYear0 || seconds > kYear9999) return;
  const std::tm date = fmt::gmtime(seconds);
  const std::string text =
      fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", date.tm_year + 1900, date.tm_mon + 1,
                  date.tm_mday, date.tm_hour, date.tm_min, date.tm_sec);
  require(kddc::parseWhen(text, kNow) == seconds);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = kddc::fuzz::textOf(data, size);
  const auto seconds = secondsOf(text, kNow);
  const auto later = secondsOf(text, kNow + 1);
  require(seconds.has_value() == later.has_value());
  if (!seconds) return 0;
  require(*later == *seconds || *later == *seconds + 1);  // the latter of an age
  require(*seconds >= kNow - kMostDigits * kWeek && *seconds <= kMostDigits);
  checkWrittenAgain(*seconds);
  return 0;
}
