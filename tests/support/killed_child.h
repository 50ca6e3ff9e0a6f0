// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Runs a scenario in a child process and kills it at a chosen system call. Whatever a crashed
// process leaves behind, it leaves between two system calls, so killing at each of them is
// killing at every instant that can be told apart, and is repeatable besides.
#pragma once

#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <limits>
#include <vector>

namespace kddc::test {

class KilledChild {
 public:
  // What the child notes of its progress, in memory that it shares with its parent.
  using Phase = volatile int;
  using Scenario = std::function<void(Phase&)>;
  static constexpr int kNever = std::numeric_limits<int>::max();

  // Kills the child at its n-th stop (each system call stops twice: before and after). Returns the
  // phase of the child at each stop; fewer than n of them when it ended before.
  std::vector<int> runUntil(int n, const Scenario& scenario) {
    *phase_ = 0;
    const pid_t child = fork();
    if (child == 0) {
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      raise(SIGSTOP);
      scenario(*phase_);
      _exit(0);
    }
    std::vector<int> phases;
    int status = 0;
    waitpid(child, &status, 0);
    while (WIFSTOPPED(status)) {
      const int phase = *phase_;
      phases.push_back(phase);
      if (static_cast<int>(phases.size()) == n) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
        break;
      }
      if (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) != 0) break;
      waitpid(child, &status, 0);
    }
    endedWell_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return phases;
  }
  bool endedWell() const { return endedWell_; }

  KilledChild()
      : phase_(static_cast<Phase*>(mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
  ~KilledChild() { munmap(const_cast<int*>(phase_), sizeof(int)); }
  KilledChild(const KilledChild&) = delete;
  KilledChild& operator=(const KilledChild&) = delete;

 private:
  Phase* phase_;
  bool endedWell_ = false;
};

}  // namespace kddc::test
