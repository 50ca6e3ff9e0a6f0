// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What coalescing saves: a burst of attribute records, a hundred for each file, in turns, through a
// CumulativeJournal that holds all the files back, beside the same burst applied one by one. Both
// end with their rows committed, and the rows are compared.
//
//   coalesce_bench [--smoke] [--benchmark_repetitions=N]
//
// A name is <Coalesced|OneByOne>/<records>. The catalogue has 100,000 rows. Works in
// $KDDC_BENCH_DIR (default /var/tmp).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "bench/journal_stream.h"
#include "bench/ratios.h"
#include "bench/scanned_catalogue.h"
#include "journal/apply_journal.h"
#include "journal/cumulative_journal.h"
#include "platform/platform_info.h"

using kddc::bench::Folder;
using kddc::bench::Order;
using kddc::bench::Stream;
using kddc::bench::Volume;

namespace {

constexpr unsigned kRows = 100000, kRecordsOfEachFile = 100;

const Stream& burstOf(unsigned records) {
  static std::map<unsigned, Stream> bursts;
  if (const auto made = bursts.find(records); made != bursts.end()) return made->second;
  Volume volume(kRows, Order::kFar);
  std::vector<unsigned> files(records / kRecordsOfEachFile);
  for (unsigned& file : files) file = volume.numberOf(volume.file());
  for (unsigned i = 0; i < records; ++i) volume.setAttr(files[i % files.size()]);
  return bursts[records] = volume.stream();
}

void flush(DCSqliteDB&) {}
void flush(CumulativeJournal& db) {
  db.FlushAllJournals();
}

template <class Catalogue>
double secondsFor(const Stream& burst, const std::string& folder) {
  Catalogue db(folder);
  if (!db.OpenHandle(false, false)) std::abort();
  const auto began = std::chrono::steady_clock::now();
  burst.forEach([&](const FlrJrnCommandRaw& record) {
    if (!ApplyJournal(&db, record)) std::abort();
  });
  flush(db);
  db.Commit();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  db.CloseHandle(0, false);
  return took.count();
}

// Whether the rows are those that the first run with as many records left.
bool agree(unsigned records, const std::string& folder) {
  static std::map<unsigned, std::string> summaries;
  const std::string summary = kddc::bench::summaryOf(folder);
  return summaries.try_emplace(records, summary).first->second == summary;
}

template <class Catalogue>
void measure(benchmark::State& state) {
  const auto records = static_cast<unsigned>(state.range(0));
  for (auto _ : state) {
    const Folder folder;
    kddc::bench::templateOf(kRows).copyTo(folder.catalogue());
    state.SetIterationTime(secondsFor<Catalogue>(burstOf(records), folder.catalogue()));
    if (!agree(records, folder.catalogue())) state.SkipWithError("the rows differ");
  }
  state.SetItemsProcessed(state.iterations() * records);
}

template <class Catalogue>
void add(const char* name) {
  benchmark::RegisterBenchmark(name, measure<Catalogue>)
      ->Arg(10000)
      ->Arg(1000000)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "4096");  // the program's
  KDPlatformInfo::setDefault("DataClassification", "SimultaneousFileAcess", "10000");
  add<CumulativeJournal>("Coalesced");
  add<DCSqliteDB>("OneByOne");
  std::vector<kddc::bench::Measured> figures;
  for (const int records : {10000, 1000000}) {
    const std::string suffix = "/" + std::to_string(records);
    figures.push_back({.ours = "Coalesced" + suffix,
                       .floor = "OneByOne" + suffix,
                       .figure = {.table = "coalescing",
                                  .what = kddc::bench::withCommas(records) + " attribute records",
                                  .beside = "one by one",
                                  .aim = records == 1000000 ? 5.0 : 0}});
  }
  return kddc::bench::runAndReport(argc, argv, 3, figures);
}
