// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the service manager is told, and when it is told nothing.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>

#include "agent/control/volume_status.h"
#include "agent/service/service_manager.h"
#include "agent/service/service_report.h"
#include "tests/support/fake_manager.h"

namespace kddc::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr Heartbeat::Clock::time_point kStart{};

TEST(Heartbeat, IsWellWhileNobodyWorksOrEverybodyWaits) {
  Heartbeat heart(10s);
  EXPECT_TRUE(heart.isWell(kStart));
  Heartbeat::Pulse pulse(heart);
  EXPECT_TRUE(heart.isWell(kStart + 1h));
  pulse.beat(kStart);
  pulse.rest();
  EXPECT_TRUE(heart.isWell(kStart + 1h));
}

TEST(Heartbeat, IsNotWellWhenOneOfManyWorksForTooLong) {
  Heartbeat heart(10s);
  Heartbeat::Pulse other(heart);
  other.beat(kStart + 8s);
  {
    Heartbeat::Pulse pulse(heart);
    pulse.beat(kStart);
    EXPECT_TRUE(heart.isWell(kStart + 10s));
    EXPECT_FALSE(heart.isWell(kStart + 11s));
    pulse.beat(kStart + 5s);
    EXPECT_TRUE(heart.isWell(kStart + 15s));
    EXPECT_FALSE(heart.isWell(kStart + 16s));
  }
  // Whoever is gone does not hang.
  EXPECT_TRUE(heart.isWell(kStart + 18s));
  EXPECT_FALSE(heart.isWell(kStart + 19s));
}

TEST(StatusLine, CountsTheVolumesOfEachState) {
  using enum VolumeStatus::State;
  EXPECT_EQ(summaryOf({kLive}), "volumes: 1 live");
  EXPECT_EQ(summaryOf({kStale, kScanning, kLive, kRescanning, kLive}),
            "volumes: 2 live, 1 scanning, 1 rescanning, 1 stale");
  EXPECT_EQ(summaryOf({}), "volumes: none; see: kddc volumes --help");
}

struct ServiceManagerTest : testing::Test {
  FakeManager fake;
  std::vector<std::string> notes;
  std::unique_ptr<ServiceManager> manager;

  ~ServiceManagerTest() override {
    for (const char* name :
         {"NOTIFY_SOCKET", "WATCHDOG_USEC", "LISTEN_FDS", "LISTEN_PID", "LISTEN_FDNAMES"})
      unsetenv(name);
  }
  void make(const char* watchdog = nullptr) {
    setenv("NOTIFY_SOCKET", fake.path().c_str(), 1);
    if (watchdog) setenv("WATCHDOG_USEC", watchdog, 1);
    makeUnheard();
  }
  void makeUnheard() {
    manager = std::make_unique<ServiceManager>(
        [this](const std::string& line) { notes.push_back(line); });
  }
};

TEST_F(ServiceManagerTest, IsToldOnceThatItIsReadyAndOnceThatItStops) {
  make();
  EXPECT_TRUE(manager->listens());
  EXPECT_THAT(fake.told(), ElementsAre("STATUS=starting"));
  fake.clear();
  manager->ready();
  manager->ready();
  manager->stopping();
  manager->stopping();
  manager->ready();
  EXPECT_THAT(fake.told(), ElementsAre("READY=1", "STOPPING=1", "STATUS=stopping"));
}

TEST_F(ServiceManagerTest, IsToldInOneLineWhyWorkFailedAndTheErrnoBehindIt) {
  make();
  fake.clear();
  manager->failed("cannot use a\nb: No space left on device", ENOSPC);
  manager->failed("no volume", 0);
  EXPECT_THAT(fake.told(), ElementsAre("STATUS=cannot use a\\nb: No space left on device",
                                       "ERRNO=28", "STATUS=no volume"));
}

TEST_F(ServiceManagerTest, ThatDoesNotListenIsToldNothingAndHandsOverNothing) {
  setenv("WATCHDOG_USEC", "1000", 1);
  setenv("LISTEN_FDS", "1", 1);
  setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
  makeUnheard();
  EXPECT_FALSE(manager->listens());
  EXPECT_EQ(manager->watchdog(), 0s);
  EXPECT_STREQ(getenv("LISTEN_FDS"), "1");
  const ServiceReport report(*manager, [] { return "status"; });
  manager->ready();
  manager->keep("a", STDIN_FILENO);
  manager->forget("a");
  EXPECT_FALSE(manager->taken("a"));
  EXPECT_THAT(fake.told(), IsEmpty());
}

TEST_F(ServiceManagerTest, IsToldTheStatusWhenItChanges) {
  make("40000");
  std::atomic<const char*> status = "one";
  const ServiceReport report(*manager, [&] { return std::string(status); });
  ASSERT_TRUE(fake.waitFor("STATUS=one"));
  ASSERT_TRUE(fake.waitFor("WATCHDOG=1", fake.told().size()));
  status = "two";
  ASSERT_TRUE(fake.waitFor("STATUS=two"));
  EXPECT_EQ(std::ranges::count(fake.told(), "STATUS=one"), 1);
}

TEST_F(ServiceManagerTest, HearsNoSignOfLifeWhileAThreadHangs) {
  make("20000");
  Heartbeat::Pulse pulse(manager->heart());
  const ServiceReport report(*manager, [n = 0]() mutable { return std::to_string(++n); });
  ASSERT_TRUE(fake.waitFor("WATCHDOG=1"));
  pulse.beat(Heartbeat::Clock::now() - 1h);
  // One look may be under way; those after it find that it hangs.
  for (int looks = 0; looks < 2; ++looks) {
    fake.clear();
    while (fake.told().size() < 10) poll(nullptr, 0, 1);
  }
  EXPECT_THAT(fake.told(), Each(StartsWith("STATUS=")));
  pulse.beat(Heartbeat::Clock::now() + 1h);
  EXPECT_TRUE(fake.waitFor("WATCHDOG=1", fake.told().size()));
}

TEST_F(ServiceManagerTest, IsAskedForTimeWhileItStartsAndStops) {
  make("20000");
  const ServiceReport report(*manager, [] { return "status"; });
  ASSERT_TRUE(fake.waitFor("EXTEND_TIMEOUT_USEC=60000000"));
  manager->ready();
  ASSERT_TRUE(fake.waitFor("READY=1"));
  fake.clear();
  manager->stopping();
  ASSERT_TRUE(fake.waitFor("EXTEND_TIMEOUT_USEC=60000000"));
  EXPECT_THAT(fake.told(), Contains("STOPPING=1"));
}

TEST_F(ServiceManagerTest, KeepsADescriptorUntilItIsToForgetIt) {
  make();
  TempFolder folder;
  folder.write("file", "text");
  const UniqueFd file(open((folder / "file").c_str(), O_RDONLY | O_CLOEXEC));
  manager->keep("kddc-7", file.get());
  EXPECT_THAT(fake.told(),
              ElementsAre("STATUS=starting", "FDSTORE=1", "FDPOLL=0", "FDNAME=kddc-7"));
  ASSERT_EQ(fake.kept["kddc-7"].size(), 1U);
  char text[4];
  EXPECT_EQ(::read(fake.kept["kddc-7"][0].get(), text, sizeof text), 4);
  manager->forget("kddc-7");
  fake.told();
  EXPECT_FALSE(fake.kept.contains("kddc-7"));
}

}  // namespace
}  // namespace kddc::test
