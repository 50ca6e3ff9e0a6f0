// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A connected socket on which lines go to and fro, each within its time, whatever the other end
// does: says nothing, says it byte by byte, never reads, goes away.
//
// Threads: one at a time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

#include "platform/unique_fd.h"

namespace kddc {

class Channel {
 public:
  enum class Result { kDone, kClosed, kTooLate, kTooLong, kStopped };
  using Clock = std::chrono::steady_clock;

  // Takes the socket over. Once `stop`, an eventfd of the caller's, is readable, nothing is waited
  // for any more; -1: never.
  explicit Channel(UniqueFd socket, int stop = -1);

  // The next line, without its end. What was read of a line that did not come in time, or is longer
  // than `most` bytes, is of no use: the channel should be given up.
  Result readLine(std::string& line, std::size_t most, Clock::time_point deadline);
  // Writes the bytes, all of them when kDone.
  Result write(std::string_view bytes, Clock::time_point deadline);

  // Whether the other end has gone (one that only will not write any more has not), or `stop` is
  // readable. One system call.
  bool isOver() const;

 private:
  Result waitFor(short events, Clock::time_point deadline) const;
  Result receive(Clock::time_point deadline);

  UniqueFd socket_;
  int stop_;
  std::string received_;  // and not yet handed out
};

}  // namespace kddc
