// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A file descriptor with one owner, closed when the owner goes. A failed close is not told: what is
// to last is synced before. Private.
#pragma once

#include <unistd.h>

#include <utility>

namespace kddc {

class UniqueFd {
 public:
  UniqueFd() = default;
  // Takes `fd` over; a negative one (what a failed call gives) means: none.
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  // Gives the descriptor to the caller.
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace kddc
