// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The built program as a child process: what it printed and how it ended.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <ostream>
#include <string>
#include <system_error>
#include <vector>

#include "tests/support/temp_folder.h"

namespace kddc::test {

using Words = std::vector<std::string>;  // of a command line

struct Outcome {
  int exitCode;  // 128 and the signal's number when a signal ended it
  std::string out, err;
  friend std::ostream& operator<<(std::ostream& to, const Outcome& outcome) {
    return to << "exit " << outcome.exitCode << "\nout: " << outcome.out
              << "\nerr: " << outcome.err;
  }
};

class Program {
 public:
  // What the child does to itself before it becomes the program, such as setrlimit.
  using Preparation = std::function<void()>;

  // Starts the program with the arguments. A watchdog ends it after two minutes.
  explicit Program(const Words& arguments, const Preparation& prepare = {}) {
    child_ = fork();
    if (child_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (child_ == 0) become(arguments, prepare);
  }
  ~Program() {
    if (child_ <= 0) return;
    ::kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  void signal(int number) const { ::kill(child_, number); }
  pid_t pid() const { return child_; }

  // What it has printed so far.
  std::string out() const { return contentsOf("out"); }
  std::string err() const { return contentsOf("err"); }

  bool hasEnded() const {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(child_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
           info.si_pid != 0;
  }
  // Looks again and again until `condition` holds; false when a minute passes first, or the program
  // ends.
  bool waitUntil(const std::function<bool()>& condition) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      if (hasEnded()) return condition();
      poll(nullptr, 0, 2);
    }
    return true;
  }

  Outcome finish() {
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = 0;
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return {code, contentsOf("out"), contentsOf("err")};
  }

  static Outcome run(const Words& arguments, const Preparation& prepare = {}) {
    return Program(arguments, prepare).finish();
  }

 private:
  [[noreturn]] void become(const Words& arguments, const Preparation& prepare) {
    std::vector<char*> words = {const_cast<char*>(KDDC_PROGRAM)};
    for (const std::string& argument : arguments)
      words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    redirect("out", STDOUT_FILENO);
    redirect("err", STDERR_FILENO);
    alarm(120);
    if (prepare) prepare();
    execv(KDDC_PROGRAM, words.data());
    _exit(127);
  }
  void redirect(const char* name, int to) const {
    dup2(open((output_ / name).c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600), to);
  }
  std::string contentsOf(const char* name) const {
    std::ifstream file(output_ / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  TempFolder output_;
  pid_t child_ = 0;
};

}  // namespace kddc::test
