// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// libmount reads both forms of the table: the public one, of devices and mount points, and the
// kernel's numbered one, which the rest of this layer asks.
#include "platform/mount_table.h"

#include <fcntl.h>
#include <libmount/libmount.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <utility>

#include "platform/failure.h"
#include "platform/mount_info.h"
#include "platform/platform_info.h"

namespace {

constexpr const char* kDefaultSource = "/proc/self/mounts";

// Tests, and hosts with a table of their own, name another file.
struct Source {
  std::mutex mutex;
  std::string path = kDefaultSource;
};

Source& source() {
  static Source instance;
  return instance;
}

std::string sourcePath() {
  const std::lock_guard lock(source().mutex);
  return source().path;
}

std::string textOrEmpty(const char* text) {
  return text == nullptr ? "" : text;
}

struct BadLine {
  int number = 0;

  // Called by libmount, which would otherwise drop the line and go on.
  static int note(libmnt_table* table, const char*, int number) noexcept {
    static_cast<BadLine*>(mnt_table_get_userdata(table))->number = number;
    return -EINVAL;
  }
};

// Calls `take` with every entry of the table in `path`.
template <class Take>
void forEachMount(const std::string& path, Take take) {
  const std::unique_ptr<libmnt_table, decltype(&mnt_unref_table)> table(mnt_new_table(),
                                                                        mnt_unref_table);
  const std::unique_ptr<libmnt_iter, decltype(&mnt_free_iter)> iter(mnt_new_iter(MNT_ITER_FORWARD),
                                                                    mnt_free_iter);
  if (!table || !iter) throw std::bad_alloc();
  BadLine bad;
  mnt_table_set_userdata(table.get(), &bad);
  mnt_table_set_parser_errcb(table.get(), BadLine::note);
  const int error = mnt_table_parse_file(table.get(), path.c_str());
  if (bad.number != 0)
    kddc::failKd("KdMntTab :: getAll",
                 path + ":" + std::to_string(bad.number) + ": this line is no mount entry", EINVAL);
  if (error != 0)
    kddc::failKd("KdMntTab :: getAll",
                 "cannot read the mount table " + path + ": " + kddc::errnoText(-error), -error);
  libmnt_fs* fs = nullptr;
  while (mnt_table_next_fs(table.get(), iter.get(), &fs) == 0) take(fs);
}

// A server behind FUSE may be as dead as one behind a network file system.
bool hasServer(libmnt_fs* fs) {
  return mnt_fs_is_netfs(fs) != 0 || textOrEmpty(mnt_fs_get_fstype(fs)).starts_with("fuse");
}
bool isLocal(libmnt_fs* fs) {
  return !hasServer(fs) && mnt_fs_is_pseudofs(fs) == 0;
}
bool mayHang(libmnt_fs* fs) {
  return hasServer(fs) || textOrEmpty(mnt_fs_get_fstype(fs)) == "autofs";
}

}  // namespace

std::vector<KdMntEntry> KdMntTab::getAll() {
  std::vector<KdMntEntry> entries;
  forEachMount(sourcePath(), [&](libmnt_fs* fs) {
    entries.push_back({textOrEmpty(mnt_fs_get_source(fs)), textOrEmpty(mnt_fs_get_target(fs)),
                       textOrEmpty(mnt_fs_get_fstype(fs))});
  });
  return entries;
}

void KdMntTab::SetSource(std::string path) {
  if (path.empty()) path = kDefaultSource;
  const std::lock_guard lock(source().mutex);
  source().path = std::move(path);
}

bool GetFailOverDbPath(const char* mountPoint, std::string& path) {
  return KDPlatformInfo::getString("FailOver", mountPoint, &path) != 0;
}

namespace kddc {

std::vector<MountInfo> readMountInfo(const std::string& file) {
  std::vector<MountInfo> mounts;
  forEachMount(file, [&](libmnt_fs* fs) {
    mounts.push_back({mnt_fs_get_id(fs), mnt_fs_get_parent_id(fs), mnt_fs_get_devno(fs),
                      textOrEmpty(mnt_fs_get_source(fs)), textOrEmpty(mnt_fs_get_target(fs)),
                      textOrEmpty(mnt_fs_get_fstype(fs)), isLocal(fs), mayHang(fs)});
  });
  return mounts;
}

std::string fsTypeForPeople(const std::string& path, bool followLinks) {
  struct statx status {};
  const int flags = AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC | (followLinks ? 0 : AT_SYMLINK_NOFOLLOW);
  if (::statx(AT_FDCWD, path.c_str(), flags, STATX_MNT_ID, &status) != 0) return "of unknown type";
  try {
    for (const MountInfo& mount : readMountInfo())
      if (static_cast<unsigned long long>(mount.id) == status.stx_mnt_id) return mount.fsType;
  } catch (const KdException&) {
  }
  return "of unknown type";
}

bool isAtOrBelow(const std::string& path, const std::string& folder) {
  if (folder == "/") return path.starts_with('/');
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

// The way the kernel goes: from mount to mount, over the first mount point on the way. The longest
// mount point may lie hidden below another mount. Of several at one place the last covers the
// others.
const MountInfo* mountOf(const std::vector<MountInfo>& mounts, const std::string& path) {
  std::set<int> known;
  for (const MountInfo& mount : mounts) known.insert(mount.id);
  const auto isNext = [&](const MountInfo& mount, const MountInfo* at) {
    if (!isAtOrBelow(path, mount.mountPoint)) return false;
    if (at) return mount.parent == at->id && mount.id != at->id;
    return mount.parent == mount.id || !known.contains(mount.parent);
  };
  const MountInfo* at = nullptr;
  for (std::size_t steps = 0; steps < mounts.size(); ++steps) {
    const MountInfo* next = nullptr;
    for (const MountInfo& mount : mounts)
      if (isNext(mount, at) && (!next || mount.mountPoint.size() <= next->mountPoint.size()))
        next = &mount;
    if (!next) break;
    at = next;
  }
  return at;
}

}  // namespace kddc
