// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Rows of the catalogue: insert and lookups, each beside its floor, the same SQL with the same
// settings on bare SQLite connections.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/bare_catalogue.h"
#include "bench/catalogue_rows.h"
#include "bench/ratios.h"
#include "catalogue/db_access.h"

using kddc::bench::BareCatalogue;
using kddc::bench::bareParentOf;
using kddc::bench::entryAt;
using kddc::bench::Folder;
using kddc::bench::identifiers;
using kddc::bench::nameOf;
using kddc::bench::parentOf;

namespace {

constexpr int kWarmUp = 100000;  // lookups

void Insert(benchmark::State& state) {
  const auto& fids = identifiers(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    const Folder folder;
    DCSqliteDB db(folder.catalogue());
    db.CreateDb();
    db.OpenHandle(false, false);
    state.ResumeTiming();
    for (std::size_t i = 0; i < fids.size(); ++i) {
      StatFidName_s entry = entryAt(i, fids[i]);
      db.Insert(&entry, parentOf(i), 7);
    }
    db.Commit();
    state.PauseTiming();
    db.CloseHandle(0, false);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BareInsert(benchmark::State& state) {
  const auto& fids = identifiers(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    const Folder folder;
    DCSqliteDB(folder.catalogue()).CreateDb();
    {
      BareCatalogue bare(folder.catalogue());
      state.ResumeTiming();
      for (std::size_t i = 0; i < fids.size(); ++i) {
        const StatFidName_s entry = entryAt(i, fids[i]);
        bare.insert(entry.st, entry.fid, entry.name, bareParentOf(i), 0);
      }
      bare.commit();
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// A catalogue of as many rows, filled once for all lookups; each connection has filled its cache.
struct Filled {
  explicit Filled(std::size_t rows) : fids(identifiers(rows)), db(folder.catalogue()) {
    db.CreateDb();
    db.OpenHandle(false, false);
    for (std::size_t i = 0; i < rows; ++i) {
      StatFidName_s entry = entryAt(i, fids[i]);
      db.Insert(&entry, parentOf(i), 7);
    }
    db.Commit();
    bare = std::make_unique<BareCatalogue>(folder.catalogue());
    std::mt19937 random(3);
    for (int i = 0; i < kWarmUp; ++i) {
      const std::size_t row = random() % rows;
      ours(row);
      ours(parentOf(row), nameOf(row));
      bare->inodeOf(fids[row]);
      bare->inodeOf(bareParentOf(row), nameOf(row));
    }
  }

  unsigned long long ours(std::size_t row) {
    unsigned long long inode = 0;
    db.GetFidTuple(&fids[row], nullptr, &inode, nullptr, nullptr, nullptr, nullptr);
    return inode;
  }
  unsigned long long ours(unsigned long long parent, const std::string& name) {
    unsigned long long inode = 0;
    db.GetRowIdAndFileType(parent, name.c_str(), &inode, nullptr, nullptr);
    return inode;
  }

  Folder folder;
  const std::vector<fsf_fid>& fids;
  DCSqliteDB db;
  std::unique_ptr<BareCatalogue> bare;
};

Filled& filled(std::size_t rows) {
  static std::unique_ptr<Filled> catalogue;
  if (!catalogue || catalogue->fids.size() != rows) {
    catalogue.reset();
    catalogue = std::make_unique<Filled>(rows);
  }
  return *catalogue;
}

template <class Lookup>
void lookUp(benchmark::State& state, const Lookup& lookup) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  static std::mt19937 random(2);  // the next turn asks for other rows: these are warm by then
  for (auto _ : state) benchmark::DoNotOptimize(lookup(random() % rows));
  state.SetItemsProcessed(state.iterations());
}

void LookupByIdentifier(benchmark::State& state) {
  Filled& catalogue = filled(static_cast<std::size_t>(state.range(0)));
  lookUp(state, [&](std::size_t i) { return catalogue.ours(i); });
}

void BareLookupByIdentifier(benchmark::State& state) {
  Filled& catalogue = filled(static_cast<std::size_t>(state.range(0)));
  lookUp(state, [&](std::size_t i) { return catalogue.bare->inodeOf(catalogue.fids[i]); });
}

void LookupByName(benchmark::State& state) {
  Filled& catalogue = filled(static_cast<std::size_t>(state.range(0)));
  lookUp(state, [&](std::size_t i) { return catalogue.ours(parentOf(i), nameOf(i)); });
}

void BareLookupByName(benchmark::State& state) {
  Filled& catalogue = filled(static_cast<std::size_t>(state.range(0)));
  lookUp(state, [&](std::size_t i) { return catalogue.bare->inodeOf(bareParentOf(i), nameOf(i)); });
}

BENCHMARK(Insert)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BareInsert)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(LookupByIdentifier)->Arg(100000)->Arg(1000000);
BENCHMARK(BareLookupByIdentifier)->Arg(100000)->Arg(1000000);
BENCHMARK(LookupByName)->Arg(100000)->Arg(1000000);
BENCHMARK(BareLookupByName)->Arg(100000)->Arg(1000000);

}  // namespace

int main(int argc, char** argv) {
  struct Operation {
    const char* benchmark;
    const char* what;
    double aim;
  };
  std::vector<kddc::bench::Measured> figures;
  for (const auto& [benchmark, what, aim] : {Operation{"Insert", "`Insert`", 0.9},
                                             {"LookupByIdentifier", "`GetFidTuple`", 0},
                                             {"LookupByName", "`GetRowIdAndFileType`", 0}})
    for (const int rows : {100000, 1000000}) {
      const std::string ours = std::string(benchmark) + "/" + std::to_string(rows);
      const bool isInsert = ours.starts_with("Insert");
      figures.push_back({.ours = ours,
                         .floor = "Bare" + ours,
                         .figure = {.table = "rows",
                                    .what = std::string(what) + (isInsert ? " of " : " among ") +
                                            kddc::bench::withCommas(rows) + " rows",
                                    .beside = "bare SQLite",
                                    .aim = aim},
                         .count = isInsert ? rows : 1.0});
    }
  return kddc::bench::runAndReport(argc, argv, 5, figures);
}
