// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "buffer/open_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>

namespace kddc {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

}  // namespace

OpenFolder::OpenFolder(const std::string& path) : fd_(::open(path.c_str(), kFolderFlags)) {}

OpenFolder OpenFolder::folder(const std::string& name) const {
  return OpenFolder(UniqueFd(::openat(fd_.get(), name.c_str(), kFolderFlags)));
}

UniqueFd OpenFolder::file(const std::string& name, int flags, int permissions) const {
  // O_NONBLOCK: a pipe that was planted must not stop us before it is refused.
  const int safely = flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
  UniqueFd file(::openat(fd_.get(), name.c_str(), safely, static_cast<mode_t>(permissions)));
  struct stat status {};
  if (!file || (::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode))) return file;
  file.reset();
  errno = EINVAL;
  return file;
}

OpenFolder::Kind OpenFolder::kindOf(const std::string& name) const {
  struct stat status {};
  if (::fstatat(fd_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return Kind::kNone;
  if (S_ISDIR(status.st_mode)) return Kind::kFolder;
  return S_ISREG(status.st_mode) ? Kind::kFile : Kind::kOther;
}

std::optional<std::vector<std::string>> OpenFolder::names() const {
  UniqueFd again(::openat(fd_.get(), ".", kFolderFlags));
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::fdopendir(again.get()), ::closedir);
  if (!entries) return std::nullopt;
  again.release();  // closed with `entries`

  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(entries.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
    errno = 0;
  }
  if (errno != 0) return std::nullopt;
  return names;
}

bool OpenFolder::removeFile(const std::string& name) const {
  return ::unlinkat(fd_.get(), name.c_str(), 0) == 0;
}

bool OpenFolder::removeFolder(const std::string& name) const {
  return ::unlinkat(fd_.get(), name.c_str(), AT_REMOVEDIR) == 0;
}

bool OpenFolder::moveFile(const std::string& name, const OpenFolder& to) const {
  return ::renameat(fd_.get(), name.c_str(), to.fd_.get(), name.c_str()) == 0;
}

bool OpenFolder::sync() const {
  return ::fsync(fd_.get()) == 0 || errno == EINVAL;  // some file systems have no such thing
}

}  // namespace kddc
