// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A service manager of the test's own: what it was told, and the descriptors that it was given to
// keep, by name, as a real one keeps them: a copy is handed on, and it goes when it is told so.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/unique_fd.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

class FakeManager {
 public:
  FakeManager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      throw std::system_error(errno, std::generic_category(), path());
  }

  // $NOTIFY_SOCKET.
  std::string path() const { return folder_ / "notify"; }

  // All lines so far, in their order; new ones are taken in first.
  const std::vector<std::string>& told() {
    while (receive(0)) {
    }
    return told_;
  }
  // Waits until it is told that line, from `mark` on; false when a minute passes first.
  bool waitFor(const std::string& line, std::size_t mark = 0) {
    for (;;) {
      for (; mark < told_.size(); ++mark)
        if (told_[mark] == line) return true;
      if (!receive(60'000)) return false;
    }
  }
  // Forgets what it was told.
  void clear() {
    told();
    told_.clear();
  }

  std::map<std::string, std::vector<UniqueFd>> kept;

  // For the next process: before it becomes the program, it takes what is kept. The number of the
  // process is known only by itself.
  void prepareChild(const std::optional<std::string>& watchdog = {}) const {
    setenv("NOTIFY_SOCKET", path().c_str(), 1);
    if (watchdog) setenv("WATCHDOG_USEC", watchdog->c_str(), 1);
    std::string names;
    std::vector<int> fds;
    for (const auto& [name, some] : kept)
      for (const UniqueFd& fd : some) {
        fds.push_back(fcntl(fd.get(), F_DUPFD, 100));
        names += (names.empty() ? "" : ":") + name;
      }
    if (fds.empty()) return;
    for (std::size_t i = 0; i < fds.size(); ++i) dup2(fds[i], 3 + static_cast<int>(i));
    for (const int fd : fds) close(fd);
    setenv("LISTEN_FDS", std::to_string(fds.size()).c_str(), 1);
    setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDNAMES", names.c_str(), 1);
  }

 private:
  bool receive(int milliseconds) {
    pollfd in{socket_.get(), POLLIN, 0};
    if (poll(&in, 1, milliseconds) <= 0) return false;
    std::array<char, 4096> text;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(16 * sizeof(int)) + CMSG_SPACE(64)> control;
    iovec part{text.data(), text.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t length = recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
    if (length < 0) return false;
    take(std::string(text.data(), static_cast<std::size_t>(length)), fdsOf(message));
    return true;
  }
  static std::vector<UniqueFd> fdsOf(msghdr& message) {
    std::vector<UniqueFd> fds;
    for (cmsghdr* part = CMSG_FIRSTHDR(&message); part; part = CMSG_NXTHDR(&message, part)) {
      if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS) continue;
      for (std::size_t at = 0; at < part->cmsg_len - CMSG_LEN(0); at += sizeof(int)) {
        int fd = -1;
        std::memcpy(&fd, CMSG_DATA(part) + at, sizeof fd);
        fds.emplace_back(fd);
      }
    }
    return fds;
  }
  void take(const std::string& text, std::vector<UniqueFd> fds) {
    std::string name;
    bool removes = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      told_.push_back(line);
      if (line.starts_with("FDNAME=")) name = line.substr(7);
      removes = removes || line == "FDSTOREREMOVE=1";
    }
    if (removes) kept.erase(name);
    for (UniqueFd& fd : fds) kept[name].push_back(std::move(fd));
  }

  TempFolder folder_;
  UniqueFd socket_;
  std::vector<std::string> told_;
};

}  // namespace kddc::test
