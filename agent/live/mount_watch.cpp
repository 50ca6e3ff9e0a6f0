// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/mount_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <system_error>

namespace kddc {

MountWatch::MountWatch() : wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (!wake_) throw std::system_error(errno, std::generic_category(), "cannot make an eventfd");
}

bool MountWatch::wait(std::chrono::milliseconds atMost) {
  const auto time = std::clamp<std::chrono::milliseconds::rep>(atMost.count(), -1, INT_MAX);
  std::array<pollfd, 2> fds = {{{wake_.get(), POLLIN, 0}, {changes_.fd(), POLLPRI, 0}}};
  if (poll(fds.data(), fds.size(), static_cast<int>(time)) <= 0) return false;
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t length = read(wake_.get(), &count, sizeof count);
  return fds[1].revents != 0;  // to have been told is to have asked
}

void MountWatch::wake() noexcept {
  const std::uint64_t one = 1;
  // Fails only when the count is at its end, and then the wait ends.
  [[maybe_unused]] const ssize_t written = ::write(wake_.get(), &one, sizeof one);
}

}  // namespace kddc
