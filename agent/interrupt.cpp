// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/interrupt.h"

#include <atomic>
#include <csignal>

namespace kddc {
namespace {

std::atomic<bool> came{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may use nothing else");

void note(int) {
  came.store(true, std::memory_order_relaxed);
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

}  // namespace kddc
