// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Answers other processes on behalf of one that watches volumes.
//
//   accepting thread ─► one thread a client: read a line, ask the handler, write a line, again
//
// Each volume has a socket of its own, so that a client finds the process by the volume alone,
// however volumes are spread over processes. Only the user whose process this is, and root, are
// answered. Nobody holds anybody up: a client that does not say what it wants within its time, or
// does not read what it is told, is dropped, and one too many is told to come again.
//
// Threads: made and destroyed by one thread; the handler is called by several at a time.
// Failures: Failure, from the constructor, when a socket cannot be had.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <thread>
#include <vector>

#include "agent/control/channel.h"
#include "agent/control/protocol.h"
#include "agent/control/unix_socket.h"
#include "platform/unique_fd.h"

namespace kddc {

struct ControlLimits {
  std::chrono::milliseconds patience{10'000};  // for a client's line, and for it to read an answer
  std::size_t clients = 32;                    // at a time
};

// Where one volume's clients come to.
struct ControlPlace {
  std::string volume;  // its real path
  std::string socket;  // as controlSocket says
};

class ControlServer {
 public:
  using Gone = std::function<bool()>;
  // Answers a request; its volume is always one of the server's. May take as long as it likes, but
  // should come to an end soon after `gone` says so: the client has left, or the server ends.
  // `gone` is a system call. Returns the members of the answer, an object (empty will do); throws,
  // best a Failure, for an answer that says why not.
  using Handler = std::function<nlohmann::json(const ControlRequest&, const Gone& gone)>;

  ControlServer(const std::vector<ControlPlace>& places, Handler handler,
                ControlLimits limits = {});
  // Clients of one more volume are answered. From any thread; Failure as of the constructor.
  void add(const ControlPlace& place);
  // Ends all clients, waits until the handler has returned to each, and removes the sockets.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  struct Place {
    std::string volume;
    ListeningSocket socket;
  };
  struct Client {
    std::thread thread;
    std::atomic<bool> isDone{false};
  };

  void acceptClients();
  std::vector<const Place*> allPlaces();
  void admit(const Place& place);
  void start(const Place& place, Channel channel);
  void forgetDone();
  bool hasRoom();
  void serve(const std::string& volume, Channel& channel) const;
  std::string answer(const std::string& volume, const std::string& line, const Gone& gone) const;
  Channel::Clock::time_point deadline() const { return Channel::Clock::now() + limits_.patience; }

  Handler handler_;
  ControlLimits limits_;
  UniqueFd stop_;   // an eventfd; readable from the destructor on
  UniqueFd ended_;  // an eventfd; readable when a client is done, or there is another place
  std::mutex placing_;
  std::list<Place> places_;    // guarded; they stay where they are
  std::list<Client> clients_;  // of the accepting thread, as long as there is one
  std::thread accepting_;
};

}  // namespace kddc
