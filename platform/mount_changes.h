// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Tells that the mount table has changed. Private.
//
// The kernel counts the changes of the mount namespace; to ask it costs less than a microsecond and
// touches no file system. Something is mounted or unmounted anywhere: a change. Which, the table
// tells.
//
// Threads: any.
#pragma once

#include "platform/unique_fd.h"

namespace kddc {

class MountChanges {
 public:
  // Changes count from now on. Throws std::system_error where there is no table.
  MountChanges();

  // Whether there were changes since the last call. Whoever reads the table after it has seen them.
  bool any();
  // Readable as POLLPRI (never as POLLIN) after a change. Who is told so by a poll of their own has
  // been told: any() then knows no more of it.
  int fd() const { return fd_.get(); }

 private:
  UniqueFd fd_;
};

}  // namespace kddc
