// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A full scan's inserts, plain and sorted, each beside the same SQL on bare connections.
// Identifiers come in random order: the larger the catalogue, the fewer of the index's pages are at
// hand when a plain insert needs them.
//
// Works in $KDDC_BENCH_DIR (default /var/tmp); five million rows take 1 GB there, one at a time.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/engine/scan_catalogue.h"
#include "bench/bare_catalogue.h"
#include "bench/catalogue_rows.h"
#include "bench/ratios.h"
#include "catalogue/db_access.h"
#include "platform/platform_info.h"

using kddc::bench::BareCatalogue;
using kddc::bench::bareParentOf;
using kddc::bench::entryAt;
using kddc::bench::Figure;
using kddc::bench::Folder;
using kddc::bench::identifiers;
using kddc::bench::Measured;
using kddc::bench::parentOf;
using kddc::bench::report;
using kddc::bench::ShortestTimes;

namespace {

// Inserts without anything around SQLite, sorted as the catalogue sorts them.
class BareSorted : public BareCatalogue {
 public:
  using BareCatalogue::BareCatalogue;

  void insert(const StatFidName_s& entry, long long parent) {
    pending_.emplace(entry.fid, insertFile(entry.st, entry.name, parent, 0, kUnknown));
    if (pending_.size() >= 1000000) flush();
  }
  void flush() {
    std::vector<std::pair<long long, long long>> rows;
    rows.reserve(pending_.size());
    for (const auto& [fid, inode] : pending_) rows.emplace_back(inode, insertFid(fid, inode, 0));
    pending_.clear();
    std::ranges::sort(rows);
    for (const auto& [inode, row] : rows) updateFidRowId(inode, row);
  }

 private:
  std::multimap<fsf_fid, long long> pending_;
};

class BarePlain : public BareCatalogue {
 public:
  using BareCatalogue::BareCatalogue;
  void insert(const StatFidName_s& entry, long long parent) {
    BareCatalogue::insert(entry.st, entry.fid, entry.name, parent, 0);
  }
  void flush() {}
};

void begin(DCSqliteDB&) {}
void begin(kddc::ScanCatalogue& db) {
  db.beginBuild();
}
void end(DCSqliteDB&) {}
void end(DCSqliteDBSortedInsert& db) {
  db.FlushAllFids();
}
void end(kddc::ScanCatalogue& db) {
  db.endBuild();
}

// Until every row is written and committed; making it durable at the close is no matter of inserts.
template <class Catalogue>
void fill(benchmark::State& state) {
  const auto& fids = identifiers(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    const Folder folder;
    Catalogue db(folder.catalogue());
    db.CreateDb();
    db.OpenHandle(false, false);
    state.ResumeTiming();
    begin(db);
    for (std::size_t i = 0; i < fids.size(); ++i) {
      StatFidName_s entry = entryAt(i, fids[i]);
      db.Insert(&entry, parentOf(i), 7);
    }
    end(db);
    db.Commit();
    state.PauseTiming();
    db.CloseHandle(0, true);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class Bare>
void fillBare(benchmark::State& state) {
  const auto& fids = identifiers(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    const Folder folder;
    DCSqliteDB(folder.catalogue()).CreateDb();
    {
      Bare bare(folder.catalogue());
      state.ResumeTiming();
      for (std::size_t i = 0; i < fids.size(); ++i)
        bare.insert(entryAt(i, fids[i]), bareParentOf(i));
      bare.flush();
      bare.commit();
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void Plain(benchmark::State& state) {
  fill<DCSqliteDB>(state);
}
void Sorted(benchmark::State& state) {
  KDPlatformInfo::setDefault("DataClassification", "SortedInsertMapSize", "1000000");
  fill<DCSqliteDBSortedInsert>(state);
}
void Scan(benchmark::State& state) {
  KDPlatformInfo::setDefault("DataClassification", "SortedInsertMapSize", "2000");
  fill<kddc::ScanCatalogue>(state);
}
void BarePlainSql(benchmark::State& state) {
  fillBare<BarePlain>(state);
}
void BareSortedSql(benchmark::State& state) {
  fillBare<BareSorted>(state);
}

void floors(benchmark::internal::Benchmark* benchmark) {
  for (const int rows : {100000, 1000000}) benchmark->Arg(rows);
  benchmark->Iterations(1)->Unit(benchmark::kMillisecond);
}
void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->Apply(floors)->Arg(5000000);
}
BENCHMARK(Plain)->Apply(sizes);
BENCHMARK(Sorted)->Apply(sizes);
BENCHMARK(Scan)->Apply(sizes);
BENCHMARK(BarePlainSql)->Apply(floors);
BENCHMARK(BareSortedSql)->Apply(floors);

// As the table names them.
constexpr std::pair<const char*, const char*> kWays[] = {
    {"Plain", "plain, `DCSqliteDB`"},
    {"Sorted", "sorted, `DCSqliteDBSortedInsert` alone"},
    {"Scan", "as `kddc scan` makes a catalogue"},
    {"BarePlainSql", "plain, bare SQLite"},
    {"BareSortedSql", "sorted, bare SQLite"}};

constexpr double kSmall = 1e6, kLarge = 5e6;  // rows

std::vector<Measured> times() {
  std::vector<Measured> figures;
  for (const auto& [way, what] : kWays)
    for (const char* rows : {"1000000", "5000000"})
      figures.push_back({.ours = std::string(way) + "/" + rows,
                         .floor = "",
                         .figure = {.table = "inserts",
                                    .what = what,
                                    .column = kddc::bench::withCommas(std::atoll(rows))}});
  return figures;
}

// Only what a scan does has aims.
void reportComparisons(const ShortestTimes& times) {
  for (const auto& [way, what] : kWays) {
    const double small = times.of(std::string(way) + "/1000000");
    const double large = times.of(std::string(way) + "/5000000");
    const double plain = times.of("Plain/5000000");
    const bool isScan = way == std::string_view("Scan");
    if (small <= 0 || large <= 0 || plain <= 0) continue;
    Figure figure = {.table = "inserts", .what = what, .column = "beside plain", .ours = large};
    figure.beside = "plain";
    figure.theirs = plain;
    figure.aim = isScan ? 1.6 : 0;
    report(figure);
    figure.column = figure.beside = "rate at 5,000,000, beside that at 1,000,000";
    figure.ours = large / kLarge;
    figure.theirs = small / kSmall;
    figure.aim = isScan ? 0.8 : 0;
    report(figure);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // The sizes are the program's.
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "4096");
  return kddc::bench::runAndReport(argc, argv, 1, times(),
                                   [](const ShortestTimes& times) { reportComparisons(times); });
}
