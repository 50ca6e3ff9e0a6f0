// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Lets those who make changes go before the thread that follows them.
#pragma once

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

namespace kddc {

// From now on the calling thread displaces nobody when it is woken, and gets less of a busy
// processor. It may fall behind for a while: what it has to do waits in a queue. Nothing happens
// where that is not allowed.
inline void giveWay() {
  constexpr int kNice = 5;
  const sched_param none{};
  sched_setscheduler(0, SCHED_BATCH, &none);
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kNice);
}

}  // namespace kddc
