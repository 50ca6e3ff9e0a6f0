// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Shows that no name of a folder changed hands while several calls looked at its entries by name.
//
// Every change of a name gives its folder new times, taken from the kernel's coarse clock. Times
// that are the same before and after prove that nothing changed, provided that the folder was not
// touched within the present tick already: a second change in it would leave the times as they are.
#pragma once

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <tuple>

namespace kddc {

class QuietFolder {
 public:
  explicit QuietFolder(int fd) : fd_(fd) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    quiet_ = read(before_) && std::max(before_.modified, before_.changed) < Instant{now};
  }
  // Whether the folder had been left alone for long enough to tell.
  bool atFirst() const { return quiet_; }
  // Whether it was left alone until now.
  bool still() const {
    Times now;
    return quiet_ && read(now) && now == before_;
  }

 private:
  struct Instant {
    long long seconds = 0;
    long long nanoseconds = 0;
    Instant() = default;
    explicit Instant(const timespec& time) : seconds(time.tv_sec), nanoseconds(time.tv_nsec) {}
    bool operator==(const Instant&) const = default;
    bool operator<(const Instant& other) const {
      return std::tie(seconds, nanoseconds) < std::tie(other.seconds, other.nanoseconds);
    }
  };
  struct Times {
    Instant modified, changed;
    bool operator==(const Times&) const = default;
  };

  bool read(Times& times) const {
    struct stat st;
    if (fstat(fd_, &st) != 0) return false;
    times = {Instant(st.st_mtim), Instant(st.st_ctim)};
    return true;
  }

  int fd_;
  Times before_;
  bool quiet_;
};

}  // namespace kddc
