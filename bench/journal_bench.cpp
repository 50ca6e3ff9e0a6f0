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
// "^(Bare-)?LINK/" and its like a quarter of one. Works in $KDDC_BENCH_DIR (default /var/tmp); a
// catalogue of a million rows takes 200 MB there. In /dev/shm no disk is measured, and nobody
// else's use of it.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "bench/bare_catalogue.h"
#include "bench/bare_journal.h"
#include "bench/journal_stream.h"
#include "bench/ratios.h"
#include "catalogue/db_access.h"
#include "journal/apply_journal.h"
#include "platform/platform_info.h"

using kddc::bench::BareDatabase;
using kddc::bench::BareJournal;
using kddc::bench::BareStatement;
using kddc::bench::Folder;
using kddc::bench::Order;
using kddc::bench::Stream;
using kddc::bench::Tree;
using kddc::bench::Volume;

namespace {

constexpr unsigned kSizes[] = {100000, 1000000};
constexpr const char* kDatabases[] = {"/.db.kd", "/.fid.kd"};

// A catalogue after a scan. The indexes are made at the end: that is quicker.
class Template {
 public:
  explicit Template(unsigned rows) {
    DCSqliteDB(folder_.catalogue()).CreateDb();
    fillFiles(rows);
    fillFids(rows);
  }

  // For what follows it must not matter that the copies are still to be written to the disk.
  void copyTo(const std::string& catalogue) const {
    std::filesystem::create_directory(catalogue);
    for (const char* name : kDatabases) {
      std::filesystem::copy_file(folder_.catalogue() + name, catalogue + name);
      const int fd = open((catalogue + name).c_str(), O_RDWR | O_CLOEXEC);
      fsync(fd);
      close(fd);
    }
  }

 private:
  Folder folder_;

  void fillFiles(unsigned rows) const {
    BareDatabase files(folder_.catalogue() + kDatabases[0]);
    files.exec("DROP INDEX IN_PINODE");
    BareStatement insert(files,
                         "INSERT INTO FILES VALUES (?1,?1,?2,?3,1,501,20,4096,8,1700000000,"
                         "1700000000,1700000000,1700000000,?4,?5)");
    for (unsigned row = 0; row < rows; ++row) {
      const bool folder = Tree::isFolder(row);
      const long long inode = row + 1, parent = row == 0 ? 0 : Tree::parent(row) + 1;
      const std::string name = Tree::name(row);
      insert.bind(inode, parent, folder ? 040755 : 0100644, folder ? 1 : 0, name).write();
    }
    files.exec("CREATE INDEX IN_PINODE ON FILES(PINODE)");
  }

