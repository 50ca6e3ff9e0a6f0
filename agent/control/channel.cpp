// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/control/channel.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace kddc {
namespace {

// Rounded up, so that a deadline has passed when poll says so.
int millisecondsUntil(Channel::Clock::time_point deadline) {
  using std::chrono::milliseconds;
  const auto left = std::chrono::ceil<milliseconds>(deadline - Channel::Clock::now()).count();
  return static_cast<int>(std::clamp<milliseconds::rep>(left, 0, 1 << 30));
}

}  // namespace

Channel::Channel(UniqueFd socket, int stop) : socket_(std::move(socket)), stop_(stop) {}

// What came behind the line is kept for the next one.
Channel::Result Channel::readLine(std::string& line, std::size_t most, Clock::time_point deadline) {
  std::size_t end, searched = 0;
  while ((end = received_.find('\n', searched)) == std::string::npos) {
    if (received_.size() > most) return Result::kTooLong;
    searched = received_.size();
    if (const Result result = receive(deadline); result != Result::kDone) return result;
  }
  if (end > most) return Result::kTooLong;
  line.assign(received_, 0, end);
  received_.erase(0, end + 1);
  return Result::kDone;
}

// Some more bytes. The deadline is that of the whole line, so that a trickle does not defer it.
Channel::Result Channel::receive(Clock::time_point deadline) {
  std::array<char, 16 * 1024> bytes;
  for (;;) {
    if (const Result result = waitFor(POLLIN, deadline); result != Result::kDone) return result;
    const ssize_t count = recv(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (count > 0) {
      received_.append(bytes.data(), static_cast<std::size_t>(count));
      return Result::kDone;
    }
    if (count == 0 || (errno != EINTR && errno != EAGAIN)) return Result::kClosed;
  }
}

// Sends before it waits: a last answer goes out even when the channel is stopped.
Channel::Result Channel::write(std::string_view bytes, Clock::time_point deadline) {
  while (!bytes.empty()) {
    const ssize_t count =
        send(socket_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      const Result result = waitFor(POLLOUT, deadline);
      if (result != Result::kDone) return result;
    } else if (errno != EINTR) {
      return Result::kClosed;
    }
  }
  return Result::kDone;
}

// Without asking for events poll tells of nothing but a hang-up.
bool Channel::isOver() const {
  pollfd polled[] = {{socket_.get(), 0, 0}, {stop_, POLLIN, 0}};
  return poll(polled, std::size(polled), 0) > 0;
}

Channel::Result Channel::waitFor(short events, Clock::time_point deadline) const {
  for (;;) {
    pollfd polled[] = {{socket_.get(), events, 0}, {stop_, POLLIN, 0}};
    const int ready = poll(polled, std::size(polled), millisecondsUntil(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) return Result::kClosed;
    if (polled[1].revents != 0) return Result::kStopped;
    return ready == 0 ? Result::kTooLate : Result::kDone;
  }
}

}  // namespace kddc
