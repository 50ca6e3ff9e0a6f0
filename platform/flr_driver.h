// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Identifiers of files that are reached by their paths.
//
// Threads: one object may be used from any number of threads. Failures: KdException with the errno
// as its code and a message that names the path.
#pragma once

#include <string>

#include "platform/export.h"
#include "platform/file_id.h"

class KDDC_API FlrDriver {
 public:
  // The identifier of the file at `path`: the kernel's own handle, so it stays the same over
  // renames, for every hard link and over a remount, and is not used again for another file. For a
  // symbolic link as the last part, `followLinks` says whether it is the link's or its target's.
  // Needs no right on the file but to reach it.
  //
  // A file system that gives no handles, or longer ones than the 20 bytes that an identifier holds,
  // is refused with a message that names it.
  fsf_fid getFID(const std::string& path, bool followLinks);

  // From now on nothing is refused: there an identifier is made of the inode number, as a scan does
  // it. It is the same for every hard link, but is used again for another file.
  void acceptInodeNumbers() { inodeNumbers_ = true; }

 private:
  bool inodeNumbers_ = false;
};
