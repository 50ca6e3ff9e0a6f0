// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/lock_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace kddc {
namespace {

// The kernel waits for a lock, but not for a time that is limited.
constexpr int kRetryMilliseconds = 10;

// An open-file lock: it belongs to the descriptor, so another one of the same process is kept out
// too, and closing some other descriptor of the file does not give it back.
struct flock wholeFile(bool shared) {
  struct flock lock {};
  lock.l_type = shared ? F_RDLCK : F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

// A file that was removed and made again since we opened it guards nothing any more.
bool stillStandsAt(int fd, const std::string& path) {
  struct stat open, named;
  return fstat(fd, &open) == 0 && lstat(path.c_str(), &named) == 0 && open.st_dev == named.st_dev &&
         open.st_ino == named.st_ino;
}

// For people and messages only: a lock works without it, so a full disk does not matter here.
void writeProcessId(int fd) {
  const std::string id = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 || pwrite(fd, id.data(), id.size(), 0) < 0) errno = 0;
}

}  // namespace

bool LockFile::take(const std::string& path, bool shared, std::chrono::seconds patience) {
  release();
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    fd_ = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
    if (fd_ < 0) return false;
    struct flock lock = wholeFile(shared);
    const bool locked = fcntl(fd_, F_OFD_SETLK, &lock) == 0;
    if (locked && stillStandsAt(fd_, path)) break;
    release();
    if (locked) continue;
    if (std::chrono::steady_clock::now() >= deadline) {
      errno = EWOULDBLOCK;
      return false;
    }
    poll(nullptr, 0, kRetryMilliseconds);
  }
  if (!shared) writeProcessId(fd_);
  return true;
}

void LockFile::release() noexcept {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

std::optional<pid_t> LockFile::holderOf(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  std::optional<pid_t> holder;
  struct flock lock = wholeFile(false);
  if (fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK) {
    char text[16] = {};
    const ssize_t length = pread(fd, text, sizeof text - 1, 0);
    holder = length > 0 ? static_cast<pid_t>(std::strtol(text, nullptr, 10)) : 0;
  }
  close(fd);
  return holder;
}

}  // namespace kddc
