// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records on their way from bytes into rows: each command alone, and all of them mixed as a busy
// volume sends them, beside the floor, which runs the same SQL on bare SQLite connections. Also how
// the cost of a record grows with the catalogue.
//
//   journal_bench [--smoke] [--benchmark_repetitions=N] [--benchmark_filter=REGEX]
//
// A name is <command>/<near|far>/<rows of the catalogue>; all of them take ten minutes,
// "^(Bare-)?LINK/" and its like half of one. Works in $KDDC_BENCH_DIR (default /var/tmp); a
// catalogue of a million rows takes 200 MB there. In /dev/shm no disk is measured, and nobody
// else's use of it.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "bench/bare_journal.h"
#include "bench/journal_stream.h"
#include "bench/mixed_records.h"
#include "bench/ratios.h"
#include "bench/scanned_catalogue.h"
#include "catalogue/db_access.h"
#include "journal/apply_journal.h"
#include "platform/platform_info.h"

using kddc::bench::BareJournal;
using kddc::bench::Figure;
using kddc::bench::Folder;
using kddc::bench::Measured;
using kddc::bench::Order;
using kddc::bench::report;
using kddc::bench::ShortestTimes;
using kddc::bench::Stream;
using kddc::bench::summaryOf;
using kddc::bench::templateOf;
using kddc::bench::Tree;
using kddc::bench::Volume;

namespace {

constexpr unsigned kSizes[] = {100000, 1000000};

// The two that compete.
class Kddc {
 public:
  explicit Kddc(const std::string& folder) : db_(folder) {
    if (!db_.OpenHandle(false, false)) std::abort();
  }
  ~Kddc() { db_.CloseHandle(0, false); }
  void apply(const FlrJrnCommandRaw& record) {
    if (!ApplyJournal(&db_, record)) std::abort();
  }
  void commit() { db_.Commit(); }

