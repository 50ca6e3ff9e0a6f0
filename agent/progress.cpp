// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace kddc {

Progress::Progress(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) == 1) {}

void Progress::end() {
  if (shown_) fmt::print(stderr, "\r\x1b[K");
  shown_ = false;
}

void Progress::update(std::uint64_t entries) {
  using std::chrono_literals::operator""ms;
  if (!shown_ || Clock::now() < next_) return;
  next_ = Clock::now() + 200ms;
  const double seconds = elapsed().count();
  const double rate = seconds > 0 ? static_cast<double>(entries) / seconds : 0;
  fmt::print(stderr, "\r{} entries, {:.0f}/s, {:.0f} s\x1b[K", entries, rate, seconds);
}

}  // namespace kddc
