// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>

#include "platform/file_handle.h"

namespace kddc {
namespace {

// FILEID_INVALID: a handle type that the kernel never gives.
constexpr unsigned char kNoHandle = 0xff;

void fill(struct stat& st, const struct statx& from) {
  st.st_dev = makedev(from.stx_dev_major, from.stx_dev_minor);
  st.st_rdev = makedev(from.stx_rdev_major, from.stx_rdev_minor);
  st.st_ino = from.stx_ino;
  st.st_mode = from.stx_mode;
  st.st_nlink = from.stx_nlink;
  st.st_uid = from.stx_uid;
  st.st_gid = from.stx_gid;
  st.st_size = static_cast<off_t>(from.stx_size);
  st.st_blksize = from.stx_blksize;
  st.st_blocks = static_cast<blkcnt_t>(from.stx_blocks);
  st.st_atim = {from.stx_atime.tv_sec, from.stx_atime.tv_nsec};
  st.st_mtim = {from.stx_mtime.tv_sec, from.stx_mtime.tv_nsec};
  st.st_ctim = {from.stx_ctime.tv_sec, from.stx_ctime.tv_nsec};
}

// File systems without usable handles can be scanned all the same, though not followed live.
fsf_fid substitute(const struct stat& st) {
  fsf_fid fid{};
  fid.data[0] = kNoHandle;
  fid.data[1] = sizeof st.st_ino;
  std::memcpy(fid.data + 4, &st.st_ino, sizeof st.st_ino);
  return fid;
}

int identityAt(int fd, const char* name, int flags, Identity& identity) {
  struct statx status;
  if (statx(fd, name, flags | AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS, &status) != 0)
    return -errno;
  fill(identity.st, status);
  identity.isMountRoot = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
  const bool itself = (flags & AT_EMPTY_PATH) != 0;
  const int result = itself ? identify(fd, identity.fid) : identify(fd, name, identity.fid);
  if (result != -EOPNOTSUPP && result != -EOVERFLOW) return result;
  identity.fid = substitute(identity.st);
  return 0;
}

}  // namespace

int identityOf(int fd, Identity& identity) {
  return identityAt(fd, "", AT_EMPTY_PATH, identity);
}

int identityOf(int folder, const char* name, Identity& identity) {
  return identityAt(folder, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, identity);
}

}  // namespace kddc
