// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The way to a folder is gone from the root, descriptor by descriptor, so that what is looked at is
// what the next step starts from.
#include "agent/own_folder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <filesystem>
#include <system_error>

#include "agent/errors.h"
#include "platform/unique_fd.h"

namespace kddc {
namespace fs = std::filesystem;
namespace {

constexpr int kMostLinks = 40;  // as the kernel has it
constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;

enum class Missing { kStays, kIsMade };

bool isTrusted(uid_t user) {
  return user == 0 || user == geteuid();
}

// Whether somebody else can replace what lies in the folder. In a sticky one, only his own.
bool isOpenAbove(const struct stat& folder) {
  return (folder.st_mode & kOthersMayWrite) != 0 && (folder.st_mode & S_ISVTX) == 0;
}

void requireSafeAbove(const std::string& path, const struct stat& folder) {
  if (!isTrusted(folder.st_uid))
    throw Failure(
        fmt::format("the folder {} belongs to another user, who could replace what is "
                    "kept below it; name a folder elsewhere",
                    path));
  if (isOpenAbove(folder))
    throw Failure(
        fmt::format("others may write in the folder {0} and could replace what is kept "
                    "below it; close it with: chmod go-w {0}",
                    path));
}

void requireOwn(const std::string& path, const struct stat& folder) {
  if (!isTrusted(folder.st_uid))
    throw Failure(
        fmt::format("the folder {0} belongs to another user; name another one, or take it "
                    "over with: chown {1} {0}",
                    path, geteuid()));
  if ((folder.st_mode & kOthersMayWrite) != 0)
    throw Failure(
        fmt::format("others may write in the folder {0}; close it with: chmod go-w {0}", path));
}

std::deque<std::string> partsOf(const fs::path& path) {
  std::deque<std::string> parts;
  for (const fs::path& part : path.relative_path())
    if (!part.empty() && part != ".") parts.push_back(part.string());
  return parts;
}

// Goes from the root to a folder. By O_PATH: a folder on the way may be one that we may pass, but
// not read.
class Way {
 public:
  Way() : fd_(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC)) { look(); }

  const std::string& path() const { return path_.empty() ? kRoot : path_; }
  const struct stat& status() const { return status_; }

  // One step down; false when nothing is there and it stays so.
  bool enter(const std::string& name, Missing missing) {
    const std::string path = path_ + "/" + name;
    UniqueFd next = find(name, path);
    if (!next && missing == Missing::kStays) return false;
    if (!next) {
      // Whoever was faster is looked at like anybody else.
      if (mkdirat(fd_.get(), name.c_str(), 0700) != 0 && errno != EEXIST)
        throw systemFailure("cannot make the folder " + path, errno);
      next = find(name, path);
    }
    fd_ = std::move(next);
    path_ = path;
    look();
    return true;
  }

 private:
  UniqueFd find(const std::string& name, const std::string& path) const {
    UniqueFd fd(openat(fd_.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd && errno != ENOENT) throw systemFailure("cannot use the folder " + path, errno);
    return fd;
  }
  void look() {
    if (fstat(fd_.get(), &status_) != 0)
      throw systemFailure("cannot use the folder " + path(), errno);
    if (S_ISLNK(status_.st_mode))
      throw Failure(
          fmt::format("cannot use the folder {0}: it is a link; remove it, or name the "
                      "folder that it leads to",
                      path()));
    if (!S_ISDIR(status_.st_mode)) throw systemFailure("cannot use the folder " + path(), ENOTDIR);
  }

  static inline const std::string kRoot = "/";
  UniqueFd fd_;
  std::string path_;
  struct stat status_ {};
};

void go(const std::string& path, Missing above, Missing last) {
  Way way;
  std::deque<std::string> parts = partsOf(path);
  for (; !parts.empty(); parts.pop_front()) {
    requireSafeAbove(way.path(), way.status());
    if (!way.enter(parts.front(), parts.size() > 1 ? above : last)) return;
  }
  requireOwn(way.path(), way.status());
}

// Who can put a link into a folder can lead us anywhere.
void requireTrusted(const fs::path& link, const struct stat& status) {
  struct stat folder;
  if (stat(link.parent_path().c_str(), &folder) != 0)
    throw systemFailure("cannot use " + link.string(), errno);
  if (!isTrusted(status.st_uid) || !isTrusted(folder.st_uid) || isOpenAbove(folder))
    throw Failure("cannot use " + link.string() +
                  ": it is a link that another user can have put there; name the folder that it "
                  "leads to");
}

}  // namespace

std::string settledPath(const std::string& path) {
  std::deque<std::string> parts = partsOf(fs::absolute(path));
  fs::path settled = "/";
  for (int links = 0; !parts.empty();) {
    const fs::path next = parts.front() == ".." ? settled.parent_path() : settled / parts.front();
    parts.pop_front();
    struct stat status;
    const bool isThere = lstat(next.c_str(), &status) == 0;
    if (!isThere && errno != ENOENT && errno != ENOTDIR)
      throw systemFailure("cannot use " + path, errno);
    if (!isThere || !S_ISLNK(status.st_mode)) {
      settled = next;
      continue;
    }
    requireTrusted(next, status);
    if (++links > kMostLinks) throw systemFailure("cannot use " + path, ELOOP);
    const fs::path target = fs::read_symlink(next);
    if (target.is_absolute()) settled = "/";
    const std::deque<std::string> more = partsOf(target);
    parts.insert(parts.begin(), more.begin(), more.end());
  }
  return settled.string();
}

void requireOwnFolder(const std::string& path) {
  go(path, Missing::kStays, Missing::kStays);
}

void makeFolders(const std::string& path) {
  go(path, Missing::kIsMade, Missing::kIsMade);
}

void makeFoldersAbove(const std::string& path) {
  go(path, Missing::kIsMade, Missing::kStays);
}

}  // namespace kddc
