// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/mount_changes.h"

#include <fcntl.h>
#include <poll.h>

#include <cerrno>
#include <system_error>

#include "platform/mount_info.h"

namespace kddc {

MountChanges::MountChanges() : fd_(open(kMountInfo, O_RDONLY | O_CLOEXEC)) {
  if (!fd_) throw std::system_error(errno, std::generic_category(), "cannot read the mount table");
}

bool MountChanges::any() {
  pollfd table{fd_.get(), POLLPRI, 0};
  return poll(&table, 1, 0) > 0;
}

}  // namespace kddc
