// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What stands at a path: the same folder on the same mount as before, or another one. A volume
// whose disk was unmounted leaves the empty folder below it at its path, and another disk may come.
//
// Threads: any. Failures: none; where nothing can be seen, nothing stands.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

namespace kddc {

struct VolumePlace {
  std::uint64_t mount = 0;  // another number with every mounting
  dev_t device = 0;
  std::uint64_t file = 0;
  bool isMountRoot = false;

  friend bool operator==(const VolumePlace&, const VolumePlace&) = default;
};

// None when there is no folder. Does not wait for what is mounted on demand.
std::optional<VolumePlace> placeOf(const std::string& path);

}  // namespace kddc
