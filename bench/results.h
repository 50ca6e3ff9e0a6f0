// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The one way in which benchmarks report. A figure is printed and, where KDDC_BENCH_RESULTS names a
// file, added there as a line of JSON; of such lines bench/compose makes the tables of
// docs/performance.md.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "bench/figure.h"

namespace kddc::bench {

inline nlohmann::json toJson(const Figure& f) {
  return {{"table", f.table},   {"what", f.what},
          {"column", f.column}, {"ours", f.ours},
          {"unit", f.unit},     {"beside", f.beside},
          {"theirs", f.theirs}, {"ratio", f.ratio == Ratio::kTimesAsFast ? "fast" : "long"},
          {"aim", f.aim},       {"missed", f.isMissed()}};
}

inline Figure figureOf(const nlohmann::json& line) {
  const bool isFast = line.at("ratio") == "fast";
  return {.table = line.at("table"),
          .what = line.at("what"),
          .column = line.at("column"),
          .ours = line.at("ours"),
          .unit = line.at("unit"),
          .beside = line.at("beside"),
          .theirs = line.at("theirs"),
          .ratio = isFast ? Ratio::kTimesAsFast : Ratio::kTimesAsLong,
          .aim = line.at("aim")};
}

// All of it in one line.
inline std::string lineOf(const Figure& f) {
  std::string line = f.table + ": " + f.what;
  if (!f.column.empty()) line += ", " + f.column;
  line += ": " + amountText(f.ours, f.unit);
  if (!f.isAlone()) line += ", " + f.beside + " " + amountText(f.theirs, f.unit);
  if (!f.isAlone()) line += ": " + ratioText(f);
  if (f.aim != 0) line += " (" + aimText(f) + (f.isMissed() ? ", missed)" : ")");
  return line;
}

inline void report(const Figure& figure) {
  std::puts(lineOf(figure).c_str());
  std::fflush(stdout);
  const char* path = std::getenv("KDDC_BENCH_RESULTS");
  if (!path) return;
  std::ofstream results(path, std::ios::app);
  results << toJson(figure).dump() << '\n';
  if (!results.flush()) throw std::runtime_error(std::string("cannot write ") + path);
}

}  // namespace kddc::bench
