// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "support/udc_mutex.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "platform/ev_debug.h"
#include "platform/exceptions.h"
#include "platform/failure.h"

namespace {

constexpr int kSystemCall = 0, kMisuse = 1, kThreadCall = 4;
constexpr char kMoved[] = "UDC_MUTEX cannot be moved across threads";

// As elsewhere, but with the message alone: logs are searched for exactly that text.
template <class Operation>
auto logged(const char* tag, Operation&& operation) {
  try {
    return std::forward<Operation>(operation)();
  } catch (UDCException& e) {
    e.AddFunction(tag);
    dbg.Error(tag, "eRRoR -- %s", e.GetMessage().c_str());
    throw;
  }
}

// `result` is what a POSIX thread call answered.
int check(const char* tag, int result, const char* message) {
  if (result != 0) throw UDCException(tag, kThreadCall, result, kddc::errnoText(result), message);
  return result;
}

// Runs `change` under the gate's mutex and wakes everybody, as each waits for a limit of its own.
template <class Change>
int changeCount(const char* tag, SyncPrim* gate, Change&& change) {
  return logged(tag, [&] {
    UDC_MUTEX mutex;
    mutex.Lock(&gate->mutex);
    try {
      change(mutex);
    } catch (...) {
      pthread_mutex_unlock(&gate->mutex);  // or one failed wait would shut the gate for all
      throw;
    }
    mutex.UnLock(&gate->mutex);
    return mutex.Broadcast(&gate->cond);
  });
}

}  // namespace

UDC_MUTEX::UDC_MUTEX() : owner_(pthread_self()) {}
UDC_MUTEX::~UDC_MUTEX() = default;

int UDC_MUTEX::Lock(pthread_mutex_t* mutex) {
  constexpr char kTag[] = "UDC_MUTEX :: Lock";
  return logged(kTag, [&] {
    if (!pthread_equal(owner_, pthread_self())) throw UDCException(kTag, kMisuse, kMoved, 0);
    return check(kTag, pthread_mutex_lock(mutex), "Unable to lock the mutex");
  });
}

int UDC_MUTEX::UnLock(pthread_mutex_t* mutex) {
  constexpr char kTag[] = "UDC_MUTEX :: UnLock";
  return logged(
      kTag, [&] { return check(kTag, pthread_mutex_unlock(mutex), "Unable to unlock the mutex"); });
}

bool UDC_MUTEX::TryLock(pthread_mutex_t* mutex) {
  constexpr char kTag[] = "UDC_MUTEX :: TryLock";
  return logged(kTag, [&] {
    // The number tells it from the refusal of Lock, which has none.
    if (!pthread_equal(owner_, pthread_self())) throw UDCException(kTag, kMisuse, 9, kMoved);
    const int result = pthread_mutex_trylock(mutex);
    return result != EBUSY && check(kTag, result, "Unable to lock the mutex") == 0;
  });
}

int UDC_MUTEX::WaitOn(pthread_mutex_t* mutex, pthread_cond_t* condition) {
  constexpr char kTag[] = "UDC_MUTEX :: WaitOn";
  return logged(kTag, [&] {
    return check(kTag, pthread_cond_wait(condition, mutex),
                 "Wait on a conditional variable failed");
  });
}

bool UDC_MUTEX::TimedWait(pthread_mutex_t* mutex, pthread_cond_t* condition,
                          const timespec* abstime) {
  constexpr char kTag[] = "UDC_MUTEX :: TimedWait";
  return logged(kTag, [&] {
    const int result = pthread_cond_timedwait(condition, mutex, abstime);
    return result != ETIMEDOUT &&
           check(kTag, result, "Timed Wait on a conditional variable failed") == 0;
  });
}

int UDC_MUTEX::Broadcast(pthread_cond_t* condition) {
  constexpr char kTag[] = "UDC_MUTEX :: Broadcast";
  return logged(kTag, [&] {
    return check(kTag, pthread_cond_broadcast(condition),
                 "BroadCast on  a conditional variable failed");
  });
}

int InitializeSyncPrim(SyncPrim** out) {
  constexpr char kTag[] = "InitializeSyncPrim";
  return logged(kTag, [&] {
    // By malloc, and handed out before it is whole: a caller gives what a failure leaves to
    // free(3).
    *out = static_cast<SyncPrim*>(std::malloc(sizeof(SyncPrim)));
    if (const int error = errno; !*out)
      throw UDCException(kTag, kSystemCall, error, kddc::errnoText(error),
                         "Unable to allocate memory for SyncPrim");
    (*out)->count = 0;
    check(kTag, pthread_mutex_init(&(*out)->mutex, nullptr),
          "Unable to initialize the SyncPrim mutex");
    return check(kTag, pthread_cond_init(&(*out)->cond, nullptr),
                 "Unable to initialize the SyncPrim CondVar");
  });
}

int HoldSyncPrim(SyncPrim* gate, int limit) {
  return changeCount("HoldSyncPrim", gate, [&](UDC_MUTEX& mutex) {
    while (gate->count >= limit) mutex.WaitOn(&gate->mutex, &gate->cond);
    ++gate->count;
  });
}

int UnHoldSyncPrim(SyncPrim* gate) {
  return changeCount("UnHoldSyncPrim", gate, [&](UDC_MUTEX&) { --gate->count; });
}

int ReInitializeSyncPrim(SyncPrim* gate) {
  return changeCount("ReInitializeSyncPrim", gate, [&](UDC_MUTEX&) { gate->count = 0; });
}

void FreeSyncPrim(SyncPrim* gate) {
  if (!gate) return;
  pthread_cond_destroy(&gate->cond);
  pthread_mutex_destroy(&gate->mutex);
  std::free(gate);
}
