// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <thread>

#include "agent/live/mount_watch.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

using std::chrono::milliseconds;

struct MountWatchTest : testing::Test {
  void SetUp() override {
    if (const std::string why = LoopMount::whyNot("tmpfs"); !why.empty()) GTEST_SKIP() << why;
    alarm(60);
  }
  void TearDown() override { alarm(0); }
};

TEST_F(MountWatchTest, AMountAndAnUnmountAreToldOnceEach) {
  MountWatch watch;
  EXPECT_FALSE(watch.wait(milliseconds(0)));
  LoopMount mount("tmpfs");
  EXPECT_TRUE(watch.wait());
  EXPECT_FALSE(watch.wait(milliseconds(0)));
  mount.unmount();
  EXPECT_TRUE(watch.wait());
  EXPECT_FALSE(watch.wait(milliseconds(1)));
}

TEST_F(MountWatchTest, AChangeEndsTheWaitUnderWay) {
  MountWatch watch;
  bool told = false;
  std::thread waiting([&] { told = watch.wait(); });
  const LoopMount mount("tmpfs");
  waiting.join();
  EXPECT_TRUE(told);
}

TEST_F(MountWatchTest, ToBeWokenEndsTheWaitWithoutAChange) {
  MountWatch watch;
  bool told = true;
  std::thread waiting([&] { told = watch.wait(); });
  watch.wake();
  waiting.join();
  EXPECT_FALSE(told);
}

TEST_F(MountWatchTest, ToBeWokenEarlyEndsTheNextWaitAndLosesNoChange) {
  MountWatch watch;
  const LoopMount mount("tmpfs");
  watch.wake();
  watch.wake();
  EXPECT_TRUE(watch.wait());
  EXPECT_FALSE(watch.wait(milliseconds(0)));
  watch.wake();
  EXPECT_FALSE(watch.wait());
}

}  // namespace
}  // namespace kddc::test
