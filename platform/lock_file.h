// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The advisory lock that makes a database have one writer: a file beside it, locked while the
// database is open, with the process id of an exclusive holder as its text.
//
// The lock belongs to the open file, so that two holders within one process are told apart, and
// whoever only wants to know (holderOf) takes nothing that could make a holder-to-be fail.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

namespace kddc {

class LockFile {
 public:
  LockFile() = default;
  ~LockFile() { release(); }
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

  // Creates the file (0600) when it is missing and locks it, trying again until `patience` is over.
  // False when somebody else holds it, or with errno set when it cannot be opened; a symbolic link
  // is not followed. errno is EWOULDBLOCK when it is held.
  bool take(const std::string& path, bool shared, std::chrono::seconds patience);
  // Gives the lock back; the file stays.
  void release() noexcept;

  // Whether somebody holds the lock now, and then the process id that the file names (0 when it
  // names none, as with shared holders).
  static std::optional<pid_t> holderOf(const std::string& path);

 private:
  int fd_ = -1;
};

}  // namespace kddc
