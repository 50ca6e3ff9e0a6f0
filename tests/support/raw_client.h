// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A client of a control socket that says and reads exactly what a test wants.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "agent/control/unix_socket.h"
#include "platform/unique_fd.h"

namespace kddc::test {

// How long anything here waits before the test has failed.
inline constexpr std::chrono::seconds kWatchdog(60);

class RawClient {
 public:
  explicit RawClient(const std::string& path) {
    Connection connection = connectTo(path, kWatchdog);
    if (connection.listener != Listener::kFound) throw std::runtime_error("nobody on " + path);
    socket_ = std::move(connection.socket);
  }

  // What the other end no longer takes is lost.
  void say(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t count = send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (count < 0) return;
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  void sayNoMore() { shutdown(socket_.get(), SHUT_WR); }
  void leave() { socket_.reset(); }

  // The next line, without its end; what there was of it when the other end went.
  std::string line() {
    std::size_t end;
    while ((end = text_.find('\n')) == std::string::npos)
      if (!readSome()) return std::exchange(text_, {});
    std::string line = text_.substr(0, end);
    text_.erase(0, end + 1);
    return line;
  }
  // Everything until the other end goes.
  std::string rest() {
    while (readSome()) {
    }
    return std::exchange(text_, {});
  }
  std::string ask(std::string_view request) {
    say(request);
    say("\n");
    return line();
  }
  // Whether there is something to read, the end included, within that time.
  bool isReadable(std::chrono::milliseconds within) { return waitFor(POLLIN, within); }
  // Whether the other end goes within that time, read or not.
  bool isLeft(std::chrono::milliseconds within) { return waitFor(0, within); }

 private:
  bool waitFor(short events, std::chrono::milliseconds within) {
    pollfd polled{socket_.get(), events, 0};
    return poll(&polled, 1, static_cast<int>(within.count())) > 0;
  }
  bool readSome() {
    if (!isReadable(kWatchdog)) throw std::runtime_error("the other end is silent");
    std::array<char, 4096> bytes;
    const ssize_t count = recv(socket_.get(), bytes.data(), bytes.size(), 0);
    if (count <= 0) return false;
    text_.append(bytes.data(), static_cast<std::size_t>(count));
    return true;
  }

  UniqueFd socket_;
  std::string text_;
};

}  // namespace kddc::test
