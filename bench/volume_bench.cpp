// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The program on a real tree beside what people use today: `kddc scan` beside a find that prints
// the same fields, `kddc changes` beside a find that looks for the same changes. Both are warm,
// take turns, and must give the same answer; the shortest of the rounds counts.
//
//   volume_bench [--smoke | --files N]
//
// Works in $KDDC_BENCH_DIR (default /var/tmp); a million files take 2 GB there until the end.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Command = std::vector<std::string>;

struct Cost {
  double seconds = 1e9;
  long mebibytes = 0;  // at its largest
};

[[noreturn]] void become(const Command& command, const std::string& output) {
  const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(fd, STDOUT_FILENO);
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  execvp(words[0], words.data());
  _exit(127);
}

Cost run(const Command& command, const std::string& output) {
  const auto began = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) become(command, output);
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    throw std::runtime_error(command[0] + " failed");
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  return {took.count(), usage.ru_maxrss / 1024};
}

void keepBest(Cost& best, const Cost& cost) {
  best = {std::min(best.seconds, cost.seconds), std::max(best.mebibytes, cost.mebibytes)};
}

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
    std::printf("scan     kddc %.2f s, %ld MiB   find %.2f s   ratio %.2f (at most 2.5)\n",
                kddc.seconds, kddc.mebibytes, find.seconds, kddc.seconds / find.seconds);
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
