// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Tells the service manager how it goes, as long as the object lives, on a thread of its own:
//
//   STATUS=               when it has changed
//   WATCHDOG=1            within half of the time that the manager waits for it
//   EXTEND_TIMEOUT_USEC=  while it starts or stops, which take as long as there is something to do;
//                         stopping at most ten minutes
//
// While a thread hangs only the first is told, so that the manager sees it. There is no thread
// where nobody listens.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "agent/service/service_manager.h"

namespace kddc {

class ServiceReport {
 public:
  // `status`: one line for people, on the object's thread.
  ServiceReport(ServiceManager& manager, std::function<std::string()> status);
  ~ServiceReport();
  ServiceReport(const ServiceReport&) = delete;
  ServiceReport& operator=(const ServiceReport&) = delete;

  // Looks at once, and not in a second. From any thread.
  void look();

 private:
  using Clock = Heartbeat::Clock;

  void run();
  std::string whatToTell(Clock::time_point now);
  std::string newStatus();
  std::string signsOfLife(Clock::time_point now);
  bool mayTakeLonger(Clock::time_point now);

  ServiceManager& manager_;
  std::function<std::string()> status_;

  // Of the thread.
  std::string told_;
  Clock::time_point nextWatchdog_{}, nextExtension_{};
  std::optional<Clock::time_point> stopsSince_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool looks_ = false, ended_ = false;
  std::thread thread_;  // last: it uses the others
};

}  // namespace kddc
