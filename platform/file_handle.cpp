// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An identifier keeps the handle's length, because a handle's own trailing zeros and the padding
// look alike, and the kernel refuses a handle of another length.
#include "platform/file_handle.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "platform/failure.h"

namespace kddc {
namespace {

// A handle with its bytes behind it, as the calls want it.
struct alignas(file_handle) HandleBuffer {
  unsigned char bytes[sizeof(file_handle) + kMaxHandleBytes] = {};

  HandleBuffer() { get().handle_bytes = kMaxHandleBytes; }
  file_handle& get() { return *reinterpret_cast<file_handle*>(bytes); }
};

int identifyAt(int dirFd, const char* name, int flags, fsf_fid& fid) {
  HandleBuffer handle;
  int mountId = 0;
  if (::name_to_handle_at(dirFd, name, &handle.get(), &mountId, flags) != 0) return -errno;
  if (!fitsIdentifier(handle.get())) return -EOVERFLOW;
  fid = fidFromHandle(handle.get());
  return 0;
}

}  // namespace

bool fitsIdentifier(const file_handle& handle) {
  return handle.handle_bytes <= kMaxHandleBytes && handle.handle_type >= 0 &&
         handle.handle_type <= 0xff;
}

fsf_fid fidFromHandle(const file_handle& handle) {
  if (!fitsIdentifier(handle))
    failKd("fidFromHandle",
           "a file handle of type " + std::to_string(handle.handle_type) + " and " +
               std::to_string(handle.handle_bytes) + " bytes does not fit into an identifier",
           EOVERFLOW);
  fsf_fid fid{};
  fid.data[0] = static_cast<unsigned char>(handle.handle_type);
  fid.data[1] = static_cast<unsigned char>(handle.handle_bytes);
  std::memcpy(fid.data + 4, handle.f_handle, handle.handle_bytes);
  return fid;
}

int identify(int fd, fsf_fid& fid) {
  return identifyAt(fd, "", AT_EMPTY_PATH, fid);
}

int identify(int dirFd, const char* name, fsf_fid& fid, bool followLinks) {
  return identifyAt(dirFd, name, followLinks ? AT_SYMLINK_FOLLOW : 0, fid);
}

int openByFid(int mountFd, const fsf_fid& fid, int flags) {
  const std::size_t length = fid.data[1];
  // The bytes may come from a damaged database or a hostile record.
  if (length == 0 || length > kMaxHandleBytes || fid.data[2] != 0 || fid.data[3] != 0)
    return -EINVAL;
  HandleBuffer handle;
  handle.get().handle_type = fid.data[0];
  handle.get().handle_bytes = static_cast<unsigned int>(length);
  std::memcpy(handle.get().f_handle, fid.data + 4, length);
  const int fd = ::open_by_handle_at(mountFd, &handle.get(), flags | O_CLOEXEC);
  return fd < 0 ? -errno : fd;
}

}  // namespace kddc
