// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The mount table of the host, and where the catalogue of a shared volume is to be found again.
//
// Threads: every call may come from any thread. Failures: KdException.
#pragma once

#include <string>
#include <vector>

#include "platform/export.h"

struct KdMntEntry {
  std::string device;      // what is mounted, such as "/dev/sda1" or "tmpfs"
  std::string mountPoint;  // where, with the table's escapes ("\040" for a blank) undone
  std::string fsType;      // such as "ext4"
};

class KDDC_API KdMntTab {
 public:
  // Every entry in the table's order, which is the order of mounting: of two entries with one mount
  // point the later one covers the earlier. KdException when the table cannot be read whole.
  static std::vector<KdMntEntry> getAll();
  // Reads the table from another file of the same form, for the whole process; an empty path goes
  // back to "/proc/self/mounts".
  static void SetSource(std::string path);
};

// The catalogue folder to reuse for a shared volume after a fail-over: the value of the key
// `mountPoint` in section "FailOver" of the settings. False, and `path` left as it was, when there
// is none. A mount point that holds "=" or ":" cannot be a key and so has none.
KDDC_API bool GetFailOverDbPath(const char* mountPoint, std::string& path);
