// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A record names a file by device number and identifier, so the file is reached without a path:
// some mount of the device, then the handle. Nothing but a mount point's folder is opened for real:
// opening a stub could bring its data back, opening a FIFO or a device could block or act.
#include "platform/hsm.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <string_view>
#include <utility>

#include "platform/failure.h"
#include "platform/file_handle.h"
#include "platform/mount_info.h"
#include "platform/platform_info.h"
#include "platform/stub_attribute.h"
#include "platform/unique_fd.h"

namespace {

constexpr std::array<std::string_view, 4> kNamespaces = {"trusted.", "user.", "security.",
                                                         "system."};

struct SharedProbe {
  std::mutex mutex;
  RQHSMLowLevelRQFS::Probe probe;
};

SharedProbe& sharedProbe() {
  static SharedProbe instance;
  return instance;
}

RQHSMLowLevelRQFS::Probe currentProbe() {
  const std::lock_guard lock(sharedProbe().mutex);
  return sharedProbe().probe;
}

// The folder at `path`, when it lies on the device; else none.
kddc::UniqueFd openFolderOn(unsigned long long devt, const std::string& path) {
  kddc::UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat st {};
  if (folder && (::fstat(folder.get(), &st) != 0 || st.st_dev != devt)) folder.reset();
  return folder;
}

unsigned long long deviceAt(const std::string& path) {
  struct statx status {};
  if (::statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC, 0, &status) != 0)
    return 0;
  return ::makedev(status.stx_dev_major, status.stx_dev_minor);
}

// Whether the mount may hold the device. The table tells it for most; where its number is
// anonymous, as with subvolumes, the files show another one. Only local file systems are asked
// then: a dead server would hold the caller.
bool mayHold(const kddc::MountInfo& mount, unsigned long long devt) {
  if (mount.device == devt) return true;
  return ::major(mount.device) == 0 && mount.isLocal && deviceAt(mount.mountPoint) == devt;
}

}  // namespace

int RQHSMLowLevelRQFS::isStub(unsigned long long devt, const fsf_fid& fid) {
  // A copy, so that the probe may be replaced, and may itself take its time, meanwhile.
  if (const Probe probe = currentProbe()) return probe(devt, fid);
  if (attribute_.empty()) attribute_ = kddc::stubAttribute();
  const kddc::UniqueFd mount(openMount(devt));
  if (!mount) return -ENODEV;
  const int opened = kddc::openByFid(mount.get(), fid, O_PATH);
  if (opened < 0) return opened;
  const kddc::UniqueFd file(opened);
  return kddc::carriesStubAttribute(file.get(), attribute_);
}

int RQHSMLowLevelRQFS::openMount(unsigned long long devt) {
  // The known mount point may have been unmounted or covered since.
  if (const auto known = mountPoints_.find(devt); known != mountPoints_.end()) {
    if (auto folder = openFolderOn(devt, known->second)) return folder.release();
    mountPoints_.erase(known);
  }
  for (const kddc::MountInfo& mount : kddc::readMountInfo()) {
    if (!mayHold(mount, devt)) continue;
    if (auto folder = openFolderOn(devt, mount.mountPoint)) {
      mountPoints_[devt] = mount.mountPoint;
      return folder.release();
    }
  }
  return -1;
}

RQHSMLowLevelRQFS::Probe RQHSMLowLevelRQFS::SetProbe(Probe probe) {
  const std::lock_guard lock(sharedProbe().mutex);
  return std::exchange(sharedProbe().probe, std::move(probe));
}

std::string kddc::stubAttribute() {
  std::string name = "trusted.hsm.stub";
  KDPlatformInfo::getString("DataClassification", "StubAttribute", &name);
  const bool isName = std::ranges::any_of(kNamespaces, [&](std::string_view space) {
    return name.starts_with(space) && name.size() > space.size();
  });
  // The kernel would call any other name an attribute that no file has.
  if (!isName)
    failKd("RQHSMLowLevelRQFS :: isStub",
           "\"StubAttribute\" of section [DataClassification] must name an extended attribute, "
           "such as trusted.hsm.stub or user.stub, not \"" +
               name + "\"",
           -1);
  return name;
}

int kddc::carriesStubAttribute(int fd, const std::string& attribute) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) return -errno;
  return S_ISREG(st.st_mode) ? regularCarriesStubAttribute(fd, attribute) : 0;
}

int kddc::regularCarriesStubAttribute(int fd, const std::string& attribute) {
  // fgetxattr refuses O_PATH descriptors; the way through /proc does not.
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (::getxattr(path.c_str(), attribute.c_str(), nullptr, 0) >= 0) return 1;
  return errno == ENODATA || errno == EOPNOTSUPP ? 0 : -errno;
}

bool RQHSMServiceHelper::IsFSFDriverLoaded() {
  const kddc::UniqueFd group(::fanotify_init(FAN_CLASS_NOTIF | FAN_CLOEXEC | FAN_NONBLOCK |
                                                 FAN_UNLIMITED_QUEUE | FAN_REPORT_DFID_NAME_TARGET,
                                             O_RDONLY));
  if (!group) return false;
  // For the newest kind of event that a follower needs. The mark goes with the group. Rights are
  // checked first, so another refusal is about "/" alone.
  const int marked = ::fanotify_mark(group.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM,
                                     FAN_RENAME | FAN_ONDIR, AT_FDCWD, "/");
  if (marked != 0 && errno != EXDEV && errno != ENODEV && errno != EOPNOTSUPP) return false;
  // A handle of no file: whoever may open by handle hears anything but "not permitted".
  const kddc::UniqueFd root(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return root && kddc::openByFid(root.get(), fsf_fid{{1, 8}}, O_PATH) != -EPERM;
}
