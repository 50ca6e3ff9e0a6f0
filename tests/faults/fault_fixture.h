// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// `kddc watch` while something goes wrong: on a file system of the test's own, under the workload
// of the torture, with the shim in its process, and held to a look at the disk that uses nothing of
// the library.
//
// $KDDC_FAULTS_LONG: the long form of each test; $KDDC_FAULTS_ROUNDS: in that form no more rounds
// than this, for a part of a series; $KDDC_FAULTS_SEED: another seed than 1.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <new>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "tests/faults/shim_control.h"
#include "tests/support/watch_fixture.h"
#include "tests/torture/differences.h"

namespace kddc::faults {

namespace fs = std::filesystem;
using test::Outcome;
using test::Program;
using test::Words;

inline bool isLong() {
  return std::getenv("KDDC_FAULTS_LONG") != nullptr;
}
inline int numberFrom(const char* variable, int otherwise) {
  const char* value = std::getenv(variable);
  return value ? std::atoi(value) : otherwise;
}
inline int rounds(int shortForm, int longForm) {
  return isLong() ? std::min(longForm, numberFrom("KDDC_FAULTS_ROUNDS", longForm)) : shortForm;
}
inline unsigned seed() {
  return static_cast<unsigned>(numberFrom("KDDC_FAULTS_SEED", 1));
}

// For a line in the log beside what is asserted.
template <class... Values>
void tell(const Values&... words) {
  ((std::cout << "  ") << ... << words) << std::endl;
}

inline void nap(int milliseconds) {
  usleep(static_cast<useconds_t>(milliseconds) * 1000);  // paces what is killed or loaded
}

// Looks again and again until `condition` holds; false when the time is up first.
template <class Condition>
bool comesTrue(const Condition& condition, std::chrono::seconds within = std::chrono::seconds(60)) {
  const auto deadline = std::chrono::steady_clock::now() + within;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    nap(5);
  }
  return true;
}

