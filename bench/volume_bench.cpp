// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The program on a real tree beside what people use today: `kddc scan` beside a find that prints
// the same fields and beside the crawl of watchman, `kddc changes` beside a find that looks for the
// same changes. All are warm and take turns, answers to one question must be the same, and the
// shortest of the rounds counts. watchman is left out where it is not installed.
//
//   volume_bench [--smoke | --files N]
//
// Works in $KDDC_BENCH_DIR (default /var/tmp); a million files take 2 GB there until the end.
#include <sqlite3.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "bench/measured_command.h"

namespace {

using kddc::Command;
using kddc::Cost;
using kddc::finish;
using kddc::keepBest;
using kddc::run;
using kddc::start;

std::vector<std::string> sortedLines(const std::string& path) {
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
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

// A watchman of our own, whose watch answers when the tree was crawled.
class Watchman {
 public:
  static bool installed() { return std::system("watchman --version >/dev/null 2>&1") == 0; }

  // Keeps its files in `folder`.
  explicit Watchman(const std::string& folder) : folder_(folder) {
    std::filesystem::create_directories(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    server_ = start(
        {"watchman", "--foreground", "--no-save-state", socket(), "--logfile=" + folder + "/log",
         "--pidfile=" + folder + "/pid", "--statefile=" + folder + "/state"},
        folder + "/out");
    for (int tries = 0; !std::filesystem::exists(folder + "/socket"); ++tries) {
      if (tries == 1000) throw std::runtime_error("watchman does not start");
      usleep(10000);
    }
  }
  ~Watchman() {
    if (server_ > 0) kill(server_, SIGKILL);
  }
  Watchman(const Watchman&) = delete;
  Watchman& operator=(const Watchman&) = delete;

  // Crawls and ends.
  Cost crawl(const std::string& tree) {
    const double seconds = ask({"watch", tree}).seconds;
    ask({"shutdown-server"});
    return {seconds, finish(std::exchange(server_, 0), "watchman", {}).mebibytes};
  }

 private:
  std::string socket() const { return "--sockname=" + folder_ + "/socket"; }
  Cost ask(const Command& words) const {
    Command command = {"watchman", "--no-spawn", socket()};
    command.insert(command.end(), words.begin(), words.end());
    return run(command, folder_ + "/answer");
  }

  std::string folder_;
  pid_t server_ = 0;
};

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
    Cost find, kddc;
    for (int i = 0; i < rounds_; ++i) {
      keepBest(find, run({"find", tree(), "-printf", "%i %s %T@ %C@ %p\n"}, base_ + "/find"));
      keepBest(kddc, run({KDDC_PROGRAM, "-q", "--catalogue", catalogue(), "scan", tree()}, null()));
    }
    std::printf("scan     kddc %.2f s, %ld MiB   find %.2f s   ratio %.2f (at most 1.8)\n",
                kddc.seconds, kddc.mebibytes, find.seconds, kddc.seconds / find.seconds);
    besideWatchman(kddc);
  }

  void changes() {
    const std::string since = std::to_string(afterTheNextSecondBegan());
    run({"find", tree(), "-name", "*00.dat", "-exec", "chmod", "600", "{}", "+"}, null());
    run({KDDC_PROGRAM, "-q", "--catalogue", catalogue(), "scan", tree()}, null());
    stampWithChangeTimes(catalogue() + "/.db.kd");
    Cost find, kddc;
    for (int i = 0; i < rounds_ * 2; ++i) {
      keepBest(find,
               run({"find", tree(), "-newerct", "@" + since, "-printf", "%P\n"}, base_ + "/find"));
      keepBest(kddc, run({KDDC_PROGRAM, "-q", "--catalogue", catalogue(), "changes", tree(),
                          "--since", since},
                         base_ + "/kddc"));
    }
    const auto found = sortedLines(base_ + "/find");
    if (found.empty() || found != sortedLines(base_ + "/kddc"))
      throw std::runtime_error("the two answers differ");
    std::printf(
        "changes  kddc %.3f s, find %.2f s   %zu of %ld changed   ratio %.1f (at least 12)\n",
        kddc.seconds, find.seconds, found.size(), files_, find.seconds / kddc.seconds);
  }

 private:
  void besideWatchman(const Cost& kddc) const {
    if (!Watchman::installed()) {
      std::puts("scan     watchman is not installed; left out");
      return;
    }
    Cost crawl;
    for (int i = 0; i < rounds_; ++i) keepBest(crawl, Watchman(base_ + "/watchman").crawl(tree()));
    std::printf("scan     watchman %.2f s, %ld MiB   ratio %.2f (at most 0.5)\n", crawl.seconds,
                crawl.mebibytes, kddc.seconds / crawl.seconds);
  }

  std::string tree() const { return base_ + "/tree"; }
  std::string catalogue() const { return base_ + "/catalogue"; }
  static std::string null() { return "/dev/null"; }

  std::string base_;
  long files_;
  int rounds_;
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
