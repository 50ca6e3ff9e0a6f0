// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The mounts of this process as the kernel numbers them. Private.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kddc {

inline constexpr const char* kMountInfo = "/proc/self/mountinfo";

struct MountInfo {
  int id = 0;        // as statx and name_to_handle_at give it
  int parent = 0;    // the id of the mount that it is mounted on, which the table need not hold
  dev_t device = 0;  // of the file system; where that is anonymous, files may show others
  std::string source = {};  // what is mounted, such as "/dev/sda1"
  std::string mountPoint = {};
  std::string fsType = {};
  bool isLocal = false;  // holds files of this host: neither on the network nor made up
  bool mayHang = false;  // a look at it may wait for a server, or have something mounted
};

// Reads the table, or another file of its form. KdException when that fails.
std::vector<MountInfo> readMountInfo(const std::string& file = kMountInfo);

// The mount that `path` leads to, which must be absolute and without symbolic links; none when no
// mount of the table holds it. Asks the table alone, so no server that is dead can hold it up.
const MountInfo* mountOf(const std::vector<MountInfo>& mounts, const std::string& path);

// The type of the file system that `path` lies on, for a message: "of unknown type" when it cannot
// be told. Never fails.
std::string fsTypeForPeople(const std::string& path, bool followLinks = true);

// Whether `path` is `folder`, or lies below it.
bool isAtOrBelow(const std::string& path, const std::string& folder);

}  // namespace kddc