  void fillFids(unsigned rows) const {
    BareDatabase fids(folder_.catalogue() + kDatabases[1]);
    fids.exec("DROP INDEX IN_FID");
    BareStatement insert(fids, "INSERT INTO FIDS VALUES (?1,?1,0,0,?2,?3,?4,?5)");
    for (unsigned row = 0; row < rows; ++row)
      insert.bind(static_cast<long long>(row + 1)).bindFid(2, kddc::bench::fidOf(row)).write();
    fids.exec("CREATE INDEX IN_FID ON FIDS (FID1,FID2,FID3,FID4)");
  }
};

const Template& templateOf(unsigned rows) {
  static std::map<unsigned, Template> templates;
  return templates.try_emplace(rows, rows).first->second;
}

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

// What both must agree on in the end; stamps of the wall clock they need not.
std::string summaryOf(const std::string& catalogue) {
  std::string summary;
  const auto note = [](void* out, int columns, char** values, char**) {
    for (int i = 0; i < columns; ++i)
      *static_cast<std::string*>(out) += std::string(values[i]) + ' ';
    return 0;
  };
  const auto ask = [&](const char* database, const char* sql) {
    BareDatabase::must(
        sqlite3_exec(BareDatabase(catalogue + database).handle(), sql, note, &summary, nullptr));
  };
  ask(kDatabases[0],
      "SELECT COUNT(*),SUM(INODE*31+PINODE),SUM(FID_ROWID),SUM(MODE),SUM(NLINK),SUM(SIZE),"
      "SUM(CTIME),SUM(FILE_TYPE),SUM(LENGTH(NAME)) FROM FILES");
  ask(kDatabases[1], "SELECT COUNT(*),SUM(FIDS_ROWID*31+FILES_ROWID),SUM(FID1%1000003) FROM FIDS");
  return summary;
}

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

// An editor saves a file by way of a new one, and a program makes a temporary file.
void workOn(Volume& v, unsigned row) {
  const unsigned folder = Tree::parent(row), saved = v.newNumber(), temporary = v.newNumber();
  v.create(folder, "saved~", saved);
  v.setAttr(saved);
  v.renameOver(saved, "saved~", row);
  v.setAcl(saved);
  v.setAttr(saved);
  v.create(folder, "temporary", temporary);
  v.setAttr(temporary);
  v.remove(folder, "temporary", temporary);
}

void packAndUnpack(Volume& v, unsigned row) {
  const unsigned folder = Tree::parent(row), made = v.newNumber(), inside = v.newNumber();
  v.mkDir(folder, "unpacked.tmp", made);
  v.create(folder, "inside", inside);
  v.rename(made, folder, "unpacked.tmp", folder, "unpacked");
  v.remove(folder, "inside", inside);
  v.rmDir(folder, "unpacked", made);
}

void linkAndUnlink(Volume& v, unsigned row) {
  const unsigned folder = Tree::parent(row), symbolic = v.newNumber();
  v.link(v.numberOf(row), folder, "second name");
  v.setAttr(v.numberOf(row));
  v.remove(folder, "second name", v.numberOf(row), 1);
  v.symLink(folder, "symbolic", symbolic);
  v.remove(folder, "symbolic", symbolic);
}

void moveDataAway(Volume& v, unsigned row) {
  v.stub(v.numberOf(row));
  v.unStub(v.numberOf(row));
}

// In the end the catalogue is as large as it was.
void mix(Volume& v) {
  static constexpr void (*kRarer[])(Volume&, unsigned) = {packAndUnpack, linkAndUnlink,
                                                          moveDataAway};
  const unsigned row = v.file();
  workOn(v, row);
  kRarer[row % std::size(kRarer)](v, row);
}

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

}  // namespace

int main(int argc, char** argv) {
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "4096");  // the program's
  std::vector<char*> words(argv, argv + argc);
  const bool smoke = std::ranges::find(words, std::string_view("--smoke")) != words.end();
  // In turns, so that what else the machine does meets both alike.
  static char repeat[] = "--benchmark_repetitions=5";
  static char takeTurns[] = "--benchmark_enable_random_interleaving=true";
  if (!smoke) words.insert(words.begin() + 1, {repeat, takeTurns});

  std::vector<Command> commands(std::begin(kCommands), std::end(kCommands));
  commands.push_back({"mix", smoke ? 10000U : 1000000U, mix});
  std::vector<kddc::Ratio> ratios;
  std::vector<kddc::Growth> growths;
  for (const Command& command : commands)
    for (const Order order : {Order::kNear, Order::kFar}) {
      for (const unsigned rows : kSizes) {
        add<Kddc>("", command, order, rows);
        add<Bare>("Bare-", command, order, rows);
        const std::string name = nameOf(command, order, rows);
        ratios.push_back({name, "Bare-" + name});
      }
      const std::string large = nameOf(command, order, kSizes[1]);
      const std::string small = nameOf(command, order, kSizes[0]);
      growths.push_back({large, small});
      growths.push_back({"Bare-" + large, "Bare-" + small});
    }
  return kddc::runWithRatios(static_cast<int>(words.size()), words.data(), ratios, growths);
}
