// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/service/service_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace kddc {
namespace {

using std::chrono::microseconds;

// How often the state is looked at; and for how much longer the manager is asked to wait, how
// often, and until when.
constexpr std::chrono::seconds kLook(1);
constexpr std::chrono::seconds kBetweenExtensions(10);
constexpr microseconds kExtension = std::chrono::seconds(60);
constexpr std::chrono::minutes kLongestStop(10);

}  // namespace

ServiceReport::ServiceReport(ServiceManager& manager, std::function<std::string()> status)
    : manager_(manager), status_(std::move(status)) {
  if (manager_.listens()) thread_ = std::thread([this] { run(); });
}

ServiceReport::~ServiceReport() {
  {
    const std::lock_guard lock(mutex_);
    ended_ = true;
  }
  look();
  if (thread_.joinable()) thread_.join();
}

void ServiceReport::look() {
  {
    const std::lock_guard lock(mutex_);
    looks_ = true;
  }
  changed_.notify_all();
}

void ServiceReport::run() {
  const microseconds quarter = manager_.watchdog() / 4;
  const microseconds pause = quarter.count() > 0 ? std::min<microseconds>(quarter, kLook) : kLook;
  std::unique_lock lock(mutex_);
  while (!ended_) {
    looks_ = false;
    lock.unlock();
    if (const std::string lines = whatToTell(Clock::now()); !lines.empty()) manager_.tell(lines);
    lock.lock();
    changed_.wait_for(lock, pause, [&] { return looks_; });
  }
}

// A thread that hangs is to be seen, so nothing is told then but what has changed.
std::string ServiceReport::whatToTell(Clock::time_point now) {
  const std::string status = newStatus();
  return manager_.heart().isWell(now) ? status + signsOfLife(now) : status;
}

std::string ServiceReport::newStatus() {
  if (manager_.phase() == ServiceManager::Phase::kStopping) return "";
  std::string status = status_();
  if (status == told_) return "";
  told_ = std::move(status);
  return "STATUS=" + told_ + "\n";
}

// Due after a quarter, and at most a look later, is told within half of the time.
std::string ServiceReport::signsOfLife(Clock::time_point now) {
  std::string lines;
  if (manager_.watchdog().count() > 0 && now >= nextWatchdog_) {
    lines += "WATCHDOG=1\n";
    nextWatchdog_ = now + manager_.watchdog() / 4;
  }
  if (mayTakeLonger(now) && now >= nextExtension_) {
    lines += fmt::format("EXTEND_TIMEOUT_USEC={}\n", kExtension.count());
    nextExtension_ = now + kBetweenExtensions;
  }
  return lines;
}

// A first scan takes as long as the volume is large. A stop drains the queue, but not for ever.
bool ServiceReport::mayTakeLonger(Clock::time_point now) {
  switch (manager_.phase()) {
    case ServiceManager::Phase::kStarting:
      return true;
    case ServiceManager::Phase::kReady:
      return false;
    case ServiceManager::Phase::kStopping:
      if (!stopsSince_) nextExtension_ = *(stopsSince_ = now);
      return now - *stopsSince_ < kLongestStop;
  }
  return false;
}

}  // namespace kddc
