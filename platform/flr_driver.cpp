// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A handle that does not fit is refused and never cut: two files could then share one identifier.
// The file system is looked up only once that has happened, so the usual call is one system call.
#include "platform/flr_driver.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "platform/failure.h"
#include "platform/file_handle.h"
#include "platform/identity.h"
#include "platform/mount_info.h"
#include "platform/unique_fd.h"

namespace {

[[noreturn]] void fail(const std::string& path, bool followLinks, int error) {
  std::string message = "cannot identify " + path + ": ";
  if (error == EOPNOTSUPP)
    message += "its file system (" + kddc::fsTypeForPeople(path, followLinks) +
               ") gives no file handles; kddc cannot identify files there";
  else if (error == EOVERFLOW)
    message += "its file system (" + kddc::fsTypeForPeople(path, followLinks) +
               ") gives file handles of more than 20 bytes; kddc cannot identify files there";
  else
    message += kddc::errnoText(error);
  kddc::failKd("FlrDriver :: getFID", std::move(message), error);
}

int byInodeNumber(const std::string& path, bool followLinks, fsf_fid& fid) {
  const int flags = O_PATH | O_CLOEXEC | (followLinks ? 0 : O_NOFOLLOW);
  const kddc::UniqueFd fd(open(path.c_str(), flags));
  if (!fd) return -errno;
  kddc::Identity identity;
  const int result = kddc::identityOf(fd.get(), identity);
  fid = identity.fid;
  return result;
}

}  // namespace

fsf_fid FlrDriver::getFID(const std::string& path, bool followLinks) {
  fsf_fid fid{};
  int result = kddc::identify(AT_FDCWD, path.c_str(), fid, followLinks);
  if (inodeNumbers_ && (result == -EOPNOTSUPP || result == -EOVERFLOW))
    result = byInodeNumber(path, followLinks, fid);
  if (result < 0) fail(path, followLinks, -result);
  return fid;
}
