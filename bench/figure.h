// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A figure of ours, what it is held to, and how both are written.
#pragma once

#include <cmath>
#include <cstdio>
#include <string>

namespace kddc::bench {

// What a ratio counts: 2 is twice as fast as what stands beside, or twice as long.
enum class Ratio { kTimesAsFast, kTimesAsLong };

struct Figure {
  std::string table{};   // of docs/performance.md
  std::string what{};    // the row
  std::string column{};  // where a row has several figures
  double ours = 0;
  std::string unit = "s";  // of ours, of theirs, and of an aim without a ratio
  std::string beside{};    // a floor or a peer; none: the figure stands alone
  double theirs = 0;
  Ratio ratio = Ratio::kTimesAsFast;
  // What the ratio, or the figure that stands alone, is to be: at least for what counts how fast,
  // at most for all else. 0: there is no aim.
  double aim = 0;

  bool isAlone() const { return beside.empty(); }
  bool isAtLeast() const { return !isAlone() && ratio == Ratio::kTimesAsFast; }
  double times() const { return ratio == Ratio::kTimesAsFast ? theirs / ours : ours / theirs; }
  // Judged as it is shown: by two decimals.
  bool isMissed() const {
    if (aim == 0) return false;
    const double shown = isAlone() ? ours : std::round(times() * 100) / 100;
    return isAtLeast() ? shown < aim : shown > aim;
  }
};

inline std::string decimals(double value, int count) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", count, value);
  return text;
}

// 1000000 as 1,000,000.
inline std::string withCommas(long long value) {
  std::string text = std::to_string(value);
  for (auto at = static_cast<int>(text.size()) - 3; at > 0; at -= 3)
    text.insert(static_cast<std::size_t>(at), ",");
  return text;
}

struct Amount {
  double value;
  std::string unit;
};

// Seconds in the part of a second that suits.
inline Amount scaled(double value, const std::string& unit) {
  static constexpr const char* kParts[] = {"s", "ms", "µs", "ns"};
  if (unit != "s") return {value, unit};
  int part = 0;
  for (; part < 3 && value < 0.9995; ++part) value *= 1000;
  return {value, kParts[part]};
}

// Three digits: 8.40 ns, 14.1 s, 113 ms, 1204 MiB.
inline std::string amountText(double value, const std::string& unit) {
  const Amount amount = scaled(value, unit);
  const int digits = unit == "MiB" || amount.value >= 99.95 ? 0 : amount.value >= 9.995 ? 1 : 2;
  return decimals(amount.value, digits) + (unit.empty() ? "" : " " + amount.unit);
}

// 0.97, 17
inline std::string timesText(const Figure& figure) {
  return decimals(figure.times(), figure.times() < 9.995 ? 2 : 0);
}

inline std::string ratioText(const Figure& figure) {
  if (figure.isAlone()) return "";
  const bool isFast = figure.ratio == Ratio::kTimesAsFast;
  return timesText(figure) + (isFast ? " times as fast" : " times as long");
}

inline std::string aimText(const Figure& figure) {
  if (figure.aim == 0) return "";
  const Amount aim = scaled(figure.aim, figure.isAlone() ? figure.unit : "");
  char text[64];
  std::snprintf(text, sizeof text, "at %s %g", figure.isAtLeast() ? "least" : "most", aim.value);
  return text + (aim.unit.empty() ? "" : " " + aim.unit);
}

}  // namespace kddc::bench
