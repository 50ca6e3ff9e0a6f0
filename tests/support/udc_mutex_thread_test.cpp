// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The checked mutex and the gate between threads. Every test ends or is ended by an alarm.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <thread>
#include <vector>

#include "support/udc_mutex.h"

namespace {

struct UdcMutexThreads : testing::Test {
  UdcMutexThreads() {
    ::alarm(60);
    InitializeSyncPrim(&gate);
  }
  ~UdcMutexThreads() override {
    FreeSyncPrim(gate);
    ::alarm(0);
  }

  static timespec inAMinute() {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_sec += 60;
    return time;
  }

  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  SyncPrim* gate = nullptr;
};

TEST_F(UdcMutexThreads, LetsOneThreadInAtATime) {
  int value = 0;
  std::vector<std::thread> threads(4);
  for (std::thread& thread : threads)
    thread = std::thread([&] {
      UDC_MUTEX checked;
      for (int n = 0; n < 5000; ++n) {
        if (n % 2 == 0 || !checked.TryLock(&mutex)) checked.Lock(&mutex);
        ++value;
        checked.UnLock(&mutex);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(value, 20000);
}

TEST_F(UdcMutexThreads, ABroadcastWakesThoseThatWaitWithAndWithoutATime) {
  int waiting = 0, woken = 0;
  bool open = false;
  const auto wait = [&](bool timed) {
    UDC_MUTEX checked;
    const timespec end = inAMinute();
    checked.Lock(&mutex);
    ++waiting;
    while (!open)
      if (timed)
        EXPECT_TRUE(checked.TimedWait(&mutex, &condition, &end));
      else
        EXPECT_EQ(checked.WaitOn(&mutex, &condition), 0);
    ++woken;
    checked.UnLock(&mutex);
  };
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int n = 0; n < 4; ++n) threads.emplace_back(wait, n % 2 == 0);

  UDC_MUTEX checked;
  for (bool all = false; !all; std::this_thread::yield()) {
    checked.Lock(&mutex);
    all = waiting == 4;
    open = all;
    checked.UnLock(&mutex);
  }
  EXPECT_EQ(checked.Broadcast(&condition), 0);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(woken, 4);
}

TEST_F(UdcMutexThreads, NoMoreThanTheLimitAreInTheGate) {
  std::atomic<int> inside = 0, most = 0;
  std::vector<std::thread> threads(6);
  for (std::thread& thread : threads)
    thread = std::thread([&] {
      for (int n = 0; n < 1000; ++n) {
        HoldSyncPrim(gate, 3);
        const int now = ++inside;
        for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
        }
        --inside;
        UnHoldSyncPrim(gate);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(most, 3);
  EXPECT_EQ(gate->count, 0);
}

// A thread that wants in with `limit` comes in when `open` has let it, not before.
void expectToWaitFor(SyncPrim* gate, int limit, int (*open)(SyncPrim*)) {
  std::atomic<bool> opened = false, started = false;
  std::thread second([&] {
    started = true;
    HoldSyncPrim(gate, limit);
    EXPECT_TRUE(opened);
  });
  while (!started) std::this_thread::yield();
  for (int n = 0; n < 100; ++n) std::this_thread::yield();  // a chance to come in too early
  opened = true;
  open(gate);
  second.join();
}

TEST_F(UdcMutexThreads, TheSecondHolderWaitsUntilTheFirstReleases) {
  HoldSyncPrim(gate, 1);
  expectToWaitFor(gate, 1, UnHoldSyncPrim);
  EXPECT_EQ(gate->count, 1);
}

TEST_F(UdcMutexThreads, TheSecondHolderWaitsUntilTheGateIsReset) {
  HoldSyncPrim(gate, 1);
  expectToWaitFor(gate, 1, ReInitializeSyncPrim);
  EXPECT_EQ(gate->count, 1);
}

TEST_F(UdcMutexThreads, ALimitOfZeroWaitsForACountBelowZero) {
  expectToWaitFor(gate, 0, UnHoldSyncPrim);
  EXPECT_EQ(gate->count, 0);
}

TEST_F(UdcMutexThreads, AResetLetsWaitersOfEveryLimitIn) {
  for (int n = 0; n < 4; ++n) HoldSyncPrim(gate, 4);
  std::vector<std::thread> threads;
  threads.reserve(4);
  for (int limit = 1; limit <= 4; ++limit)
    threads.emplace_back([this, limit] {
      HoldSyncPrim(gate, limit);
      UnHoldSyncPrim(gate);
    });
  ReInitializeSyncPrim(gate);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(gate->count, 0);
}

}  // namespace
