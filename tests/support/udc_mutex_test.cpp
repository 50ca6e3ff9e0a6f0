// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The checked mutex in one thread: what it answers, and what it says when POSIX refuses. The
// refusals are real ones, of mutexes that check for errors or whose owner died.
#include "support/udc_mutex.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "platform/exceptions.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kMoved[] = "UDC_MUTEX cannot be moved across threads";

// A mutex with attributes.
class Mutex {
 public:
  explicit Mutex(int type, int robust = PTHREAD_MUTEX_STALLED) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutexattr_setrobust(&attributes, robust);
    pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
  }
  ~Mutex() { pthread_mutex_destroy(&mutex_); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  operator pthread_mutex_t*() { return &mutex_; }  // NOLINT(google-explicit-constructor)

 private:
  pthread_mutex_t mutex_;
};

struct UdcMutex : testing::Test {
  UdcMutex() { ::alarm(60); }
  ~UdcMutex() override { ::alarm(0); }

  UDC_MUTEX checked;
  Mutex plain{PTHREAD_MUTEX_DEFAULT};
  Mutex strict{PTHREAD_MUTEX_ERRORCHECK};
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;

  // The whole text of what `operation` throws; empty when it throws nothing.
  static std::string thrown(const std::function<void()>& operation) {
    try {
      operation();
    } catch (const UDCException& e) {
      return e.GetErrorMsg();
    }
    return "";
  }
  static void inAnotherThread(const std::function<void()>& operation) {
    std::thread(operation).join();
  }
};

TEST_F(UdcMutex, LocksAndUnlocksWithTheResultZero) {
  EXPECT_EQ(checked.Lock(plain), 0);
  EXPECT_EQ(pthread_mutex_trylock(plain), EBUSY);
  EXPECT_EQ(checked.UnLock(plain), 0);
  EXPECT_EQ(pthread_mutex_trylock(plain), 0);
  EXPECT_EQ(pthread_mutex_unlock(plain), 0);
}

TEST_F(UdcMutex, TryLockTakesAFreeMutex) {
  EXPECT_TRUE(checked.TryLock(plain));
  EXPECT_EQ(pthread_mutex_trylock(plain), EBUSY);
  checked.UnLock(plain);
}

TEST_F(UdcMutex, TryLockAnswersFalseWithoutAWordWhenAnotherThreadHoldsTheMutex) {
  const LogCapture log(9);
  checked.Lock(plain);
  inAnotherThread([&] { EXPECT_FALSE(UDC_MUTEX().TryLock(plain)); });
  EXPECT_THAT(log.lines(), IsEmpty());
  checked.UnLock(plain);
}

TEST_F(UdcMutex, OnlyTheThreadThatMadeItMayLock) {
  const LogCapture log(0);
  inAnotherThread([&] {
    EXPECT_EQ(thrown([&] { checked.Lock(plain); }),
              "Function[UDC_MUTEX :: Lock] Type[1] Error[0] "
              "UDC_MUTEX cannot be moved across threads");
    EXPECT_EQ(thrown([&] { checked.TryLock(plain); }),
              "Function[UDC_MUTEX :: TryLock] Type[1] Error[9] "
              "UDC_MUTEX cannot be moved across threads");
  });
  EXPECT_TRUE(checked.TryLock(plain)) << "neither call locked it";
  checked.UnLock(plain);
  EXPECT_THAT(log.lines(),
              ElementsAre(std::string("error 0 UDC_MUTEX :: Lock: eRRoR -- ") + kMoved,
                          std::string("error 0 UDC_MUTEX :: TryLock: eRRoR -- ") + kMoved));
}

TEST_F(UdcMutex, AnyThreadMayUnlockWaitAndBroadcast) {
  const timespec past{.tv_sec = 1, .tv_nsec = 0};
  inAnotherThread([&] {
    pthread_mutex_lock(strict);
    EXPECT_FALSE(checked.TimedWait(strict, &condition, &past));
    EXPECT_EQ(checked.UnLock(strict), 0);
    EXPECT_EQ(checked.Broadcast(&condition), 0);
  });
}

TEST_F(UdcMutex, ATimeThatHasPassedEndsTheWaitWithFalseAndTheMutexHeld) {
  const LogCapture log(9);
  const timespec past{.tv_sec = 1, .tv_nsec = 0};
  checked.Lock(strict);
  EXPECT_FALSE(checked.TimedWait(strict, &condition, &past));
  EXPECT_EQ(checked.UnLock(strict), 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(UdcMutex, LockingTwiceIsRefusedByAMutexThatChecks) {
  const LogCapture log(0);
  checked.Lock(strict);
  EXPECT_EQ(thrown([&] { checked.Lock(strict); }),
            "Function[UDC_MUTEX :: Lock] Type[4] Error[35: Resource deadlock avoided] "
            "Unable to lock the mutex");
  checked.UnLock(strict);
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 UDC_MUTEX :: Lock: eRRoR -- Unable to lock the mutex"));
}

TEST_F(UdcMutex, UnlockingWhatIsNotHeldIsRefused) {
  const LogCapture log(0);
  EXPECT_EQ(thrown([&] { checked.UnLock(strict); }),
            "Function[UDC_MUTEX :: UnLock] Type[4] Error[1: Operation not permitted] "
            "Unable to unlock the mutex");
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 UDC_MUTEX :: UnLock: eRRoR -- Unable to unlock the mutex"));
}

TEST_F(UdcMutex, AMutexWhoseOwnerDiedIsNotTakenForABusyOne) {
  Mutex robust(PTHREAD_MUTEX_DEFAULT, PTHREAD_MUTEX_ROBUST);
  inAnotherThread([&] { pthread_mutex_lock(robust); });
  const LogCapture log(0);
  EXPECT_EQ(thrown([&] { checked.TryLock(robust); }),
            "Function[UDC_MUTEX :: TryLock] Type[4] Error[130: Owner died] "
            "Unable to lock the mutex");
  pthread_mutex_unlock(robust);  // as POSIX has it, the mutex is held, and now beyond repair
  EXPECT_EQ(thrown([&] { checked.Lock(robust); }),
            "Function[UDC_MUTEX :: Lock] Type[4] Error[131: State not recoverable] "
            "Unable to lock the mutex");
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 UDC_MUTEX :: TryLock: eRRoR -- Unable to lock the mutex",
                          "error 0 UDC_MUTEX :: Lock: eRRoR -- Unable to lock the mutex"));
}

