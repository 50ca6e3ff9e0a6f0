// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The steps of finding out go from what says most about a file system to what says least: a mark
// that is refused may mean many things.
#include "driver/fanotify_group.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

#include "platform/exceptions.h"
#include "platform/failure.h"
#include "platform/file_handle.h"
#include "platform/mount_info.h"

namespace kddc {
namespace {

constexpr unsigned int kReport =
    FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME_TARGET | FAN_NONBLOCK | FAN_CLOEXEC;
constexpr std::uint64_t kChanges = FAN_CREATE | FAN_DELETE | FAN_RENAME | FAN_ATTRIB | FAN_MODIFY |
                                   FAN_CLOSE_WRITE | FAN_DELETE_SELF | FAN_MOVE_SELF |
                                   FAN_FS_ERROR | FAN_ONDIR;

[[noreturn]] void refuse(const std::string& path, const std::string& why) {
  throw CannotWatch("cannot watch " + path + ": " + why);
}

// For what no right and no setting can change.
[[noreturn]] void refuseForGood(const std::string& path, const std::string& why) {
  refuse(path, why + "; kddc scan and kddc rescan work there");
}

// Only for a message, so it never fails.
std::string fsTypeAt(int fd) {
  struct statx status {};
  if (statx(fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &status) != 0) return "of unknown type";
  try {
    for (const MountInfo& mount : readMountInfo())
      if (static_cast<unsigned long long>(mount.id) == status.stx_mnt_id) return mount.fsType;
  } catch (const KdException&) {
  }
  return "of unknown type";
}

UniqueFd openRoot(const std::string& path) {
  UniqueFd root(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) refuse(path, errnoText(errno));
  return root;
}

void requireHandles(const std::string& path, int root) {
  fsf_fid fid{};
  const int named = identify(root, fid);
  if (named == -EOVERFLOW)
    refuseForGood(path, "the file handles of its file system (" + fsTypeAt(root) +
                            ") are longer than 20 bytes");
  if (named == -EOPNOTSUPP)
    refuseForGood(path, "its file system (" + fsTypeAt(root) + ") gives no file handles");
  if (named < 0) refuse(path, errnoText(-named));
  const UniqueFd again(openByFid(root, fid, O_PATH));
  if (again) return;
  if (again.get() == -EPERM)
    refuse(path, "that needs the capability CAP_DAC_READ_SEARCH; run it as root");
  refuseForGood(path,
                "the file handles of its file system (" + fsTypeAt(root) + ") cannot be opened");
}

void requireFsid(const std::string& path, int root) {
  struct statfs fs {};
  if (fstatfs(root, &fs) != 0) refuse(path, errnoText(errno));
  const fsid_t none{};
  if (std::memcmp(&fs.f_fsid, &none, sizeof none) == 0)
    refuseForGood(path, "its file system (" + fsTypeAt(root) + ") has no number to tell it by");
}

std::string whyNoGroup(int error) {
  switch (error) {
    case EPERM:
      return "that needs the capability CAP_SYS_ADMIN; run it as root, outside of any user "
             "namespace";
    case EINVAL:
    case ENOSYS:
      return "that needs Linux 5.17 or newer with fanotify; kddc scan and kddc rescan work there";
    case EMFILE:
      return "too many watchers; raise fs.fanotify.max_user_groups or the limit of open files";
    default:
      return errnoText(error);
  }
}

std::string whyNoMark(int error, const std::string& fsType) {
  switch (error) {
    case EXDEV:
      return "a Btrfs subvolume cannot be watched by itself; watch the file system's top level "
             "(mount it with subvolid=5); kddc scan and kddc rescan work there";
    case EOPNOTSUPP:
    case ENODEV:
    case EINVAL:
      return "its file system (" + fsType +
             ") cannot be watched; kddc scan and kddc rescan work there";
    case ENOSPC:
      return "too many marks; raise fs.fanotify.max_user_marks";
    default:
      return errnoText(error);
  }
}

}  // namespace

FanotifyGroup::FanotifyGroup(const std::string& path, EventQueue queue) {
  const UniqueFd root = openRoot(path);
  requireHandles(path, root.get());
  requireFsid(path, root.get());
  const unsigned int limit = queue == EventQueue::kUnlimited ? FAN_UNLIMITED_QUEUE : 0;
  fd_.reset(fanotify_init(kReport | limit, O_RDONLY | O_CLOEXEC));
  if (!fd_) refuse(path, whyNoGroup(errno));
  if (fanotify_mark(fd_.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, kChanges, root.get(), nullptr) ==
      0)
    return;
  const int error = errno;
  refuse(path, whyNoMark(error, fsTypeAt(root.get())));
}

std::size_t FanotifyGroup::read(std::span<unsigned char> buffer) {
  for (;;) {
    const ssize_t length = ::read(fd_.get(), buffer.data(), buffer.size());
    if (length >= 0) return static_cast<std::size_t>(length);
    if (errno == EAGAIN) return 0;
    if (errno != EINTR)
      throw std::system_error(errno, std::generic_category(), "cannot read the kernel's events");
  }
}

// The kernel answers with the bytes of the events' heads alone.
std::size_t FanotifyGroup::queued() const {
  int bytes = 0;
  if (ioctl(fd_.get(), FIONREAD, &bytes) != 0)
    throw std::system_error(errno, std::generic_category(), "cannot ask for the kernel's events");
  return static_cast<std::size_t>(bytes) / FAN_EVENT_METADATA_LEN;
}

void FanotifyGroup::unmark() {
  if (fanotify_mark(fd_.get(), FAN_MARK_FLUSH | FAN_MARK_FILESYSTEM, 0, AT_FDCWD, nullptr) != 0)
    throw std::system_error(errno, std::generic_category(), "cannot end the kernel's events");
}

}  // namespace kddc
