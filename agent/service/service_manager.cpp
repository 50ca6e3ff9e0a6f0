// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/service/service_manager.h"

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include <cstdint>
#include <cstdlib>
#include <utility>

#include "platform/printable.h"

namespace kddc {
namespace {

// Where nobody asks, what hangs would be found by nobody either; the number does not matter.
constexpr std::chrono::microseconds kNobodyAsks = std::chrono::minutes(5);

std::chrono::microseconds askedFor() {
  std::uint64_t microseconds = 0;
  if (sd_watchdog_enabled(0, &microseconds) <= 0) return {};
  return std::chrono::microseconds(static_cast<std::int64_t>(microseconds));
}

}  // namespace

ServiceManager::ServiceManager(Note note)
    : note_(std::move(note)),
      listens_(std::getenv("NOTIFY_SOCKET") != nullptr),
      watchdog_(listens_ ? askedFor() : std::chrono::microseconds(0)),
      heart_(watchdog_.count() > 0 ? watchdog_ : kNobodyAsks) {
  if (listens_) receive();
  tell("STATUS=starting");
}

// What the manager kept over a crash, by the names under which it was given to it.
void ServiceManager::receive() {
  char** names = nullptr;
  const int count = sd_listen_fds_with_names(1, &names);
  for (int i = 0; i < count; ++i) {
    kept_[names[i]].emplace_back(SD_LISTEN_FDS_START + i);
    names_.insert(names[i]);
    std::free(names[i]);
  }
  std::free(names);
}

void ServiceManager::ready() {
  Phase starting = Phase::kStarting;
  if (phase_.compare_exchange_strong(starting, Phase::kReady)) tell("READY=1");
}

void ServiceManager::stopping() {
  if (phase_.exchange(Phase::kStopping) != Phase::kStopping) tell("STOPPING=1\nSTATUS=stopping");
}

void ServiceManager::failed(const std::string& sentence, int error) {
  std::string lines = "STATUS=" + printable(sentence);
  if (error != 0) lines += fmt::format("\nERRNO={}", error);
  tell(lines);
  const std::lock_guard lock(mutex_);
  for (const std::string& name : names_) forget(name);
}

void ServiceManager::tell(const std::string& lines) const {
  if (listens_) sd_notify(0, lines.c_str());
}

UniqueFd ServiceManager::taken(const std::string& name) {
  const std::lock_guard lock(mutex_);
  auto kept = kept_.extract(name);
  if (kept.empty()) return {};
  if (kept.mapped().size() == 1) return std::move(kept.mapped().front());
  note(fmt::format("the service manager kept {} things as {}; none is used", kept.mapped().size(),
                   printable(name)));
  forget(name);
  return {};
}

// The manager need not look whether the other end has gone: there is none, and it would be woken by
// every change.
void ServiceManager::keep(const std::string& name, int fd) {
  if (!listens_) return;
  {
    const std::lock_guard lock(mutex_);
    names_.insert(name);
  }
  const std::string lines = "FDSTORE=1\nFDPOLL=0\nFDNAME=" + name;
  sd_pid_notify_with_fds(0, 0, lines.c_str(), &fd, 1);
}

void ServiceManager::forget(const std::string& name) const {
  tell("FDSTOREREMOVE=1\nFDNAME=" + name);
}

// Of volumes that are no longer watched: the kernel would queue changes for nobody.
void ServiceManager::forgetUnclaimed() {
  const std::lock_guard lock(mutex_);
  for (const auto& [name, fds] : kept_) {
    note(fmt::format("the service manager kept {}, which no volume needs", printable(name)));
    forget(name);
  }
  kept_.clear();
}

}  // namespace kddc
