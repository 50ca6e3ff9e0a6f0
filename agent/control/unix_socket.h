// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Unix sockets in a private folder: made and found without following a link, whatever the length of
// their path.
//
// Threads: any. Failures: Failure.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>

#include "platform/unique_fd.h"

namespace kddc {

// Who is at the other end of a connected socket, as the kernel noted it then; user -1, who is
// nobody, when it does not say.
struct Peer {
  pid_t process;
  uid_t user;
};
Peer peerOf(const UniqueFd& socket);

// A socket that listens at a path as long as the object lives: 0600, in a folder 0700 that is made
// where it is missing and refused where others may use it. What a process that died has left in its
// place is replaced; a socket on which somebody listens, or anything else, is not.
class ListeningSocket {
 public:
  explicit ListeningSocket(const std::string& path);
  ~ListeningSocket();
  ListeningSocket(ListeningSocket&&) = default;
  ListeningSocket& operator=(ListeningSocket&&) = delete;

  int fd() const { return socket_.get(); }
  // The next connection; none when there is none, or no room for its descriptor.
  UniqueFd accept() const;

 private:
  std::string name_;
  UniqueFd folder_, socket_;
};

enum class Listener { kNone, kBusy, kFound };

// An attempt to connect: to nobody, to somebody who did not take the connection in time, or done.
struct Connection {
  Listener listener = Listener::kNone;
  UniqueFd socket;  // when kFound
};
// Connects to whoever listens at the path, waiting that long (at least a millisecond).
Connection connectTo(const std::string& path, std::chrono::milliseconds patience);

}  // namespace kddc
