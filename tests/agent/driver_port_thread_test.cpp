// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Whether a driver thread hangs.
#include <gmock/gmock.h>
#include <poll.h>

#include <atomic>
#include <future>

#include "agent/live/driver_port.h"
#include "tests/support/fake_manager.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

using namespace std::chrono_literals;

struct DriverPortTest : testing::Test {
  void SetUp() override {
    alarm(120);
    if (const std::string why = LoopMount::whyNot("tmpfs"); !why.empty()) GTEST_SKIP() << why;
  }
  void TearDown() override { alarm(0); }

  // The alarm ends it when that never comes.
  static void waitUntil(const std::function<bool()>& condition) {
    while (!condition()) poll(nullptr, 0, 1);
  }
};

TEST_F(DriverPortTest, IsWellWhileItWaitsAndNotWhileItsQueueTakesNoRecord) {
  const LoopMount mount("tmpfs");
  const FakeManager fake;
  setenv("NOTIFY_SOCKET", fake.path().c_str(), 1);
  setenv("WATCHDOG_USEC", "50000", 1);
  ServiceManager manager([](const std::string&) {});
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  std::promise<void> taking, release;
  std::atomic<bool> first = true;
  DriverSinks sinks;
  sinks.record = [&](std::span<unsigned char>) {
    if (!first.exchange(false)) return;
    taking.set_value();
    release.get_future().wait();
  };
  sinks.doubt = [](const std::string& reason) { ADD_FAILURE() << reason; };
  DriverOptions options;
  options.roots = {mount.path()};
  options.stubAttribute = "trusted.stub";
  options.ownPid = -1;
  DriverPort port(std::move(options), std::move(sinks), manager);
  const Heartbeat& heart = manager.heart();
  port.start();
  waitUntil([&] { return heart.isWell(Heartbeat::Clock::now() + 1h); });

  std::ofstream(mount / "file") << "text";
  taking.get_future().wait();
  waitUntil([&] { return !heart.isWell(); });
  release.set_value();
  waitUntil([&] { return heart.isWell(Heartbeat::Clock::now() + 1h); });
  port.end();
  EXPECT_TRUE(heart.isWell(Heartbeat::Clock::now() + 1h));
}

}  // namespace
}  // namespace kddc::test
