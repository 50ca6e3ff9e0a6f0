// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One line on the terminal that tells how far long work has come.
#pragma once

#include <chrono>
#include <cstdint>

namespace kddc {

class Progress {
 public:
  // Shows nothing unless `wanted` and standard error is a terminal.
  explicit Progress(bool wanted);
  ~Progress() { end(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Entries done so far. Cheap: the line is rewritten five times a second at most.
  void update(std::uint64_t entries);
  // Takes the line away; from now on nothing is shown.
  void end();
  std::chrono::duration<double> elapsed() const { return Clock::now() - began_; }

 private:
  using Clock = std::chrono::steady_clock;

  bool shown_;
  Clock::time_point began_ = Clock::now();
  Clock::time_point next_ = began_;
};

}  // namespace kddc
