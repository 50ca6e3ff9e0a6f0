// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The monitor between threads. Every test ends or is ended by an alarm.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "platform/kd_monitor.h"

namespace {

using Clock = std::chrono::steady_clock;

class Monitor : public ::testing::Test {
 protected:
  void SetUp() override { ::alarm(60); }
  void TearDown() override { ::alarm(0); }

  KdMonitor monitor_;
};

struct Counter {
  KdMonitor monitor;
  int value GUARDED_BY(monitor) = 0;
};

TEST_F(Monitor, LetsOneThreadInAtATime) {
  Counter counter;
  std::vector<std::thread> threads(4);
  for (std::thread& thread : threads)
    thread = std::thread([&] {
      for (int n = 0; n < 5000; ++n) {
        const KdMonitor::Guard guard(counter.monitor);
        ++counter.value;
      }
    });
  for (std::thread& thread : threads) thread.join();
  const KdMonitor::Guard guard(counter.monitor);
  EXPECT_EQ(counter.value, 20000);
}

TEST_F(Monitor, GivesTheLockUpWhileItWaitsAndWakesOnABroadcast) {
  Counter counter;
  counter.monitor.enter();
  std::thread other([&] {
    const KdMonitor::Guard guard(counter.monitor);
    counter.value = 1;
    counter.monitor.broadcast();
  });
  while (counter.value == 0) EXPECT_TRUE(counter.monitor.wait(60000));
  EXPECT_EQ(counter.value, 1);
  counter.monitor.leave();
  other.join();
}

TEST_F(Monitor, WakesEveryWaiterWithOneBroadcast) {
  struct {
    KdMonitor monitor;
    int waiting GUARDED_BY(monitor) = 0;
    bool open GUARDED_BY(monitor) = false;
    int woken GUARDED_BY(monitor) = 0;
  } gate;
  std::vector<std::thread> threads(5);
  for (std::thread& thread : threads)
    thread = std::thread([&] {
      const KdMonitor::Guard guard(gate.monitor);
      ++gate.waiting;
      gate.monitor.broadcast();
      while (!gate.open) gate.monitor.wait(60000);
      ++gate.woken;
    });
  {
    const KdMonitor::Guard guard(gate.monitor);
    while (gate.waiting < 5) gate.monitor.wait(60000);
    gate.open = true;
    gate.monitor.broadcast();
  }
  for (std::thread& thread : threads) thread.join();
  const KdMonitor::Guard guard(gate.monitor);
  EXPECT_EQ(gate.woken, 5);
}

TEST_F(Monitor, AnswersFalseWhenTheTimeHasPassedAndStillHoldsTheLock) {
  Counter counter;
  counter.monitor.enter();
  const auto deadline = Clock::now() + std::chrono::milliseconds(50);
  // A wait may wake for no reason; what counts is that false comes, and not too early.
  while (counter.monitor.wait(50)) {
  }
  EXPECT_GE(Clock::now(), deadline);
  counter.value = 1;
  std::thread other([&] {
    const KdMonitor::Guard guard(counter.monitor);
    counter.value = 2;
    counter.monitor.broadcast();
  });
  EXPECT_EQ(counter.value, 1);
  while (counter.value == 1) counter.monitor.wait(60000);
  counter.monitor.leave();
  other.join();
}

TEST_F(Monitor, AnswersFalseAtOnceForNoTimeAtAll) {
  const KdMonitor::Guard guard(monitor_);
  const auto before = Clock::now();
  EXPECT_FALSE(monitor_.wait(0));
  EXPECT_FALSE(monitor_.wait(-1));
  EXPECT_FALSE(monitor_.wait(-2147483647 - 1));
  EXPECT_LT(Clock::now() - before, std::chrono::seconds(30));
}

TEST_F(Monitor, WaitsForTheLongestTimeThereIs) {
  Counter counter;
  counter.monitor.enter();
  std::thread other([&] {
    const KdMonitor::Guard guard(counter.monitor);
    counter.value = 1;
    counter.monitor.broadcast();
  });
  while (counter.value == 0) EXPECT_TRUE(counter.monitor.wait(2147483647));
  counter.monitor.leave();
  other.join();
}

TEST_F(Monitor, MayBeWokenByAThreadThatIsNotInIt) {
  Counter counter;
  std::thread other([&] {
    {
      const KdMonitor::Guard guard(counter.monitor);
      counter.value = 1;
    }
    counter.monitor.broadcast();
  });
  {
    const KdMonitor::Guard guard(counter.monitor);
    while (counter.value == 0) counter.monitor.wait(1000);
  }
  other.join();
}

}  // namespace
