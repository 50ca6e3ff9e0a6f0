// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A command as a child process: how long it took and how much memory it held.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

namespace kddc {

using Command = std::vector<std::string>;

struct Cost {
  double seconds = 1e9;
  long mebibytes = 0;  // at its largest
};

[[noreturn]] inline void become(const Command& command, const std::string& output) {
  const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  dup2(fd, STDOUT_FILENO);
  std::vector<char*> words;
  for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  execvp(words[0], words.data());
  _exit(127);
}

using Clock = std::chrono::steady_clock;

inline pid_t start(const Command& command, const std::string& output) {
  const pid_t child = fork();
  if (child == 0) become(command, output);
  return child;
}

// Waits for the end of a program that was started then.
inline Cost finish(pid_t child, const std::string& name, Clock::time_point began) {
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw std::runtime_error(name + " failed");
  const std::chrono::duration<double> took = Clock::now() - began;
  return {took.count(), usage.ru_maxrss / 1024};
}

inline Cost run(const Command& command, const std::string& output) {
  const auto began = Clock::now();
  return finish(start(command, output), command[0], began);
}

inline void keepBest(Cost& best, const Cost& cost) {
  best = {std::min(best.seconds, cost.seconds), std::max(best.mebibytes, cost.mebibytes)};
}

}  // namespace kddc
