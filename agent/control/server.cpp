// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/control/server.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "agent/errors.h"

namespace kddc {
namespace {

// How long to wait where a connection is there and no room for its descriptor.
constexpr int kRetryMilliseconds = 100;

// As long as it lives, the calling thread, and the threads that it starts, are sent no signals:
// those are for the thread that waits for them.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_;
};

bool isAllowed(const UniqueFd& client) {
  const uid_t user = peerOf(client).user;
  return user == 0 || user == geteuid();
}

bool isReadable(int fd, int milliseconds) {
  pollfd polled{fd, POLLIN, 0};
  return poll(&polled, 1, milliseconds) > 0;
}

}  // namespace

ControlServer::ControlServer(std::vector<ControlPlace> places, Handler handler,
                             ControlLimits limits)
    : handler_(std::move(handler)), limits_(limits), stop_(eventfd(0, EFD_CLOEXEC)) {
  if (!stop_) throw systemFailure("cannot make an eventfd", errno);
  for (ControlPlace& place : places)
    places_.push_back({std::move(place.volume), ListeningSocket(place.socket)});
  const SignalsBlocked blocked;
  accepting_ = std::thread([this] { acceptClients(); });
}

ControlServer::~ControlServer() {
  const std::uint64_t one = 1;
  while (write(stop_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
  accepting_.join();
  places_.clear();
  for (Client& client : clients_) client.thread.join();
}

void ControlServer::acceptClients() {
  std::vector<pollfd> polled = {{stop_.get(), POLLIN, 0}};
  for (const Place& place : places_) polled.push_back({place.socket.fd(), POLLIN, 0});
  for (;;) {
    if (poll(polled.data(), polled.size(), -1) < 0) continue;  // for want of memory
    if (polled.front().revents != 0) return;
    forgetDone();
    for (std::size_t i = 0; i < places_.size(); ++i)
      if (polled[i + 1].revents != 0) admit(places_[i]);
  }
}

void ControlServer::forgetDone() {
  clients_.remove_if([](Client& client) {
    if (!client.isDone) return false;
    client.thread.join();
    return true;
  });
}

void ControlServer::admit(const Place& place) {
  UniqueFd socket = place.socket.accept();
  if (!socket) {
    // A connection without room for it stays ready: do not run in circles.
    if (errno != EAGAIN && errno != ECONNABORTED) isReadable(stop_.get(), kRetryMilliseconds);
    return;
  }
  if (!isAllowed(socket)) return;
  Channel channel(std::move(socket), stop_.get());
  if (clients_.size() < limits_.clients)
    start(place, std::move(channel));
  else  // fits into the socket, so nothing is waited for
    channel.write(refusalLine("kddc watch has too many clients; try again later"), {});
}

void ControlServer::start(const Place& place, Channel channel) {
  Client& client = clients_.emplace_back();
  try {
    client.thread =
        std::thread([this, &client, volume = place.volume, channel = std::move(channel)]() mutable {
          serve(volume, channel);
          client.isDone = true;
        });
  } catch (const std::system_error&) {  // no more threads; the client sees the connection end
    clients_.pop_back();
  }
}

void ControlServer::serve(const std::string& volume, Channel& channel) const {
  const Gone gone = [&] { return channel.isOver(); };
  for (std::string line;;) {
    const Channel::Result result = channel.readLine(line, kMostRequest, deadline());
    if (result == Channel::Result::kTooLong)
      channel.write(refusalLine(fmt::format("a request has at most {} bytes", kMostRequest)),
                    deadline());
    if (result != Channel::Result::kDone) return;
    const std::string told = answer(volume, line, gone);
    if (channel.write(told, deadline()) != Channel::Result::kDone) return;
  }
}

std::string ControlServer::answer(const std::string& volume, const std::string& line,
                                  const Gone& gone) const {
  try {
    ControlRequest request = parseRequest(line);
    if (request.volume.empty()) request.volume = volume;
    if (request.volume != volume)
      throw Failure(fmt::format("this socket is of {}, not of {}", volume, request.volume));
    return answerLine(handler_(request, gone));
  } catch (...) {
    return refusalLine(describeCurrentException());
  }
}

}  // namespace kddc
