// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/interrupt.h"

#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <csignal>

namespace kddc {
namespace {

std::atomic<bool> came{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may use nothing else");

// What else a handler may use: posts wake the thread that waits for interrupts.
sem_t posted;
std::atomic<bool> isWaiting{false};
std::atomic<bool> isOver{false};

void note(int) {
  const int error = errno;
  came.store(true, std::memory_order_relaxed);  // nothing is read on the strength of it
  if (isWaiting) sem_post(&posted);
  errno = error;
}

}  // namespace

void noteInterrupts() {
  struct sigaction action {};
  action.sa_handler = note;
  for (const int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

bool interrupted() {
  return came.load(std::memory_order_relaxed);
}

InterruptThread::InterruptThread(std::function<void()> onInterrupt) {
  sem_init(&posted, 0, 0);
  isOver = false;
  isWaiting = true;
  noteInterrupts();
  thread_ = std::thread([call = std::move(onInterrupt)] {
    for (;;) {
      while (sem_wait(&posted) != 0) {
      }
      if (isOver) return;
      call();
    }
  });
}

// A handler that has seen isWaiting may still post: the semaphore is nobody's memory but ours, so
// that does no harm.
InterruptThread::~InterruptThread() {
  isWaiting = false;
  isOver = true;
  sem_post(&posted);
  thread_.join();
  sem_destroy(&posted);
}

}  // namespace kddc
