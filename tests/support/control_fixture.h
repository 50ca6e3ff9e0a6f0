// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The socket of a process that watches /data, and a handler that can be kept waiting.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "agent/control/server.h"
#include "agent/errors.h"
#include "platform/unique_fd.h"
#include "tests/support/failure_of.h"
#include "tests/support/raw_client.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

struct Control : testing::Test {
  using Gone = ControlServer::Gone;

  static constexpr char kStatus[] = R"({"version":1,"command":"status"})";
  static constexpr char kFlush[] = R"({"version":1,"command":"flush"})";
  static constexpr char kGood[] = R"({"ok":true,"version":1,"volume":"/data"})";

  // Answers "status" at once; "flush" waits until it is released, or until it is gone.
  struct Slow {
    std::promise<void> released, entered, left;
    std::atomic<int> inside{0};

    nlohmann::json operator()(const ControlRequest& request, const Gone& gone) {
      if (request.command == ControlCommand::kFlush) wait(gone);
      return {{"volume", request.volume}};
    }
    void wait(const Gone& gone) {
      if (inside++ == 0) entered.set_value();
      const auto release = released.get_future();
      while (release.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
        if (!gone()) continue;
        left.set_value();
        throw Failure("stopped");
      }
    }
  };

  TempFolder temp;
  std::string path = temp / "state/sockets/data-1";
  Slow slow;
  std::unique_ptr<ControlServer> server;

  void start(ControlLimits limits = {}) {
    serve([this](const ControlRequest& request, const Gone& gone) { return slow(request, gone); },
          limits);
  }
  void serve(ControlServer::Handler handler, ControlLimits limits = {}) {
    server = std::make_unique<ControlServer>(std::vector<ControlPlace>{{"/data", path}},
                                             std::move(handler), limits);
  }
  std::string failureToStart(const std::string& at) const {
    return failureOf([&] { ControlServer({{"/data", at}}, {}); });
  }
  static void expectSoon(std::promise<void>& promise) {
    ASSERT_EQ(promise.get_future().wait_for(kWatchdog), std::future_status::ready);
  }
  // A socket that listens, and never accepts, at a short path.
  static UniqueFd deafSocket(const std::string& at) {
    const std::filesystem::path folder = std::filesystem::path(at).parent_path();
    std::filesystem::create_directories(folder);
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, at.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd.get(), 5), 0);
    return fd;
  }
};

}  // namespace kddc::test
