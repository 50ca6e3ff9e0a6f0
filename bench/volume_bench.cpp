// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The program on a real tree beside what people use today: `kddc scan` beside others that read the
// whole tree, `kddc changes` beside others that tell which files have changed. Answers to one
// question must be the same.
//
//   volume_bench [--smoke | --files N]
//
// Works in $KDDC_BENCH_DIR (default /var/tmp); a million files take 2 GB there until the end.
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "bench/measured_command.h"
#include "bench/peers.h"
#include "bench/results.h"

namespace {

using kddc::Command;
using kddc::Cost;
using kddc::run;
using kddc::bench::Peer;
using kddc::bench::Ratio;
using kddc::bench::report;
using kddc::bench::Watchman;

using Lines = std::vector<std::string>;

Lines sorted(Lines lines) {
  std::sort(lines.begin(), lines.end());
  return lines;
}

Lines linesOf(const std::string& path) {
  std::ifstream in(path);
  Lines lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return sorted(std::move(lines));
}

// As a catalogue would stand that was made before the changes.
void stampWithChangeTimes(const std::string& database) {
  sqlite3* db = nullptr;
  if (sqlite3_open(database.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, "UPDATE FILES SET TIME=CTIME", nullptr, nullptr, nullptr) != SQLITE_OK)
    throw std::runtime_error(sqlite3_errmsg(db));
  sqlite3_close(db);
}

std::time_t afterTheNextSecondBegan() {
  const std::time_t now = std::time(nullptr);
  while (std::time(nullptr) <= now) usleep(10000);
  return now + 1;
}

std::string formatted(std::time_t time, const char* format) {
  char text[64];
  std::strftime(text, sizeof text, format, std::localtime(&time));
  return text;
}

constexpr char kFields[] = "%i %s %T@ %C@ %p\n";

// What find tells of each entry, into a table of the sqlite3 shell.
constexpr char kLoad[] =
    R"(find "$1" -printf '%i|%m|%n|%U|%G|%s|%b|%A@|%T@|%C@|%y|%p\n' | sqlite3 "$2" )"
    R"('PRAGMA synchronous=OFF' 'PRAGMA journal_mode=OFF' )"
    R"('CREATE TABLE FILES (INODE INTEGER,MODE INTEGER,NLINK INTEGER,UID INTEGER,GID INTEGER,)"
    R"(SIZE INTEGER,BLOCKS INTEGER,ATIME REAL,MTIME REAL,CTIME REAL,TYPE TEXT,PATH TEXT)' )"
    R"('.import /dev/stdin FILES' 'CREATE INDEX IN_PATH ON FILES(PATH)')";

// Changed rows, and the way up from each to the root, which has no name of its own.
constexpr char kChanges[] =
    "WITH RECURSIVE UP(PARENT,PATH) AS ("
    "SELECT PINODE,NAME FROM FILES WHERE TIME>=%lld AND PINODE<>0 UNION ALL "
    "SELECT F.PINODE,F.NAME||'/'||PATH FROM UP JOIN FILES F ON F.INODE=PARENT WHERE F.PINODE<>0) "
    "SELECT PATH FROM UP JOIN FILES R ON R.INODE=PARENT WHERE R.PINODE=0";

class Bench {
 public:
  Bench(long files, int rounds) : files_(files), rounds_(rounds) {
    const char* base = std::getenv("KDDC_BENCH_DIR");
    base_ = std::string(base ? base : "/var/tmp") + "/kddc-volume-bench-XXXXXX";
    if (!mkdtemp(base_.data())) throw std::runtime_error("cannot make " + base_);
    std::printf("making %ld files in %s\n", files_, base_.c_str());
    run({KDDC_MAKE_TREE, tree(), std::to_string(files_), std::to_string(files_ / 100 + 1)}, null());
  }
  ~Bench() { std::filesystem::remove_all(base_); }
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  void scan() {
    std::vector<Peer> peers = installed(readers());
    const Cost ours = takeTurns(
        rounds_, [&] { return scanOnce(); }, peers);
    const std::string what = "`scan` of " + kddc::bench::withCommas(files_) + " files";
    reportBeside(
        peers,
        {.table = "volume", .what = what, .ours = ours.seconds, .ratio = Ratio::kTimesAsLong});
    report({.table = "volume",
            .what = what + ", memory",
            .ours = static_cast<double>(ours.mebibytes),
            .unit = "MiB",
            .aim = 180});
  }

