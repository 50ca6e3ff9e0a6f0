// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/registry/disk_identity.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <bit>
#include <cstdint>
#include <memory>

#include "platform/unique_fd.h"

namespace kddc {
namespace {

using Probe = std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)>;

std::string valueOf(const Probe& probe, const char* name) {
  const char* value = nullptr;
  return blkid_probe_lookup_value(probe.get(), name, &value, nullptr) == 0 ? value : "";
}

// What a mount table calls the device is whatever the caller of mount(2) said.
bool isBlockDevice(const std::string& path, struct stat& st) {
  return path.starts_with('/') && stat(path.c_str(), &st) == 0 && S_ISBLK(st.st_mode);
}

// Empty unless that device is the one mounted there: it has the number that the files show or,
// where file systems number themselves (Btrfs), a file system of that type.
std::string uuidOf(const KdMntEntry& mount, dev_t device) {
  const UniqueFd fd(open(mount.device.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  const Probe probe(blkid_new_probe(), blkid_free_probe);
  if (!fd || !probe || blkid_probe_set_device(probe.get(), fd.get(), 0, 0) != 0) return "";
  blkid_probe_enable_superblocks(probe.get(), 1);
  blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_UUID | BLKID_SUBLKS_TYPE);
  struct stat root {};
  // Fails also where several file systems have left their marks: then nobody can say which it is.
  if (blkid_do_safeprobe(probe.get()) != 0 || stat(mount.mountPoint.c_str(), &root) != 0) return "";
  const bool isMounted = root.st_dev == device || valueOf(probe, "TYPE") == mount.fsType;
  return isMounted ? valueOf(probe, "UUID") : "";
}

std::string fsidOf(const std::string& mountPoint) {
  struct statfs status {};
  if (statfs(mountPoint.c_str(), &status) != 0) return "";
  const auto id = std::bit_cast<std::uint64_t>(status.f_fsid);
  return id == 0 ? "" : fmt::format("fsid:{:016x}", id);
}

}  // namespace

std::string identityOf(const KdMntEntry& mount) {
  struct stat device {};
  if (!isBlockDevice(mount.device, device)) return fsidOf(mount.mountPoint);
  const std::string uuid = uuidOf(mount, device.st_rdev);
  return uuid.empty() ? "" : "uuid:" + uuid;
}

bool areDifferent(const std::string& one, const std::string& other) {
  return !one.empty() && !other.empty() && one != other;
}

}  // namespace kddc
