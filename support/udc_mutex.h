// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// For the agent's own threads: POSIX mutexes and conditions that report every failure, and a gate
// that lets a limited number of holders in.
//
//   SyncPrim* gate = nullptr;         HoldSyncPrim(gate, 4);  // waits while 4 or more hold it
//   InitializeSyncPrim(&gate);        ...
//   ...                               UnHoldSyncPrim(gate);
//   FreeSyncPrim(gate);
//
// Failures: UDCException of type 4 with the number of the POSIX call that failed, and of the types
// that an operation names. Each is logged under the operation's tag, "UDC_MUTEX :: <operation>" or
// the function's name, as "eRRoR -- " and the exception's message, and rethrown.
#pragma once

#include <pthread.h>

#include <ctime>
#include <list>

#include "platform/export.h"

// A checked front end for mutexes and conditions that belong to the caller; it owns none. It is
// made on the stack of the thread that uses it, and Lock and TryLock refuse any other thread (type
// 1); the other operations do not ask, so that a thread may give back what a helper locked.
class KDDC_API UDC_MUTEX {
 public:
  // The calling thread becomes the owner.
  UDC_MUTEX();
  ~UDC_MUTEX();
  UDC_MUTEX(const UDC_MUTEX&) = delete;
  UDC_MUTEX& operator=(const UDC_MUTEX&) = delete;

  // The results that are int are always 0.
  int Lock(pthread_mutex_t* mutex);
  int UnLock(pthread_mutex_t* mutex);
  // False when the mutex is held, by whomever.
  bool TryLock(pthread_mutex_t* mutex);
  // Gives the mutex up while it waits and holds it again afterwards. May end without a broadcast.
  int WaitOn(pthread_mutex_t* mutex, pthread_cond_t* condition);
  // The same until `abstime`, a time of the condition's clock (CLOCK_REALTIME, if nothing else was
  // set); false when that has come.
  bool TimedWait(pthread_mutex_t* mutex, pthread_cond_t* condition, const timespec* abstime);
  int Broadcast(pthread_cond_t* condition);

 private:
  pthread_t owner_;
  std::list<pthread_mutex_t*> mutexes_;  // no operation fills it
};

// A gate: how many hold it, and what guards and announces that number. Threads: any number, each
// with a limit of its own.
struct SyncPrim {
  pthread_mutex_t mutex;  // default attributes; guards count
  pthread_cond_t cond;    // default attributes; broadcast after every change of count
  int count;              // holders; below zero after more releases than holds
};

// Allocates a gate that nobody holds, and stores its address in `*out`; 0. Type 0 with errno when
// there is no memory, and `*out` is null then. When the mutex or the condition cannot be made,
// `*out` points to the block all the same, and the caller gives it to free(3).
KDDC_API int InitializeSyncPrim(SyncPrim** out);

// Takes one hold, once fewer than `limit` are taken; 0. A limit of 0 waits for a count below zero.
// When waiting fails, no hold is taken.
KDDC_API int HoldSyncPrim(SyncPrim* gate, int limit);
// Gives one hold back, whoever took it, and also one that nobody took; 0.
KDDC_API int UnHoldSyncPrim(SyncPrim* gate);
// Forgets all holds and wakes all who wait; 0.
KDDC_API int ReInitializeSyncPrim(SyncPrim* gate);

// Frees a gate that no thread uses any more. Null is fine. Never fails.
KDDC_API void FreeSyncPrim(SyncPrim* gate);
