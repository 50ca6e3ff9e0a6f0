// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the service manager that started us is told, and what it keeps for us.
//
// It is told when we are ready, when we begin to stop and why we failed, as sd_notify(3) has it.
// What goes on in between is the work of ServiceReport.
//
// It keeps descriptors, each under a name: when this process dies, the next one gets them. That is
// for a crash. Whoever ends something in good order has the manager forget it, and after a failure
// nothing is kept: what stands in the way may do so for days, and a queue that nobody reads grows.
//
// Does nothing where nobody listens ($NOTIFY_SOCKET is not set); descriptors that were handed to
// the process are left alone then.
//
// Threads: constructor and destructor one, before others start; the rest any. Failures: none. A
// manager that cannot be told is one that does not listen.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "agent/service/heartbeat.h"
#include "platform/unique_fd.h"

namespace kddc {

class ServiceManager {
 public:
  // Takes a line for people.
  using Note = std::function<void(const std::string& line)>;

  explicit ServiceManager(Note note);
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;

  bool listens() const { return listens_; }
  // How often it wants to hear that all is well; 0: it does not.
  std::chrono::microseconds watchdog() const { return watchdog_; }
  // A piece of work that takes as long as the manager's own patience is one that hangs.
  Heartbeat& heart() { return heart_; }

  enum class Phase { kStarting, kReady, kStopping };
  Phase phase() const { return phase_; }

  // The work is done from now on.
  void ready();
  // It ends, in good order.
  void stopping();
  // It ends because of what the sentence says, and nothing is kept any more; `error`: the errno
  // behind it, 0 when there is none.
  void failed(const std::string& sentence, int error);
  // Lines of "NAME=value", as the manager takes them.
  void tell(const std::string& lines) const;
  void note(const std::string& line) const { note_(line); }

  // What was kept under the name; none when nothing was, or several things were, which is noted.
  UniqueFd taken(const std::string& name);
  // Has a descriptor kept, a copy of it. Names: at most 255 of ASCII, without ':'.
  void keep(const std::string& name, int fd);
  void forget(const std::string& name) const;
  // Has all forgotten that nobody has taken, with a note.
  void forgetUnclaimed();

 private:
  void receive();

  Note note_;
  bool listens_;
  std::chrono::microseconds watchdog_;
  Heartbeat heart_;
  std::atomic<Phase> phase_ = Phase::kStarting;
  std::mutex mutex_;
  std::map<std::string, std::vector<UniqueFd>> kept_;  // that nobody has taken yet
  std::set<std::string> names_;                        // of all that is kept, or was
};

}  // namespace kddc
