// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/registry/volume_mount.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <vector>

#include "agent/registry/disk_identity.h"
#include "platform/file_handle.h"
#include "platform/mount_info.h"
#include "records/fsf_fid.h"

namespace kddc {
namespace {

constexpr int kTries = 10;

// What one look by path tells; a folder, or nothing.
struct Glance {
  int mount = -1;
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const Glance&) const = default;
};

std::optional<Glance> glanceAt(const std::string& path) {
  struct statx status {};
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
  if (statx(AT_FDCWD, path.c_str(), flags, STATX_TYPE | STATX_INO | STATX_MNT_ID, &status) != 0 ||
      !S_ISDIR(status.stx_mode))
    return {};
  return Glance{static_cast<int>(status.stx_mnt_id),
                makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
}

// None when it changed under our eyes.
std::optional<VolumeMount> look(const MountInfo& mount, const std::string& path,
                                const VolumeMount* known) {
  VolumeMount found;
  const auto before = glanceAt(path);
  if (!before || before->mount != mount.id) return {};
  if (identify(AT_FDCWD, path.c_str(), found.root) < 0) return {};
  found.id = mount.id;
  found.place = mount.mountPoint;
  found.device = before->device;
  const bool isKnown = known && known->id == found.id && known->device == found.device;
  found.disk = isKnown ? known->disk : identityOf({mount.source, mount.mountPoint, mount.fsType});
  if (glanceAt(path) != before) return {};
  return found;
}

}  // namespace

std::optional<VolumeMount> volumeMountAt(const std::string& path, const VolumeMount* known) {
  for (int tries = 0; tries < kTries; ++tries) {
    const std::vector<MountInfo> mounts = readMountInfo();
    const MountInfo* mount = mountOf(mounts, path);
    if (mount && mount->mayHang) return {};
    const auto glance = glanceAt(path);
    if (!glance) return {};
    // Of a process whose root is no mount, the table leaves out the one that this lies on.
    const MountInfo unlisted{.id = glance->mount, .mountPoint = "/"};
    if (auto found = look(mount ? *mount : unlisted, path, known)) return found;
  }
  return {};
}

Standing standingOf(const VolumeMount& before, const std::optional<VolumeMount>& now) {
  if (!now) return Standing::kGone;
  const bool isRoot = now->root == before.root;
  if (isRoot && now->device == before.device && !areDifferent(now->disk, before.disk))
    return now->id == before.id && now->place == before.place ? Standing::kSame : Standing::kAgain;
  if (!isAtOrBelow(now->place, before.place)) return Standing::kGone;
  return isRoot && !areDifferent(now->disk, before.disk) ? Standing::kAgain : Standing::kOther;
}

}  // namespace kddc
