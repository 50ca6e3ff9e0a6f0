// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/detached_folder.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>

#include "platform/identity.h"
#include "platform/mount_info.h"

namespace kddc {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kWayFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), "cannot open " + path);
}

std::string withoutLinks(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr),
                                                         std::free);
  if (!real) fail(path);
  return real.get();
}

int mountIdOf(const std::string& path) {
  struct statx status {};
  if (statx(AT_FDCWD, path.c_str(), AT_NO_AUTOMOUNT, STATX_MNT_ID, &status) != 0) fail(path);
  return static_cast<int>(status.stx_mnt_id);
}

// The place at the end of that way down from `root`. One step at a time: a way may be longer than
// the kernel takes paths, and may by now lead over a symbolic link. Where the way leads to what is
// mounted, nothing is hidden from us.
std::optional<CoveredPlace> placeAt(int root, std::string_view way) {
  UniqueFd folder(openat(root, ".", kWayFlags));
  std::size_t slash;
  for (; folder && (slash = way.find('/')) != way.npos; way.remove_prefix(slash + 1))
    folder.reset(openat(folder.get(), std::string(way.substr(0, slash)).c_str(), kWayFlags));
  CoveredPlace place{{}, std::string(way), {}};
  Identity above, hidden;
  if (!folder || identityOf(folder.get(), above) < 0 ||
      identityOf(folder.get(), place.name.c_str(), hidden) < 0 || hidden.isMountRoot)
    return {};
  place.folder = above.fid;
  place.fid = hidden.fid;
  return place;
}

// The order and equality of identifiers belong to the layer above.
bool same(const fsf_fid& a, const fsf_fid& b) {
  return std::memcmp(a.data, b.data, sizeof a.data) == 0;
}

}  // namespace

// By path, step by step: a descriptor, however short its life, could make an umount fail. Until the
// same mount was seen before and after: what is held is then what stood there.
DetachedFolder::DetachedFolder(const std::string& path) : path_(withoutLinks(path)) {
  for (int before = -1; before != mount_;) {
    before = mountIdOf(path_);
    tree_.reset(open_tree(AT_FDCWD, path_.c_str(), OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC));
    fd_.reset(tree_ ? openat(tree_.get(), ".", kFolderFlags) : ::open(path_.c_str(), kFolderFlags));
    if (!fd_) fail(path);
    mount_ = mountIdOf(path_);
  }
}

UniqueFd DetachedFolder::open() const {
  return UniqueFd(openat(fd(), ".", kFolderFlags));
}

std::optional<std::vector<CoveredPlace>> DetachedFolder::covered() const {
  const std::vector<MountInfo> mounts = readMountInfo();
  // Of a process whose root is no mount, the table leaves out the one that this lies on.
  const MountInfo* visible = mountOf(mounts, path_);
  if (visible && visible->id != mount_) return {};
  const std::size_t above = path_ == "/" ? 1 : path_.size() + 1;
  std::vector<CoveredPlace> places;
  for (const MountInfo& mount : mounts) {
    const bool isBelow = isAtOrBelow(mount.mountPoint, path_) && mount.mountPoint != path_;
    if (mount.parent != mount_ || !isBelow) continue;
    if (auto place = placeAt(fd(), std::string_view(mount.mountPoint).substr(above)))
      places.push_back(*std::move(place));
  }
  return places;
}

const CoveredPlace* findCovered(const std::vector<CoveredPlace>& places, const fsf_fid& folder,
                                std::string_view name) {
  const auto found = std::ranges::find_if(places, [&](const CoveredPlace& place) {
    return place.name == name && same(place.folder, folder);
  });
  return found == places.end() ? nullptr : &*found;
}

}  // namespace kddc
