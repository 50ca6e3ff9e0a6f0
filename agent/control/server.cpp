// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/control/server.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <iterator>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>

#include "agent/errors.h"

namespace kddc {
namespace {

// How long to wait where a connection is there and no room for it.
constexpr int kMomentMilliseconds = 100;

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

// The socket's mode keeps others out, too; but modes can be loosened.
bool isAllowed(const UniqueFd& client) {
  const uid_t user = peerOf(client).user;
  return user == 0 || user == geteuid();
}

UniqueFd newEvent() {
  UniqueFd event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!event) throw systemFailure("cannot make an eventfd", errno);
  return event;
}

// Neither fails: an eventfd never has to wait for so few.
void raise(const UniqueFd& event) {
  eventfd_write(event.get(), 1);
}
void lower(const UniqueFd& event) {
  eventfd_t ignored;
  eventfd_read(event.get(), &ignored);
}

void waitAMoment(const UniqueFd& event, const UniqueFd& orEvent) {
  pollfd polled[] = {{event.get(), POLLIN, 0}, {orEvent.get(), POLLIN, 0}};
  poll(polled, std::size(polled), kMomentMilliseconds);
}

}  // namespace

ControlServer::ControlServer(const std::vector<ControlPlace>& places, Handler handler,
                             ControlLimits limits)
    : handler_(std::move(handler)), limits_(limits), stop_(newEvent()), ended_(newEvent()) {
  for (const ControlPlace& place : places) add(place);
  const SignalsBlocked blocked;
  accepting_ = std::thread([this] { acceptClients(); });
}

// The thread that accepts is woken, to look at one socket more.
void ControlServer::add(const ControlPlace& place) {
  ListeningSocket socket(place.socket);
  const std::lock_guard lock(placing_);
  places_.push_back({place.volume, std::move(socket)});
  raise(ended_);
}

std::vector<const ControlServer::Place*> ControlServer::allPlaces() {
  const std::lock_guard lock(placing_);
  std::vector<const Place*> all;
  for (const Place& place : places_) all.push_back(&place);
  return all;
}

// First nobody is let in, then the names go, and last those who are still served come to their end:
// their channels know of the stop.
ControlServer::~ControlServer() {
  raise(stop_);
  accepting_.join();
  places_.clear();
  for (Client& client : clients_) client.thread.join();
}

void ControlServer::acceptClients() {
  for (;;) {
    const std::vector<const Place*> places = allPlaces();
    std::vector<pollfd> polled;
    for (const Place* place : places) polled.push_back({place->socket.fd(), POLLIN, 0});
    polled.push_back({ended_.get(), POLLIN, 0});
    polled.push_back({stop_.get(), POLLIN, 0});
    if (poll(polled.data(), polled.size(), -1) < 0) continue;  // for want of memory
    if (polled.back().revents != 0) return;
    forgetDone();
    for (std::size_t i = 0; i < places.size(); ++i)
      if (polled[i].revents != 0) admit(*places[i]);
  }
}

// A thread cannot join itself, so each tells that it has ended and is joined here.
void ControlServer::forgetDone() {
  lower(ended_);
  clients_.remove_if([](Client& client) {
    if (!client.isDone) return false;
    client.thread.join();
    return true;
  });
}

// One that has left may be on its way out still. While there is no room for one there is none for
// others either, so waiting holds up nobody.
bool ControlServer::hasRoom() {
  if (clients_.size() >= limits_.clients) {
    waitAMoment(ended_, stop_);
    forgetDone();
  }
  return clients_.size() < limits_.clients;
}

void ControlServer::admit(const Place& place) {
  UniqueFd socket = place.socket.accept();
  if (!socket) {
    // A connection without room for its descriptor stays ready: do not run in circles.
    if (errno != EAGAIN && errno != ECONNABORTED) waitAMoment(ended_, stop_);
    return;
  }
  if (!isAllowed(socket)) return;
  Channel channel(std::move(socket), stop_.get());
  if (hasRoom())
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
          raise(ended_);
        });
  } catch (const std::system_error&) {  // no more threads; the client sees the connection end
    clients_.pop_back();
  }
}

// One request after the other, until the client leaves, says nonsense, or takes its time.
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
