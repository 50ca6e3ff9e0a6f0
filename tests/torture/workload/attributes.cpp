// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Operations that change what stat tells of files and folders, or their extended attributes.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <limits>

#include "tests/torture/workload/operations.h"

namespace kddc::torture {
namespace {

// Any entry at all, by its path, which stands for it even when it is a link or bears a new name.
struct Target {
  explicit Target(Worker& w) : place(w.existing(Kind::kAny, Kept::kToo)) {
    fd.reset(openat(place.folder.get(), place.name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    path = fd ? pathOf(fd.get()) : std::string();
  }
  Place place;
  UniqueFd fd;
  std::string path;
};

void changeMode(Worker& w) {
  const mode_t needed = geteuid() == 0 ? 0 : 0700;
  const Target target(w);
  if (chmod(target.path.c_str(), needed | static_cast<mode_t>(w.random.below(010000))) != 0) return;
}

void changeOwner(Worker& w) {
  static constexpr uid_t kOwners[] = {0,     1,          501,
                                      65534, 4000000000, std::numeric_limits<uid_t>::max()};
  const Target target(w);
  if (fchownat(target.fd.get(), "", w.random.pick(kOwners), w.random.pick(kOwners),
               AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0)
    return;
}

void changeTimes(Worker& w) {
  static constexpr timespec kTimes[] = {{0, UTIME_NOW},  {0, UTIME_OMIT}, {-1, 0},
                                        {1, 0},          {1000000000, 7}, {2147483647, 0},
                                        {2147483648, 0}, {4294967295, 1}, {4294967296, 0}};
  const Place at = w.existing(Kind::kAny, Kept::kToo);
  // Half of the time the access time stays, of which the kernel tells in another way.
  const timespec times[2] = {w.random.oneIn(2) ? kTimes[1] : w.random.pick(kTimes),
                             w.random.pick(kTimes)};
  utimensat(at.folder.get(), at.name.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

void setAttribute(Worker& w) {
  const Target target(w);
  const std::string value(w.random.below(200), 'v');
  setxattr(target.path.c_str(), "user.torture", value.data(), value.size(), 0);
}

void removeAttribute(Worker& w) {
  removexattr(Target(w).path.c_str(), "user.torture");
}

// The mask becomes the group's part of the mode.
void setAcl(Worker& w) {
  struct Line {
    std::uint16_t tag, permissions;
    std::uint32_t id;
  };
  struct Acl {
    std::uint32_t version;
    Line lines[5];
  };
  constexpr std::uint32_t kNobody = std::numeric_limits<std::uint32_t>::max();
  const auto mask = static_cast<std::uint16_t>(w.random.below(8));
  const Acl acl{2,
                {{0x01, 6, kNobody},
                 {0x02, 7, 501},
                 {0x04, 5, kNobody},
                 {0x10, mask, kNobody},
                 {0x20, 4, kNobody}}};
  setxattr(Target(w).path.c_str(), "system.posix_acl_access", &acl, sizeof acl, 0);
}

}  // namespace

std::span<const Operation> attributeOperations() {
  static constexpr Operation kOperations[] = {
      {15, changeMode},  {12, changeOwner},    {20, changeTimes},
      {8, setAttribute}, {5, removeAttribute}, {8, setAcl},
  };
  return kOperations;
}

}  // namespace kddc::torture
