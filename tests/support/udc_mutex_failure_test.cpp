// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the C library hardly ever refuses, refused once: this program brings calls of its own for
// malloc and the threads' library, which fail when a test asks for it. It has one thread, so its
// broadcasts wake nobody and it never waits.
#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <functional>

#include "platform/exceptions.h"
#include "support/udc_mutex.h"
#include "tests/support/log_capture.h"

namespace {

// The number that the next call of each kind fails with; 0: it works.
struct Refusals {
  int malloc = 0;
  int mutexInit = 0, condInit = 0, condWait = 0, broadcast = 0;
};
Refusals refusals;

int taken(int& refusal) {
  const int number = refusal;
  refusal = 0;
  return number;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t size);  // NOLINT(bugprone-reserved-identifier)

#ifndef KDDC_ADDRESS_SANITIZER
void* malloc(std::size_t size) noexcept {
  if (size != sizeof(SyncPrim) || refusals.malloc == 0) return __libc_malloc(size);
  errno = taken(refusals.malloc);
  return nullptr;
}
#endif

int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t*) noexcept {
  *mutex = PTHREAD_MUTEX_INITIALIZER;
  return taken(refusals.mutexInit);
}
int pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t*) noexcept {
  *cond = PTHREAD_COND_INITIALIZER;
  return taken(refusals.condInit);
}
int pthread_cond_wait(pthread_cond_t*, pthread_mutex_t*) {
  return taken(refusals.condWait);
}
int pthread_cond_broadcast(pthread_cond_t*) noexcept {
  return taken(refusals.broadcast);
}

}  // extern "C"

namespace {

using kddc::test::LogCapture;
using testing::ElementsAre;

std::string thrown(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const UDCException& e) {
    return e.GetErrorMsg();
  }
  return "";
}

struct RefusedGate : testing::Test {
  ~RefusedGate() override {
    refusals = {};
    std::free(gate);
  }
  bool isFree() const {
    const bool free = pthread_mutex_trylock(&gate->mutex) == 0;
    pthread_mutex_unlock(&gate->mutex);
    return free;
  }
  SyncPrim* gate = nullptr;
};

TEST_F(RefusedGate, WithoutMemoryThereIsNone) {
#ifdef KDDC_ADDRESS_SANITIZER
  GTEST_SKIP() << "the address sanitizer has a malloc of its own";
#endif
  const LogCapture log(0);
  SyncPrim before{};
  gate = &before;
  refusals.malloc = ENOMEM;
  EXPECT_EQ(thrown([&] { InitializeSyncPrim(&gate); }),
            "Function[InitializeSyncPrim] Type[0] Error[12: Cannot allocate memory] "
            "Unable to allocate memory for SyncPrim");
  EXPECT_EQ(gate, nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("error 0 InitializeSyncPrim: eRRoR -- "
                                       "Unable to allocate memory for SyncPrim"));
}

TEST_F(RefusedGate, WithoutAMutexTheBlockStaysWithTheCaller) {
  const LogCapture log(0);
  refusals.mutexInit = EAGAIN;
  EXPECT_EQ(thrown([&] { InitializeSyncPrim(&gate); }),
            "Function[InitializeSyncPrim] Type[4] Error[11: Resource temporarily unavailable] "
            "Unable to initialize the SyncPrim mutex");
  ASSERT_NE(gate, nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("error 0 InitializeSyncPrim: eRRoR -- "
                                       "Unable to initialize the SyncPrim mutex"));
}

TEST_F(RefusedGate, WithoutAConditionTheBlockStaysWithTheCaller) {
  const LogCapture log(0);
  refusals.condInit = ENOMEM;
  EXPECT_EQ(thrown([&] { InitializeSyncPrim(&gate); }),
            "Function[InitializeSyncPrim] Type[4] Error[12: Cannot allocate memory] "
            "Unable to initialize the SyncPrim CondVar");
  ASSERT_NE(gate, nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("error 0 InitializeSyncPrim: eRRoR -- "
                                       "Unable to initialize the SyncPrim CondVar"));
}

TEST_F(RefusedGate, AHoldThatCannotWaitIsNotTakenAndLeavesTheGateFree) {
  InitializeSyncPrim(&gate);
  HoldSyncPrim(gate, 1);
  const LogCapture log(0);
  refusals.condWait = EINVAL;
  EXPECT_EQ(thrown([&] { HoldSyncPrim(gate, 1); }),
            "Function[UDC_MUTEX :: WaitOn <- HoldSyncPrim] Type[4] Error[22: Invalid argument] "
            "Wait on a conditional variable failed");
  EXPECT_EQ(gate->count, 1);
  EXPECT_TRUE(isFree());
  EXPECT_THAT(
      log.lines(),
      ElementsAre("error 0 UDC_MUTEX :: WaitOn: eRRoR -- Wait on a conditional variable failed",
                  "error 0 HoldSyncPrim: eRRoR -- Wait on a conditional variable failed"));
}

struct Broadcaster {
  const char* name;
  void (*operation)(SyncPrim*);
  int countAfterwards;
};

TEST_F(RefusedGate, ACountIsChangedBeforeTheBroadcastThatFails) {
  const Broadcaster broadcasters[] = {
      {"HoldSyncPrim", [](SyncPrim* held) { HoldSyncPrim(held, 5); }, 4},
      {"UnHoldSyncPrim", [](SyncPrim* held) { UnHoldSyncPrim(held); }, 2},
      {"ReInitializeSyncPrim", [](SyncPrim* held) { ReInitializeSyncPrim(held); }, 0},
  };
  InitializeSyncPrim(&gate);
  for (const Broadcaster& broadcaster : broadcasters) {
    gate->count = 3;
    const LogCapture log(0);
    refusals.broadcast = EINVAL;
    EXPECT_EQ(thrown([&] { broadcaster.operation(gate); }),
              std::string("Function[UDC_MUTEX :: Broadcast <- ") + broadcaster.name +
                  "] Type[4] Error[22: Invalid argument] "
                  "BroadCast on  a conditional variable failed");
    EXPECT_EQ(gate->count, broadcaster.countAfterwards);
    EXPECT_TRUE(isFree());
    EXPECT_THAT(log.lines(),
                ElementsAre("error 0 UDC_MUTEX :: Broadcast: eRRoR -- "
                            "BroadCast on  a conditional variable failed",
                            std::string("error 0 ") + broadcaster.name +
                                ": eRRoR -- BroadCast on  a conditional variable failed"));
  }
}

}  // namespace
