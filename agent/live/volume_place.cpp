// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/volume_place.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace kddc {

std::optional<VolumePlace> placeOf(const std::string& path) {
  struct statx status;
  constexpr unsigned kWanted = STATX_TYPE | STATX_INO | STATX_MNT_ID;
  if (statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, kWanted, &status) != 0 ||
      !S_ISDIR(status.stx_mode))
    return std::nullopt;
  return VolumePlace{status.stx_mnt_id, makedev(status.stx_dev_major, status.stx_dev_minor),
                     status.stx_ino, (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0};
}

}  // namespace kddc
