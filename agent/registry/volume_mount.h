// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What stands at the path of a volume, and whether it is what stood there before.
//
// The mount table is asked first, so neither a server that is dead nor a place where something is
// mounted on demand is touched, be it elsewhere or at the path itself. No descriptor is held on
// what is looked at, which would keep it from being unmounted.
//
// Threads: any. Failures: KdException when the mount table cannot be read.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "platform/file_id.h"

namespace kddc {

struct VolumeMount {
  int id = 0;         // of the mount, as long as it stands: the kernel gives numbers again
  std::string place;  // its mount point: that of the volume, or a folder above
  dev_t device = 0;   // st_dev of the volume's root
  fsf_fid root{};     // the root's identifier
  std::string disk;   // the file system, see identityOf in disk_identity.h; empty: not known
};

// What stands at `path`, which must be absolute and without symbolic links. None: no folder, or one
// that cannot be watched anyway, such as that of a server.
//
// To find out which file system it is means to read its superblock. Give what was found before as
// `known` if the file system has been held open since: then nothing else can have got its numbers,
// and it is not asked again for as long as these are the same.
std::optional<VolumeMount> volumeMountAt(const std::string& path,
                                         const VolumeMount* known = nullptr);

// What was unmounted for good and mounted again may have all its numbers again. That it was not,
// the driver's mark tells (FanotifyGroup::hasMark).
enum class Standing {
  kSame,   // the same folder on the same mount
  kAgain,  // the same folder, mounted again
  kOther,  // another folder, or another file system
  kGone,   // there is nothing, or the place where it was mounted has nothing mounted on it
};

// A file system that is not known is taken for the one of before when its root has the same
// identifier.
Standing standingOf(const VolumeMount& before, const std::optional<VolumeMount>& now);

}  // namespace kddc