TEST_F(UdcMutex, WaitingWithoutTheMutexIsRefused) {
  const LogCapture log(0);
  EXPECT_EQ(thrown([&] { checked.WaitOn(strict, &condition); }),
            "Function[UDC_MUTEX :: WaitOn] Type[4] Error[1: Operation not permitted] "
            "Wait on a conditional variable failed");
  EXPECT_THAT(log.lines(), ElementsAre("error 0 UDC_MUTEX :: WaitOn: eRRoR -- "
                                       "Wait on a conditional variable failed"));
}

TEST_F(UdcMutex, ATimeThatIsNoneIsRefused) {
  const LogCapture log(0);
  const timespec wrong{.tv_sec = 1, .tv_nsec = 1000000000};
  checked.Lock(strict);
  EXPECT_EQ(thrown([&] { checked.TimedWait(strict, &condition, &wrong); }),
            "Function[UDC_MUTEX :: TimedWait] Type[4] Error[22: Invalid argument] "
            "Timed Wait on a conditional variable failed");
  checked.UnLock(strict);
  EXPECT_THAT(log.lines(), ElementsAre("error 0 UDC_MUTEX :: TimedWait: eRRoR -- "
                                       "Timed Wait on a conditional variable failed"));
}

TEST_F(UdcMutex, AFailureStillSaysItsNumberWhenItIsCaught) {
  try {
    checked.UnLock(strict);
    FAIL();
  } catch (const UDCException& e) {
    EXPECT_EQ(e.GetType(), 4);
    EXPECT_EQ(e.GetErrorNumber(), 1);
    EXPECT_EQ(e.GetMessage(), "Unable to unlock the mutex");
  }
}

struct Gate : testing::Test {
  Gate() {
    EXPECT_EQ(InitializeSyncPrim(&gate), 0);
    ::alarm(60);
  }
  ~Gate() override {
    ::alarm(0);
    FreeSyncPrim(gate);
  }
  SyncPrim* gate = nullptr;
};

TEST_F(Gate, BeginsWithoutHoldersAndFree) {
  EXPECT_EQ(gate->count, 0);
  EXPECT_EQ(pthread_mutex_trylock(&gate->mutex), 0);
  EXPECT_EQ(pthread_mutex_unlock(&gate->mutex), 0);
}

TEST_F(Gate, CountsHoldsUpToAnyCallersLimit) {
  EXPECT_EQ(HoldSyncPrim(gate, 1), 0);
  EXPECT_EQ(HoldSyncPrim(gate, 2), 0);
  EXPECT_EQ(HoldSyncPrim(gate, 100), 0);
  EXPECT_EQ(gate->count, 3);
  EXPECT_EQ(UnHoldSyncPrim(gate), 0);
  EXPECT_EQ(gate->count, 2);
}

TEST_F(Gate, GoesBelowZeroWhenReleasedTooOften) {
  UnHoldSyncPrim(gate);
  EXPECT_EQ(gate->count, -1);
  HoldSyncPrim(gate, 0);
  EXPECT_EQ(gate->count, 0);
  UnHoldSyncPrim(gate);
  UnHoldSyncPrim(gate);
  HoldSyncPrim(gate, -1);
  EXPECT_EQ(gate->count, -1);
}

TEST_F(Gate, ForgetsItsHolders) {
  HoldSyncPrim(gate, 2);
  HoldSyncPrim(gate, 2);
  EXPECT_EQ(ReInitializeSyncPrim(gate), 0);
  EXPECT_EQ(gate->count, 0);
}

TEST_F(Gate, IsFreeAfterEachOperation) {
  for (const auto& operation : std::vector<std::function<void()>>{
           [&] { HoldSyncPrim(gate, 1); }, [&] { UnHoldSyncPrim(gate); },
           [&] { ReInitializeSyncPrim(gate); }}) {
    operation();
    EXPECT_EQ(pthread_mutex_trylock(&gate->mutex), 0);
    pthread_mutex_unlock(&gate->mutex);
  }
}

TEST_F(Gate, FreeingNoneIsFine) {
  FreeSyncPrim(nullptr);
}

}  // namespace
