// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The mounts of this process as the kernel numbers them. Private.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kddc {

struct MountInfo {
  int id;        // as statx and name_to_handle_at give it
  dev_t device;  // of the file system; where that is anonymous, files may show others
  std::string mountPoint;
  std::string fsType;
  bool isLocal;  // holds files of this host: neither on the network nor made up
};

// Reads /proc/self/mountinfo. KdException when that fails.
std::vector<MountInfo> readMountInfo();

}  // namespace kddc
