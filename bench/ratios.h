// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Runs the benchmarks of a program and reports how each did beside its floor of the same run.
// Machines are shared and noisy: a ratio within one run is worth quoting, a time is not. Times are
// the shortest of the repetitions, which noise can only lengthen.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bench/results.h"

namespace kddc::bench {

// A figure that is the time of one benchmark, divided by `count`, beside that of another. Without
// the times the figure is left out.
struct Measured {
  std::string ours;
  std::string floor;  // may be empty
  Figure figure;
  double count = 1;
};

class ShortestTimes : public benchmark::ConsoleReporter {
 public:
  ShortestTimes() : ConsoleReporter(OO_Tabular) {}
  // Of the machine, once, whatever the number of groups.
  bool ReportContext(const Context& context) override {
    return std::exchange(isBegun_, true) || ConsoleReporter::ReportContext(context);
  }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      failed_ = failed_ || run.error_occurred;
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const std::string name =
          run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
      const double seconds = run.real_accumulated_time / static_cast<double>(run.iterations);
      const auto [known, added] = seconds_.emplace(name, seconds);
      if (!added) known->second = std::min(known->second, seconds);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // Whether one had a wrong answer.
  bool failed() const { return failed_; }
  // In seconds; 0 for one that did not run.
  double of(const std::string& name) const {
    const auto known = seconds_.find(name);
    return known == seconds_.end() ? 0 : known->second;
  }
  // How many times as long `large` took; 0 when one of them did not run.
  double growth(const std::string& large, const std::string& small) const {
    return of(small) > 0 ? of(large) / of(small) : 0;
  }

 private:
  std::map<std::string, double> seconds_;
  bool isBegun_ = false, failed_ = false;
};

inline void reportMeasured(const Measured& measured, const ShortestTimes& times) {
  Figure figure = measured.figure;
  figure.ours = times.of(measured.ours) / measured.count;
  figure.theirs = times.of(measured.floor) / measured.count;
  if (figure.ours > 0 && (figure.isAlone() || figure.theirs > 0)) report(figure);
}

// Whether the program is only to show that it still works.
inline bool isSmoke(int argc, char** argv) {
  return std::any_of(argv, argv + argc, [](std::string_view word) { return word == "--smoke"; });
}

// What is compared with each other, directly or through others.
inline std::vector<std::set<std::string>> groupsOf(const std::vector<Measured>& figures) {
  std::vector<std::set<std::string>> groups;
  for (const Measured& figure : figures) {
    if (figure.floor.empty()) continue;
    std::set<std::string> group = {figure.ours, figure.floor};
    const auto shares = [&](const std::set<std::string>& other) {
      return other.contains(figure.ours) || other.contains(figure.floor);
    };
    for (const auto& other : groups)
      if (shares(other)) group.insert(other.begin(), other.end());
    std::erase_if(groups, shares);
    groups.push_back(std::move(group));
  }
  return groups;
}

// Group after group: the moods of a shared machine last for minutes, and would meet one of two that
// are compared and not the other if all took turns.
inline void runGroups(const std::vector<Measured>& figures, ShortestTimes& times) {
  std::string grouped;
  for (const auto& group : groupsOf(figures)) {
    std::string names;
    for (const std::string& name : group) names += (names.empty() ? "" : "|") + name;
    benchmark::RunSpecifiedBenchmarks(&times, "^(" + names + ")(/|$)");
    grouped += (grouped.empty() ? "" : "|") + names;
  }
  const auto isAlone = [](const Measured& figure) { return figure.floor.empty(); };
  if (std::ranges::any_of(figures, isAlone))
    benchmark::RunSpecifiedBenchmarks(&times, grouped.empty() ? "." : "-^(" + grouped + ")(/|$)");
}

// Answers the exit status. Benchmarks that are compared are run in turns, so many times, so that
// what else the machine does meets both alike; with --smoke the small sizes alone, once and for a
// moment. `more` reports what is not the time of one benchmark.
inline int runAndReport(int argc, char** argv, int repetitions,
                        const std::vector<Measured>& figures,
                        const std::function<void(const ShortestTimes&)>& more = {}) {
  std::vector<std::string> words(argv, argv + argc);
  if (std::erase(words, "--smoke") > 0) {
    words.insert(words.end(), {"--benchmark_min_time=0.01", "--benchmark_filter=-/[1-9]000000"});
  } else if (repetitions > 1) {
    words.insert(words.begin() + 1, {"--benchmark_repetitions=" + std::to_string(repetitions),
                                     "--benchmark_enable_random_interleaving=true"});
  }
  const bool isFiltered = std::ranges::any_of(
      words, [](std::string_view word) { return word.starts_with("--benchmark_filter"); });
  std::vector<char*> arguments;
  arguments.reserve(words.size());
  for (std::string& word : words) arguments.push_back(word.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  ShortestTimes times;
  if (isFiltered)
    benchmark::RunSpecifiedBenchmarks(&times);
  else
    runGroups(figures, times);
  for (const Measured& figure : figures) reportMeasured(figure, times);
  if (more) more(times);
  return times.failed() ? 1 : 0;
}

}  // namespace kddc::bench