// The control page of the shim, and what a program has to do to itself to be under it.
class Shim {
 public:
  Shim() : file_(folder_.write("control", "")) {
    fs::resize_file(file_, sizeof(ShimControl));
    const UniqueFd fd(open(file_.c_str(), O_RDWR | O_CLOEXEC));
    void* page =
        mmap(nullptr, sizeof(ShimControl), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (page == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mmap");
    control_ = new (page) ShimControl;
  }
  ~Shim() { munmap(control_, sizeof(ShimControl)); }
  Shim(const Shim&) = delete;
  Shim& operator=(const Shim&) = delete;

  ShimControl* operator->() const { return control_; }

  // Counts from now on the calls about what lies below `folder`.
  void count(unsigned calls, const std::string& folder = "") const {
    control_->calls = 0;
    control_->hitsLeft = control_->counted = control_->hits = 0;
    folder.copy(control_->folder, ShimControl::kMostPath - 1);
    control_->folder[folder.size()] = 0;
    control_->calls = calls;
  }
  // Then hits the first-th of them, and each every-th behind it, `times` times.
  void hit(Fault fault, int error = 0, long first = 1, long every = 1,
           long times = std::numeric_limits<long>::max() / 2) const {
    control_->fault = fault;
    control_->error = error;
    control_->first = first;
    control_->every = every;
    control_->hitsLeft = times;
  }
  void rest() const { control_->calls = 0; }

  Program::Preparation preparation() const {
    return [this] {
      setenv("LD_PRELOAD", KDDC_PROCESS_SHIM, 1);
      setenv("KDDC_SHIM_CONTROL", file_.c_str(), 1);
    };
  }

 private:
  test::TempFolder folder_{test::inMemory()};
  std::string file_;
  ShimControl* control_;
};

// The torture's workload as a process group beside the test, until it is ended.
class Work {
 public:
  struct Plan {
    std::string root;       // is made
    std::string survivors;  // gets the identifiers of what lives throughout
    unsigned seed = 1;
    long operations = 1'000'000'000;
    unsigned pause = 500;  // microseconds; without, a machine of two processors does nothing else
  };
  explicit Work(const Plan& plan) {
    fs::create_directories(plan.root);
    fs::remove(plan.survivors);
    child_ = fork();
    if (child_ == 0) become(plan);
    if (!comesTrue([&] { return fs::exists(plan.survivors); }))
      throw std::runtime_error("the workload does not begin");
  }
  ~Work() { end(); }
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;

  // By force: what it held open is closed.
  void end() {
    if (child_ <= 0) return;
    ::kill(-child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    while (::kill(-child_, 0) == 0) nap(1);  // those below it too, whose parent is another now
    child_ = 0;
  }
  // Waits until it has done all it was to do.
  int finish() {
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = 0;
    return status;
  }

 private:
  [[noreturn]] static void become(const Plan& plan) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string seed = std::to_string(plan.seed),
                      operations = std::to_string(plan.operations),
                      pause = std::to_string(plan.pause);
    execl(KDDC_WORKLOAD, KDDC_WORKLOAD, "--root", plan.root.c_str(), "--survivors",
          plan.survivors.c_str(), "--seed", seed.c_str(), "--operations", operations.c_str(),
          "--processes", "2", "--pause", pause.c_str(), nullptr);
    _exit(127);
  }
  pid_t child_ = 0;
};

struct FaultTest : test::WatchTest {
  explicit FaultTest(std::string fsType = "tmpfs") : WatchTest(std::move(fsType)) {
    setenv("TMPDIR", test::inMemory().c_str(), 1);  // images too cost the disk nothing there
  }

  Shim shim;
  std::mt19937 random{seed()};
  const std::string survivorsFile = temp / "survivors";

  int below(int end) { return static_cast<int>(random() % static_cast<unsigned>(end)); }

  std::unique_ptr<Program> watchShimmed() const { return watch(words(), shim.preparation()); }
  std::unique_ptr<Program> launchShimmed() const { return launch(words(), shim.preparation()); }
  // $KDDC_FAULTS_VERBOSE: with a log.
  Words words() const {
    return std::getenv("KDDC_FAULTS_VERBOSE") ? Words{volume, "-v"} : Words{volume};
  }

  // Waits for a moment at which it is ready; one that says why it is not has ended.
  static bool isReady(const Program& program) { return program.out().starts_with("ready\n"); }

  Work::Plan workPlan(unsigned part = 0) const {
    return {.root = volume + "/tree", .survivors = survivorsFile, .seed = seed() * 1000 + part};
  }
  void work(long operations, unsigned part = 0) const {
    Work::Plan plan = workPlan(part);
    plan.operations = operations;
    EXPECT_EQ(Work(plan).finish(), 0);
  }

  // How the catalogue differs from the disk, after a flush; the first few.
  torture::Lines differences(const std::string& path) const {
    const std::string catalogue = catalogueOf(path);
    auto found = torture::differences(torture::TreeWalk::of(path, {catalogue, state}),
                                      torture::readCatalogue(catalogue));
    constexpr std::size_t kMost = 10;
    if (found.size() > kMost) {
      found.push_back(std::to_string(found.size() - kMost) + " more");
      found.erase(found.begin() + kMost, found.end() - 1);
    }
    return found;
  }
  void expectExact(const std::string& path) const {
    flush(path);
    EXPECT_EQ(differences(path), torture::Lines{});
  }
  void expectExact() const { expectExact(volume); }

  // The rows of what lives throughout.
  torture::Inodes inodes(const std::string& path) const {
    std::ifstream list(survivorsFile);
    return torture::inodesOf(torture::readFids(catalogueOf(path)),
                             std::set<std::string>(std::istream_iterator<std::string>(list), {}));
  }
  torture::Inodes inodes() const { return inodes(volume); }
  void expectSameInodes(const torture::Inodes& before) const {
    EXPECT_FALSE(before.empty());
    EXPECT_EQ(torture::inodeDifferences(before, inodes()), torture::Lines{});
  }

  // Ends it, and holds what it has said to a bound.
  static void end(Program& program) {
    program.signal(SIGTERM);
    const Outcome outcome = program.finish();
    EXPECT_EQ(outcome.exitCode, 0);
    constexpr std::size_t kMostSaid = 4000;
    EXPECT_LT(outcome.err.size(), kMostSaid) << outcome.err.substr(0, kMostSaid);
  }
  static void kill(Program& program) {
    program.signal(SIGKILL);
    program.finish();
  }
  std::string stateName(const std::string& path) const { return status(path)["state"]; }
  std::string stateName() const { return stateName(volume); }
  // What a volume that is not exact, and says so, says of it.
  void expectStale(const std::string& path) const {
    const auto answer = status(path);
    EXPECT_THAT(answer["state"], testing::AnyOf("stale", "rescanning"));
    EXPECT_TRUE(answer["stale_since"].is_number()) << answer;
  }
};

}  // namespace kddc::faults
