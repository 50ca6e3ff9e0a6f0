// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The standard output of a program whose reader has other things to do. Once the pipe is full,
// whoever prints waits: so a test holds the thread that prints, for as long as it likes.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

#include "platform/unique_fd.h"
#include "tests/support/program.h"

namespace kddc::test {

class UnreadPipe {
 public:
  UnreadPipe() {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
      throw std::system_error(errno, std::generic_category(), "pipe2");
    reader_.reset(ends[0]);
    writer_.reset(ends[1]);
    ::fcntl(reader_.get(), F_SETPIPE_SZ, 4096);  // the least there is, so that it is soon full
  }

  // What makes it the output of a program.
  Program::Preparation asOutput() const {
    return [this] { ::dup2(writer_.get(), STDOUT_FILENO); };
  }

  // Waits for a line, and takes it and no more. The program must have been started: from then on
  // it alone writes, and the pipe ends when it does.
  std::string line() {
    writer_.reset();
    std::string line;
    for (char c = 0; !line.ends_with('\n') && ::read(reader_.get(), &c, 1) == 1;) line += c;
    return line;
  }
  // Takes everything until the program ends.
  void readOn() const {
    char text[4096];
    while (::read(reader_.get(), text, sizeof text) > 0) {
    }
  }
  // Takes what is there, without waiting for more.
  void drain() const {
    ::fcntl(reader_.get(), F_SETFL, O_NONBLOCK);
    readOn();
  }
  void closeReader() { reader_.reset(); }

 private:
  UniqueFd reader_, writer_;
};

}  // namespace kddc::test