 private:
  DCSqliteDB db_;
};
using Bare = BareJournal;

// Whether both came to the same with the same records; asked once of each.
bool agree(const std::string& what, bool bare, const std::string& catalogue) {
  static std::map<std::string, std::string> summaries;
  static std::set<std::pair<std::string, bool>> asked;
  if (!asked.emplace(what, bare).second) return true;
  const std::string summary = summaryOf(catalogue);
  return summaries.try_emplace(what, summary).first->second == summary;
}

template <class Target>
double secondsFor(const Stream& stream, const std::string& catalogue) {
  Target target(catalogue);
  const auto began = std::chrono::steady_clock::now();
  stream.forEach([&](const FlrJrnCommandRaw& record) { target.apply(record); });
  target.commit();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
}

template <class Target>
void measure(benchmark::State& state, const std::string& what, unsigned rows,
             const Stream& stream) {
  for (auto _ : state) {
    const Folder folder;
    templateOf(rows).copyTo(folder.catalogue());
    state.SetIterationTime(secondsFor<Target>(stream, folder.catalogue()));
    if (!agree(what, std::is_same_v<Target, Bare>, folder.catalogue()))
      state.SkipWithError("the rows differ");
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long>(stream.count()));
}

// What one command is measured with.
struct Command {
  const char* name;
  unsigned records;
  void (*happen)(Volume&);
};

constexpr unsigned kOfFiles = 20000, kOfFolders = 8000;  // fewer than the smaller catalogue has

constexpr Command kCommands[] = {
    {"SETATTR", kOfFiles, [](Volume& v) { v.setAttr(v.numberOf(v.file())); }},
    {"CREATE", kOfFiles, [](Volume& v) { v.create(v.folder(), "new.txt", v.newNumber()); }},
    {"MKDIR", kOfFiles, [](Volume& v) { v.mkDir(v.folder(), "new", v.newNumber()); }},
    {"REMOVE", kOfFiles,
     [](Volume& v) {
       const unsigned row = v.file();
       v.remove(Tree::parent(row), Tree::name(row), v.numberOf(row));
     }},
    {"RMDIR", kOfFolders,
     [](Volume& v) {
       const unsigned row = v.subFolder();
       v.rmDir(Tree::parent(row), Tree::name(row), v.numberOf(row));
     }},
    {"LINK", kOfFiles,
     [](Volume& v) {
       const unsigned row = v.file();
       v.link(v.numberOf(row), v.target(row), "link.txt");
     }},
    {"SYMLINK", kOfFiles, [](Volume& v) { v.symLink(v.folder(), "link", v.newNumber()); }},
    {"RENAME-file", kOfFiles,
     [](Volume& v) {
       const unsigned row = v.file();
       v.rename(v.numberOf(row), Tree::parent(row), Tree::name(row), v.target(row), "moved.txt");
     }},
    {"RENAME-folder", kOfFolders,
     [](Volume& v) {
       const unsigned row = v.subFolder();
       v.rename(v.numberOf(row), Tree::parent(row), Tree::name(row), Tree::parent(row), "moved");
     }},
    {"SET_ACL", kOfFiles, [](Volume& v) { v.setAcl(v.numberOf(v.file())); }},
    {"STUB", kOfFiles, [](Volume& v) { v.stub(v.numberOf(v.file())); }},
    {"UNSTUB", kOfFiles, [](Volume& v) { v.unStub(v.numberOf(v.file())); }},
};

const Stream& streamOf(unsigned rows, Order order, const Command& command) {
  // One at a time: a million records take 120 MB.
  static std::string made;
  static Stream stream;
  const std::string key = command.name + std::to_string(rows) + (order == Order::kNear ? "n" : "f");
  if (made != key) {
    Volume volume(rows, order);
    while (volume.stream().count() < command.records) command.happen(volume);
    stream = volume.stream();
    made = key;
  }
  return stream;
}

std::string nameOf(const Command& command, Order order, unsigned rows) {
  return std::string(command.name) + (order == Order::kNear ? "/near/" : "/far/") +
         std::to_string(rows);
}

template <class Target>
void add(const std::string& prefix, const Command& command, Order order, unsigned rows) {
  const std::string what = nameOf(command, order, rows);
  benchmark::RegisterBenchmark((prefix + what).c_str(),
                               [=](benchmark::State& state) {
                                 measure<Target>(state, what, rows, streamOf(rows, order, command));
                               })
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

bool isMix(const Command& command) {
  return command.name == std::string_view("mix");
}

// The mixed records have a table of their own, with times.
Measured figureOf(const Command& command, Order order, unsigned rows) {
  const std::string name = nameOf(command, order, rows);
  const std::string place = std::string(order == Order::kNear ? "near" : "far") + ", " +
                            kddc::bench::withCommas(rows) + " rows";
  Measured measured{.ours = name, .floor = "Bare-" + name, .figure = {.beside = "bare SQLite"}};
  measured.count = command.records;
  if (isMix(command)) {
    measured.figure.table = "mixed records";
    measured.figure.what = "a record, " + place;
    measured.figure.aim = 0.9;
  } else {
    measured.figure.table = "records applied";
    measured.figure.what = command.name;
    measured.figure.column = place;
    measured.figure.aim = 0.85;
  }
  return measured;
}

// What a record costs in the larger catalogue over what it costs in the smaller one. The far ones
// wait for pages, with or without us.
void reportGrowth(const std::vector<Command>& commands, const ShortestTimes& times) {
  for (const Command& command : commands) {
    const auto growth = [&](const std::string& prefix, Order order) {
      return times.growth(prefix + nameOf(command, order, kSizes[1]),
                          prefix + nameOf(command, order, kSizes[0]));
    };
    Figure figure{.table = "growth of records", .what = command.name, .unit = ""};
    const auto add = [&](const char* column, double value, double aim) {
      figure.column = column;
      figure.ours = value;
      figure.aim = aim;
      if (value > 0) report(figure);
    };
    const double far = growth("", Order::kFar), bare = growth("Bare-", Order::kFar);
    add("near", growth("", Order::kNear), 1.5);
    add("near, bare SQLite", growth("Bare-", Order::kNear), 0);
    add("far", far, 0);
    add("far, bare SQLite", bare, 0);
    add("far, ours over bare SQLite's", bare > 0 ? far / bare : 0, 1.1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "4096");  // the program's
  const bool smoke = kddc::bench::isSmoke(argc, argv);
  std::vector<Command> commands(std::begin(kCommands), std::end(kCommands));
  commands.push_back({"mix", smoke ? 10000U : 1000000U, kddc::bench::mix});
  std::vector<Measured> figures;
  for (const Command& command : commands)
    for (const Order order : {Order::kNear, Order::kFar})
      for (const unsigned rows : kSizes) {
        add<Kddc>("", command, order, rows);
        add<Bare>("Bare-", command, order, rows);
        figures.push_back(figureOf(command, order, rows));
      }
  return kddc::bench::runAndReport(
      argc, argv, 5, figures, [&](const ShortestTimes& times) { reportGrowth(commands, times); });
}
