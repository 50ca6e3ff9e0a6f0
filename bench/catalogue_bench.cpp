// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Rows of the catalogue: insert and lookups, each beside its floor, the same SQL with the same
// settings on bare SQLite connections.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench/bare_catalogue.h"
#include "bench/ratios.h"
#include "catalogue/db_access.h"

using kddc::bench::BareCatalogue;
using kddc::bench::Folder;

namespace {

constexpr int kWarmUp = 100000;  // lookups

// Identifiers as ext4 gives them, in an order that has nothing to do with their values.
const std::vector<fsf_fid>& identifiers(std::size_t count) {
  static std::vector<fsf_fid> all;
  if (all.size() == count) return all;
  all.assign(count, {});
  std::vector<unsigned> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 12U);
  std::mt19937 random(1);
  std::shuffle(numbers.begin(), numbers.end(), random);
  for (std::size_t i = 0; i < count; ++i) {
    all[i].data[0] = 1;
    all[i].data[1] = 8;
    const unsigned handle[2] = {numbers[i], static_cast<unsigned>(random())};
    std::copy_n(reinterpret_cast<const unsigned char*>(handle), 8, all[i].data + 4);
  }
  return all;
}

unsigned long long parentOf(std::size_t i) {
  return i / 100 + 1;
}

long long bareParentOf(std::size_t i) {
  return static_cast<long long>(parentOf(i));
}

std::string nameOf(std::size_t i) {
  return "document-" + std::to_string(i) + ".txt";
}

StatFidName_s entryAt(std::size_t i, const fsf_fid& fid) {
  StatFidName_s entry{};
  entry.fid = fid;
  entry.name = nameOf(i);
  entry.st.st_mode = 0100644;
  entry.st.st_nlink = 1;
  entry.st.st_size = static_cast<off_t>(i % 100000);
  entry.st.st_blocks = 8;
  entry.st.st_atime = entry.st.st_mtime = entry.st.st_ctime = 4000000000;
  return entry;
}

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
  std::mt19937 random(2);
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

BENCHMARK(Insert)->Arg(100000)->Arg(1000000)->Iterations(1)->Repetitions(3)->Unit(
    benchmark::kMillisecond);
BENCHMARK(BareInsert)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(LookupByIdentifier)->Arg(100000)->Arg(1000000);
BENCHMARK(BareLookupByIdentifier)->Arg(100000)->Arg(1000000);
BENCHMARK(LookupByName)->Arg(100000)->Arg(1000000);
BENCHMARK(BareLookupByName)->Arg(100000)->Arg(1000000);

}  // namespace

int main(int argc, char** argv) {
  std::vector<kddc::Ratio> ratios;
  for (const char* what : {"Insert", "LookupByIdentifier", "LookupByName"})
    for (const char* rows : {"/100000", "/1000000"}) {
      const std::string ours = std::string(what) + rows;
      ratios.push_back({ours, "Bare" + ours});
    }
  return kddc::runWithRatios(argc, argv, ratios);
}