  void changes() {
    std::unique_ptr<Watchman> watchman;
    if (kddc::bench::isInstalled("watchman")) {
      watchman = std::make_unique<Watchman>(base_ + "/watchman");
      watchman->crawl(tree());
      clock_ = watchman->clock(tree());
    }
    since_ = afterTheNextSecondBegan();
    run({"find", tree(), "-name", "*00.dat", "-exec", "touch", "{}", "+"}, null());
    scanOnce();
    stampWithChangeTimes(catalogue() + "/.db.kd");
    std::vector<Peer> peers = installed(finders(watchman.get()));
    const Cost ours = takeTurns(
        rounds_ * 2, [&] { return changesOnce(); }, peers);
    requireAlike(watchman.get());
    reportBeside(peers, {.table = "volume",
                         .what = "`changes`, 1 % of " + kddc::bench::withCommas(files_) + " files",
                         .ours = ours.seconds});
  }

 private:
  Cost scanOnce() const {
    return run({KDDC_PROGRAM, "-q", "--catalogue", catalogue(), "scan", tree()}, null());
  }
  Cost changesOnce() const {
    return run({KDDC_PROGRAM, "-q", "--catalogue", catalogue(), "changes", tree(), "--since",
                std::to_string(since_)},
               answerOf("kddc"));
  }

  std::vector<Peer> readers() const {
    const auto into = [this](const std::string& name, const Command& command) {
      return [=, this] { return run(command, answerOf(name)); };
    };
    const std::string database = base_ + "/database";
    return {
        {"find", "`find -printf`", 1.8, into("find", {"find", tree(), "-printf", kFields})},
        {"bfs", "`bfs -printf`", 0, into("bfs", {"bfs", tree(), "-printf", kFields})},
        {"fdfind", "`fd --changed-after`", 0,
         into("fd", {"fdfind", "-u", "--changed-after", "1970-01-02", ".", tree()})},
        {"updatedb", "`updatedb`", 0,
         [=, this] {
           std::filesystem::remove(database);
           return run({"updatedb", "-U", tree(), "-o", database, "-l", "no", "--prunepaths", "",
                       "--prunefs", "", "--prunenames", ""},
                      null());
         }},
        {"sqlite3", "`find -printf` into `sqlite3`", 0,
         [=, this] {
           std::filesystem::remove(database);
           return run({"sh", "-c", kLoad, "sh", tree(), database}, null());
         }},
        {"watchman", "`watchman watch`", 0.5,
         [this] {
           Watchman watchman(base_ + "/watchman");
           Cost cost = watchman.crawl(tree());
           cost.mebibytes = watchman.shutDown();
           return cost;
         }},
    };
  }

  std::vector<Peer> finders(const Watchman* watchman) const {
    const std::string time = formatted(since_, "%FT%T%z");
    const auto into = [this](const std::string& name, const Command& command) {
      return [=, this] { return run(command, answerOf(name)); };
    };
    char sql[1024];
    std::snprintf(sql, sizeof sql, kChanges, static_cast<long long>(since_));
    return {
        {"find", "`find -newerct`", 12,
         into("find", {"find", tree(), "-newerct", time, "-printf", "%P\n"})},
        {"bfs", "`bfs -newerct`", 0,
         into("bfs", {"bfs", tree(), "-newerct", time, "-printf", "%P\n"})},
        {"fdfind", "`fd --changed-after`", 0,
         into("fd", {"fdfind", "-u", "--base-directory", tree(), "--changed-after",
                     formatted(since_, "%F %T")})},
        {"sqlite3", "`sqlite3`, on the catalogue", 0,
         into("sqlite3", {"sqlite3", "-readonly", catalogue() + "/.db.kd", sql})},
        {"watchman", "`watchman query`", 0,
         [=, this] { return watchman->changesSince(clock_, tree()); }},
    };
  }

  // What the last round answered.
  void requireAlike(const Watchman* watchman) const {
    const Lines ours = linesOf(answerOf("kddc"));
    if (ours.empty()) throw std::runtime_error("nothing has changed");
    for (const char* name : {"find", "bfs", "fd", "sqlite3"})
      if (std::filesystem::exists(answerOf(name)) && linesOf(answerOf(name)) != ours)
        throw std::runtime_error(std::string("kddc and ") + name + " differ");
    if (watchman && sorted(watchman->changed()) != ours)
      throw std::runtime_error("kddc and watchman differ");
  }

  std::string tree() const { return base_ + "/tree"; }
  std::string catalogue() const { return base_ + "/catalogue"; }
  std::string answerOf(const std::string& name) const { return base_ + "/answer-" + name; }
  static std::string null() { return "/dev/null"; }

  std::string base_;
  long files_;
  int rounds_;
  std::time_t since_ = 0;
  std::string clock_;  // watchman's
};

}  // namespace

int main(int argc, char** argv) {
  const std::string option = argc > 1 ? argv[1] : "";
  const bool smoke = option == "--smoke";
  long files = smoke ? 2000 : 1000000;
  if (option == "--files" && argc > 2) files = std::atol(argv[2]);
  try {
    Bench bench(files, smoke ? 1 : 3);
    bench.scan();
    bench.changes();
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "volume_bench: %s\n", e.what());
    return 1;
  }
}
