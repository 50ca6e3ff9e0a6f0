// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Waits until something is mounted or unmounted, anywhere; what it was, volume_mount.h finds out.
//
// Threads: one waits; any may wake it. Failures: std::system_error of the constructor.
#pragma once

#include <chrono>

#include "platform/mount_changes.h"
#include "platform/unique_fd.h"

namespace kddc {

class MountWatch {
 public:
  // Changes count from now on.
  MountWatch();

  // Waits until the mount table changes, wake() is called, or the time is over, which is for ever
  // when it is negative. Whether there was a change since the last call that said so.
  bool wait(std::chrono::milliseconds atMost = std::chrono::milliseconds(-1));
  // Ends the wait under way, or else the next one. Signal handlers may call it.
  void wake() noexcept;

 private:
  MountChanges changes_;
  UniqueFd wake_;  // an eventfd
};

}  // namespace kddc
