// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A folder that is open, and what lies directly in it. Everything is reached from the descriptor
// and no symbolic link is followed, neither in the folder's place nor inside it: whoever manages to
// plant one cannot make us read, write or delete elsewhere. Private.
//
// Failures: false, an empty descriptor or nothing, with errno, as the system calls give it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"

namespace kddc {

class OpenFolder {
 public:
  enum class Kind { kNone, kFile, kFolder, kOther };

  explicit OpenFolder(const std::string& path);
  explicit operator bool() const { return static_cast<bool>(fd_); }

  OpenFolder folder(const std::string& name) const;
  // Opens a regular file; anything else is refused with EINVAL. `permissions` are for O_CREAT.
  UniqueFd file(const std::string& name, int flags, int permissions = 0600) const;
  // kNone when it cannot be examined.
  Kind kindOf(const std::string& name) const;
  // What is in the folder but "." and ".."; nothing when it cannot be read to the end.
  std::optional<std::vector<std::string>> names() const;

  // Each of these takes a name in this folder; a symbolic link is removed or moved itself.
  bool removeFile(const std::string& name) const;
  bool removeFolder(const std::string& name) const;
  bool moveFile(const std::string& name, const OpenFolder& to) const;
  // Makes what was created and removed here last through a power loss, where the file system can.
  bool sync() const;

 private:
  explicit OpenFolder(UniqueFd fd) : fd_(std::move(fd)) {}

  UniqueFd fd_;
};

}  // namespace kddc
