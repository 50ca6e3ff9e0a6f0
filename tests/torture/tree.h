// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a tree on the disk holds, looked at entry by entry with nothing of the library in between.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/unique_fd.h"

namespace kddc::torture {

// What the catalogue promises to know of an entry.
struct Facts {
  int type = 0;  // as FILES.FILE_TYPE has it
  std::uint32_t mode = 0, uid = 0, gid = 0, nlink = 0;
  std::int64_t size = 0;    // of a symbolic link: the length of its text
  std::uint32_t mtime = 0;  // the low 32 bits of the seconds
  std::string fid;          // 48 hex digits
};

// By path below the root, whose own path is ".".
using Tree = std::map<std::string, Facts>;

[[noreturn]] inline void failAt(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

inline std::string hexOf(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += {kDigits[value >> 4], kDigits[value & 15]};
  }
  return text;
}

// The handle's type and length, two zeros, the handle and zeros up to 24 bytes.
inline std::string identifierOf(int fd) {
  constexpr unsigned kBytes = 24, kBefore = 4;
  alignas(file_handle) char room[sizeof(file_handle) + kBytes] = {};
  auto* handle = reinterpret_cast<file_handle*>(room);
  handle->handle_bytes = kBytes - kBefore;
  int mount = 0;
  if (name_to_handle_at(fd, "", handle, &mount, AT_EMPTY_PATH) != 0) failAt("name_to_handle_at");
  std::string bytes(kBytes, '\0');
  bytes[0] = static_cast<char>(handle->handle_type);
  bytes[1] = static_cast<char>(handle->handle_bytes);
  std::memcpy(bytes.data() + kBefore, room + sizeof(file_handle), handle->handle_bytes);
  return hexOf(bytes);
}

inline int typeOf(mode_t mode) {
  static const std::map<mode_t, int> kTypes = {{S_IFREG, 0}, {S_IFDIR, 1}, {S_IFLNK, 2},
                                               {S_IFCHR, 3}, {S_IFBLK, 4}, {S_IFIFO, 5},
                                               {S_IFSOCK, 6}};
  const auto known = kTypes.find(mode & S_IFMT);
  return known == kTypes.end() ? 7 : known->second;
}

class TreeWalk {
 public:
  // Leaves out what is mounted below the root, and the folders named, wherever they lie.
  static Tree of(const std::string& root, const std::set<std::string>& leaveOut = {}) {
    TreeWalk walk;
    UniqueFd fd(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd) failAt(root);
    for (const std::string& folder : leaveOut) walk.leaveOut(folder);
    walk.device_ = statOf(fd.get()).st_dev;
    walk.enter(std::move(fd), "");
    return std::move(walk.tree_);
  }

 private:
  TreeWalk() {  // each level of the tree holds a descriptor
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }

  static struct stat statOf(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) failAt("fstat");
    return st;
  }

  static Facts factsOf(int fd) {
    const struct stat st = statOf(fd);
    return {typeOf(st.st_mode),
            st.st_mode,
            st.st_uid,
            st.st_gid,
            static_cast<std::uint32_t>(st.st_nlink),
            st.st_size,
            static_cast<std::uint32_t>(st.st_mtim.tv_sec),
            identifierOf(fd)};
  }

  void leaveOut(const std::string& folder) {
    struct stat st;
    if (stat(folder.c_str(), &st) == 0) leaveOut_.emplace(st.st_dev, st.st_ino);
  }

  bool isLeftOut(int fd) const {
    const struct stat st = statOf(fd);
    struct statx status;
    if (statx(fd, "", AT_EMPTY_PATH, 0, &status) != 0) failAt("statx");
    return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 || st.st_dev != device_ ||
           leaveOut_.contains({st.st_dev, st.st_ino});
  }

  void enter(UniqueFd folder, const std::string& prefix) {
    tree_.emplace(prefix.empty() ? "." : prefix.substr(0, prefix.size() - 1),
                  factsOf(folder.get()));
    for (const std::string& name : namesIn(folder.get())) meet(folder.get(), prefix + name, name);
  }

  void meet(int folder, const std::string& path, const std::string& name) {
    const UniqueFd fd(openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) failAt(path);
    if (isLeftOut(fd.get())) return;
    if (!S_ISDIR(statOf(fd.get()).st_mode)) {
      tree_.emplace(path, factsOf(fd.get()));
      return;
    }
    UniqueFd below(openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!below) failAt(path);
    enter(std::move(below), path + "/");
  }

  static std::vector<std::string> namesIn(int folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> list(fdopendir(dup(folder)), closedir);
    if (!list) failAt("fdopendir");
    while (const dirent* entry = readdir(list.get()))
      if (const std::string_view name = entry->d_name; name != "." && name != "..")
        names.emplace_back(name);
    return names;
  }

  Tree tree_;
  dev_t device_ = 0;
  std::set<std::pair<dev_t, ino_t>> leaveOut_;
};

}  // namespace kddc::torture
