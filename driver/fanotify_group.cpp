// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The steps of finding out go from what says most about a file system to what says least: a mark
// that is refused may mean many things.
#include "driver/fanotify_group.h"

#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/detached_folder.h"
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

// Not even for a moment may the volume be kept from being unmounted.
DetachedFolder openRoot(const std::string& path) {
  try {
    return DetachedFolder(path);
  } catch (const std::system_error& e) {
    refuse(path, errnoText(e.code().value()));
  }
}

void requireHandles(const std::string& path, int root) {
  fsf_fid fid{};
  const int named = identify(root, fid);
  if (named == -EOVERFLOW)
    refuseForGood(path, "the file handles of its file system (" + fsTypeForPeople(path) +
                            ") are longer than 20 bytes");
  if (named == -EOPNOTSUPP)
    refuseForGood(path, "its file system (" + fsTypeForPeople(path) + ") gives no file handles");
  if (named < 0) refuse(path, errnoText(-named));
  const UniqueFd again(openByFid(root, fid, O_PATH));  // keeps the errno in place of a descriptor
  if (again) return;
  if (again.get() == -EPERM)
    refuse(path, "that needs the capability CAP_DAC_READ_SEARCH; run it as root");
  refuseForGood(
      path, "the file handles of its file system (" + fsTypeForPeople(path) + ") cannot be opened");
}

// Events tell their file system by this number. One that has none is refused a mark, with an errno
// that may mean many things.
void requireFsid(const std::string& path, int root) {
  struct statfs fs {};
  if (fstatfs(root, &fs) != 0) refuse(path, errnoText(errno));
  const fsid_t none{};
  if (std::memcmp(&fs.f_fsid, &none, sizeof none) == 0)
    refuseForGood(path,
                  "its file system (" + fsTypeForPeople(path) + ") has no number to tell it by");
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

unsigned int flagsFor(EventQueue queue) {
  return kReport | (queue == EventQueue::kUnlimited ? FAN_UNLIMITED_QUEUE : 0);
}

bool markChanges(int group, int root) {
  return fanotify_mark(group, FAN_MARK_ADD | FAN_MARK_FILESYSTEM, kChanges, root, nullptr) == 0;
}

bool isGroup(int fd) {
  std::error_code error;
  const auto what = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
  return what == "anon_inode:[fanotify]";
}

// What the kernel tells of a group: a line for it, and one for each mark.
std::vector<std::string> describe(int group) {
  std::ifstream file("/proc/self/fdinfo/" + std::to_string(group));
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);)
    if (line.starts_with("fanotify ")) lines.push_back(line);
  return lines;
}

// The kernel adds a bit of its own to the mask.
bool isOurMark(const std::string& line) {
  unsigned int device = 0, flags = 0, ignored = 0;
  std::uint64_t mask = 0;
  constexpr char kForm[] = "fanotify sdev:%x mflags:%x mask:%" SCNx64 " ignored_mask:%x";
  return std::sscanf(line.c_str(), kForm, &device, &flags, &mask, &ignored) == 4 && flags == 0 &&
         ignored == 0 && (mask & ~std::uint64_t{FAN_EVENT_ON_CHILD}) == kChanges;
}

bool isMadeLikeOurs(int group, EventQueue queue) {
  unsigned int flags = 0;
  const std::vector<std::string> lines = describe(group);
  return !lines.empty() && std::sscanf(lines[0].c_str(), "fanotify flags:%x", &flags) == 1 &&
         flags == flagsFor(queue) && (fcntl(group, F_GETFL) & O_NONBLOCK) != 0;
}

}  // namespace

FanotifyGroup::FanotifyGroup(const std::string& path, EventQueue queue, UniqueFd kept)
    : fd_(std::move(kept)) {
  const DetachedFolder root = openRoot(path);
  requireHandles(path, root.fd());
  requireFsid(path, root.fd());
  if (fd_) return;
  fd_.reset(fanotify_init(flagsFor(queue), O_RDONLY | O_CLOEXEC));
  if (!fd_) refuse(path, whyNoGroup(errno));
  if (markChanges(fd_.get(), root.fd())) return;
  const int error = errno;
  refuse(path, whyNoMark(error, fsTypeForPeople(path)));
}

// Whether its one mark is on that file system is found out by marking it again, which changes
// nothing then, and adds a mark otherwise. The numbers do not tell: what the kernel names here is
// the superblock's device, and on Btrfs no file has that one.
std::string FanotifyGroup::whyNotKept(int fd, const std::string& path, EventQueue queue) {
  if (!isGroup(fd)) return "it is no queue of changes";
  if (!isMadeLikeOurs(fd, queue)) return "its settings are others";
  const std::vector<std::string> before = describe(fd);
  if (before.size() == 1) return "it follows nothing any more";
  if (before.size() > 2 || !isOurMark(before[1])) return "it follows something else";
  if (!markChanges(fd, openRoot(path).fd())) return errnoText(errno);
  return describe(fd) == before ? "" : "it follows another file system";
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

// A kernel built without these lines tells of no marks at all, which means nothing.
bool FanotifyGroup::hasMark() const {
  std::ifstream lines("/proc/self/fdinfo/" + std::to_string(fd_.get()));
  bool tellsOfMarks = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("fanotify sdev:")) return true;
    tellsOfMarks = tellsOfMarks || line.starts_with("fanotify ");
  }
  return !tellsOfMarks;
}

void FanotifyGroup::unmark() {
  if (fanotify_mark(fd_.get(), FAN_MARK_FLUSH | FAN_MARK_FILESYSTEM, 0, AT_FDCWD, nullptr) != 0)
    throw std::system_error(errno, std::generic_category(), "cannot end the kernel's events");
}

}  // namespace kddc
