// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/detached_folder.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>

#include "platform/exceptions.h"
#include "platform/identity.h"
#include "platform/mount_info.h"

namespace kddc {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
constexpr int kWayFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), "cannot open " + path);
}

std::string pathOf(int fd) {
  std::array<char, PATH_MAX> path;
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = readlink(link.c_str(), path.data(), path.size());
  return {path.data(), length < 0 ? 0 : static_cast<std::size_t>(length)};
}

int mountIdOf(int fd) {
  struct statx status {};
  if (statx(fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &status) != 0) return 0;
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

bool same(const fsf_fid& a, const fsf_fid& b) {
  return std::memcmp(a.data, b.data, sizeof a.data) == 0;
}

}  // namespace

DetachedFolder::DetachedFolder(const std::string& path) {
  UniqueFd visible(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!visible) fail(path);
  path_ = pathOf(visible.get());
  mount_ = mountIdOf(visible.get());
  tree_.reset(open_tree(visible.get(), "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_EMPTY_PATH));
  fd_.reset(openat((tree_ ? tree_ : visible).get(), ".", kFolderFlags));
  if (!fd_) fail(path);
  visible.reset();  // keeps the mount busy
  readCovered();
}

UniqueFd DetachedFolder::open() const {
  return UniqueFd(openat(fd(), ".", kFolderFlags));
}

void DetachedFolder::readCovered() {
  std::vector<CoveredPlace> covered;
  bool stands = false;
  try {
    for (const MountInfo& mount : readMountInfo()) {
      stands = stands || mount.id == mount_;
      if (mount.parent != mount_ || mount.mountPoint == path_ ||
          !isAtOrBelow(mount.mountPoint, path_))
        continue;
      const std::size_t above = path_ == "/" ? 1 : path_.size() + 1;
      if (auto place = placeAt(fd(), std::string_view(mount.mountPoint).substr(above)))
        covered.push_back(*std::move(place));
    }
  } catch (const KdException&) {
    return;
  }
  if (stands) covered_ = std::move(covered);
}

const CoveredPlace* findCovered(const std::vector<CoveredPlace>& places, const fsf_fid& folder,
                                std::string_view name) {
  const auto found = std::ranges::find_if(places, [&](const CoveredPlace& place) {
    return place.name == name && same(place.folder, folder);
  });
  return found == places.end() ? nullptr : &*found;
}

}  // namespace kddc
