// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The program with a terminal as its standard output, and what may never come to one.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/unique_fd.h"
#include "tests/support/program.h"

namespace kddc::test {

class Terminal {
 public:
  Terminal() : theirs_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    if (!theirs_ || grantpt(theirs_.get()) != 0 || unlockpt(theirs_.get()) != 0)
      throw std::runtime_error("no pseudo-terminal here");
    ours_.reset(open(ptsname(theirs_.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios modes{};
    tcgetattr(ours_.get(), &modes);
    cfmakeraw(&modes);  // what is written is what is shown
    tcsetattr(ours_.get(), TCSANOW, &modes);
  }

  // Runs the program; what it wrote to the terminal is its `out`.
  Outcome run(const std::vector<std::string>& words) {
    Program program(words, [&] { dup2(ours_.get(), STDOUT_FILENO); });
    std::string shown;
    while (!program.hasEnded()) readInto(shown);
    readInto(shown);
    Outcome outcome = program.finish();
    outcome.out = shown;
    return outcome;
  }

 private:
  void readInto(std::string& shown) {
    std::array<char, 4096> piece;
    pollfd polled{theirs_.get(), POLLIN, 0};
    while (poll(&polled, 1, 20) > 0) {
      const ssize_t count = ::read(theirs_.get(), piece.data(), piece.size());
      if (count <= 0) return;
      shown.append(piece.data(), static_cast<std::size_t>(count));
    }
  }

  UniqueFd theirs_, ours_;
};

// The first thing in a text that could steer a terminal or forge a line, with what stands around
// it; empty when there is none. `separators` may stand in it as they are.
inline std::string leakIn(std::string_view text, std::string_view separators = "\n") {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    const bool isControl = byte < 0x20 && separators.find(text[i]) == std::string_view::npos;
    const bool isC1 = byte == 0xc2 && next < 0xa0;
    if (isControl || byte == 0x7f || isC1 || byte == 0xff)
      return "byte " + std::to_string(byte) +
             " in: " + std::string(text.substr(i < 40 ? 0 : i - 40, 80));
  }
  return "";
}

}  // namespace kddc::test
