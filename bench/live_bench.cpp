// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What it costs to be watched: the same work with and without `kddc watch`, how far behind the
// catalogue is at its end, a rescan beside a find that prints the same fields, and memory. Rounds
// take turns, the shortest counts, and each figure stands beside what it may be at most.
//
//   live_bench [--smoke | --files N]
//
// Works on an ext4 of its own in an image in /var/tmp, or, where KDDC_BENCH_DIR names a folder, in
// there without a mount. Ends with 77 and the reason where it cannot run.
#include <sched.h>
#include <sys/mount.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "bench/measured_command.h"
#include "bench/results.h"

namespace {

using kddc::Command;
using kddc::Cost;
using kddc::keepBest;
using kddc::run;
using kddc::bench::Ratio;
using kddc::bench::report;

constexpr int kSkipped = 77;
constexpr int kReadySeconds = 300;

std::string contentsOf(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// `kddc watch` as a child, from when it is ready to its graceful end.
class Watcher {
 public:
  Watcher(const Command& command, const std::string& output) {
    std::filesystem::remove(output);
    child_ = kddc::start(command, output);
    for (int i = 0; contentsOf(output).find("ready\n") == std::string::npos; ++i) {
      if (i == kReadySeconds * 100 || waitpid(child_, nullptr, WNOHANG) != 0)
        throw std::runtime_error("kddc watch did not get ready");
      usleep(10000);
    }
  }
  ~Watcher() {
    if (child_ <= 0) return;
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  long mebibytesAtMost() const {
    std::ifstream status("/proc/" + std::to_string(child_) + "/status");
    for (std::string word; status >> word;)
      if (long kibibytes = 0; word == "VmHWM:" && status >> kibibytes) return kibibytes / 1024;
    throw std::runtime_error("kddc watch has ended by itself");
  }
  void stop() {
    kill(child_, SIGTERM);
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = 0;
    if (status != 0) throw std::runtime_error("kddc watch did not end gracefully");
  }

 private:
  pid_t child_ = 0;
};

// An ext4 in a file, mounted for this process and its children alone.
void mountImage(const std::string& image, const std::string& at, long files) {
  std::ofstream(image).close();
  std::filesystem::resize_file(
      image, (std::uintmax_t{64} << 20) + static_cast<std::uintmax_t>(files) * 1000);
  run({"mkfs.ext4", "-q", "-F", "-N", std::to_string(files * 5 / 4 + 5000), image}, "/dev/null");
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    throw std::runtime_error("cannot make a name space of mounts");
  run({"mount", "-o", "loop", image, at}, "/dev/null");
}

class Bench {
 public:
  Bench(long files, int rounds) : files_(files), rounds_(rounds) {
    const char* folder = std::getenv("KDDC_BENCH_DIR");
    base_ = std::string(folder ? folder : "/var/tmp") + "/kddc-live-bench-XXXXXX";
    if (!mkdtemp(base_.data())) throw std::runtime_error("cannot make " + base_);
    std::filesystem::create_directory(volume());
    if (!folder) mountImage(base_ + "/image", volume(), files_);
  }
  ~Bench() {
    umount2(volume().c_str(), MNT_DETACH);
    std::filesystem::remove_all(base_);
  }
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  // The work's own seconds do not count the start of the process.
  void work() {
    double unwatched = 1e9, watched = 1e9, lag = 1e9, quiet = 1e9;
    long mebibytes = 0;
    for (int i = 0; i < rounds_; ++i) {
      unwatched = std::min(unwatched, workload());
      const auto watcher = watch();
      const double seconds = workload();
      watched = std::min(watched, seconds);
      lag = std::min(lag, flush() / seconds);
      for (int again = 0; again < 5; ++again) quiet = std::min(quiet, flush());
      mebibytes = std::max(mebibytes, watcher->mebibytesAtMost());
      watcher->stop();
    }
    const std::string what =
        "make and remove " + kddc::bench::withCommas(workFiles()) + " files, watched";
    report({.table = "watching",
            .what = what,
            .ours = watched,
            .beside = "unwatched",
            .theirs = unwatched,
            .ratio = Ratio::kTimesAsLong,
            .aim = 1.25});
    report({.table = "watching",
            .what = "`flush` right after it",
            .ours = lag * watched,
            .beside = "the work",
            .theirs = watched,
            .ratio = Ratio::kTimesAsLong,
            .aim = 0.5});
    report({.table = "watching", .what = "`flush` of a quiet volume", .ours = quiet, .aim = 0.02});
    reportMemory("memory after the work", mebibytes);
  }

  void rescan() {
    run({KDDC_MAKE_TREE, volume() + "/tree", std::to_string(files_),
         std::to_string(files_ / 100 + 1)},
        null());
    run(kddc("scan"), null());
    Cost find, rescan;
    for (int i = 0; i < rounds_; ++i) {
      keepBest(find, run({"find", volume(), "-printf", "%i %s %T@ %C@ %p\n"}, base_ + "/find"));
      keepBest(rescan, run(kddc("rescan"), null()));
    }
    report({.table = "watching",
            .what = "`rescan` of " + kddc::bench::withCommas(files_) + " unchanged files",
            .ours = rescan.seconds,
            .beside = "`find -printf`",
            .theirs = find.seconds,
            .ratio = Ratio::kTimesAsLong,
            .aim = 1.5});
  }

  void memory() {
    const auto watcher = watch();
    flush();
    reportMemory("memory for " + kddc::bench::withCommas(files_) + " files",
                 watcher->mebibytesAtMost());
    watcher->stop();
  }

 private:
  std::string volume() const { return base_ + "/volume"; }
  static std::string null() { return "/dev/null"; }
  long workFiles() const { return files_ / 5; }

  Command kddc(const std::string& command) const {
    return {KDDC_PROGRAM,         "-q",    "--state", base_ + "/state", "--catalogue",
            base_ + "/catalogue", command, volume()};
  }
  std::unique_ptr<Watcher> watch() const {
    return std::make_unique<Watcher>(kddc("watch"), base_ + "/watch");
  }
  static void reportMemory(const std::string& what, long mebibytes) {
    report({.table = "watching",
            .what = what,
            .ours = static_cast<double>(mebibytes),
            .unit = "MiB",
            .aim = 150});
  }
  double flush() const { return run(kddc("flush"), null()).seconds; }
  double workload() const {
    run({KDDC_WORKLOAD, "--root", volume(), "--bench", std::to_string(workFiles())},
        base_ + "/seconds");
    return std::stod(contentsOf(base_ + "/seconds"));
  }

  std::string base_;
  long files_;
  int rounds_;
};

}  // namespace

int main(int argc, char** argv) {
  const std::string option = argc > 1 ? argv[1] : "";
  const bool smoke = option == "--smoke";
  long files = smoke ? 5000 : 1000000;
  if (option == "--files" && argc > 2) files = std::atol(argv[2]);
  try {
    if (geteuid() != 0) {
      std::puts("live_bench: Skipped\nwatching needs root");
      return kSkipped;
    }
    Bench bench(files, smoke ? 1 : 5);
    bench.work();
    bench.rescan();
    bench.memory();
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "live_bench: %s\n", e.what());
    return 1;
  }
}
