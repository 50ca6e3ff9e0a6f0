// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Runs the benchmarks of a program and prints how each did against its floor of the same run.
// Machines are shared and noisy: a ratio within one run is worth quoting, a time is not. Times are
// the shortest of the repetitions, which noise can only lengthen.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace kddc {

// "ours" reached `floor`'s time divided by its own; 1 is the floor itself.
struct Ratio {
  std::string ours;
  std::string floor;
};

// The same work on something larger took the time of `large` divided by that of `small`.
struct Growth {
  std::string large;
  std::string small;
};

class ShortestTimes : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const std::string name =
          run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
      const double time = run.GetAdjustedRealTime();
      const auto [known, added] = times_.emplace(name, time);
      if (!added) known->second = std::min(known->second, time);
    }
    ConsoleReporter::ReportRuns(runs);
  }
  double of(const std::string& name) const {
    const auto known = times_.find(name);
    return known == times_.end() ? 0 : known->second;
  }

 private:
  std::map<std::string, double> times_;
};

// --smoke runs the small sizes for a moment, to show that the program still works.
inline int runWithRatios(int argc, char** argv, const std::vector<Ratio>& ratios,
                         const std::vector<Growth>& growths = {}) {
  std::vector<std::string> words(argv, argv + argc);
  if (std::erase(words, "--smoke") > 0) {
    words.insert(words.end(), {"--benchmark_min_time=0.01", "--benchmark_filter=-/[1-9]000000"});
  }
  std::vector<char*> arguments;
  arguments.reserve(words.size());
  for (std::string& word : words) arguments.push_back(word.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 1;
  ShortestTimes times;
  benchmark::RunSpecifiedBenchmarks(&times);
  for (const Ratio& ratio : ratios)
    if (times.of(ratio.ours) > 0 && times.of(ratio.floor) > 0)
      std::printf("ratio  %-36s %.2f of %s\n", ratio.ours.c_str(),
                  times.of(ratio.floor) / times.of(ratio.ours), ratio.floor.c_str());
  for (const Growth& growth : growths)
    if (times.of(growth.large) > 0 && times.of(growth.small) > 0)
      std::printf("growth %-36s %.2f over %s\n", growth.large.c_str(),
                  times.of(growth.large) / times.of(growth.small), growth.small.c_str());
  return 0;
}

}  // namespace kddc
