// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/sight.h"

#include <fcntl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace kddc {
namespace {

bool isMountRoot(const std::string& path) {
  struct statx status;
  return statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, 0, &status) == 0 &&
         (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

}  // namespace

bool leadsNowhere(int error) {
  return error == ENOENT || error == ENOTDIR || error == ESTALE || error == ELOOP;
}

Sight::Sight(const std::string& volume, const std::string& path,
             const std::vector<FileKey>& leftOut) {
  if (lstat(volume.c_str(), &st_) != 0) return;
  device_ = st_.st_dev;
  isPresent_ = true;
  const std::string whole = volume + "/" + path;
  for (std::size_t end = volume.size(); isPresent_ && end < whole.size() && !path.empty();) {
    end = std::min(whole.find('/', end + 1), whole.size());
    const struct stat folder = st_;
    trace_.insert(trace_.end(), {static_cast<long long>(st_.st_ino), st_.st_mode});
    isPresent_ = S_ISDIR(st_.st_mode) && step(whole.substr(0, end), leftOut);
    if (!isPresent_) st_ = folder;
    if (isPresent_) continue;
    // Whatever comes to stand here will tell by its folder's times.
    note(folder.st_mtim);
    note(folder.st_ctim);
  }
  if (isPresent_) noteTarget();
}

// What is mounted there, or left out, is no part of the volume, and counts as absent.
bool Sight::step(const std::string& path, const std::vector<FileKey>& leftOut) {
  struct stat next;
  if (lstat(path.c_str(), &next) != 0) {
    isKnown_ = leadsNowhere(errno);
    return false;
  }
  if (next.st_dev != device_ || isMountRoot(path)) return false;
  if (std::ranges::find(leftOut, FileKey{next.st_dev, next.st_ino}) != leftOut.end()) return false;
  st_ = next;
  return true;
}

void Sight::noteTarget() {
  trace_.insert(trace_.end(), {1, static_cast<long long>(st_.st_ino), st_.st_mode,
                               static_cast<long long>(st_.st_nlink), st_.st_size});
  note(st_.st_mtim);
  note(st_.st_ctim);
}

// Within one tick of the clock a second change leaves the time as it was, so a time of this tick
// tells nothing yet.
void Sight::note(const struct timespec& time) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  const bool isThisTick = std::tie(time.tv_sec, time.tv_nsec) >= std::tie(now.tv_sec, now.tv_nsec);
  // A time far in the future was set by somebody, and tells of nothing.
  if (isThisTick && time.tv_sec <= now.tv_sec + 1) isQuiet_ = false;
  trace_.insert(trace_.end(), {time.tv_sec, time.tv_nsec});
}

}  // namespace kddc
