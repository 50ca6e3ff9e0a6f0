// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a file is and how it is: identifier and attributes together. Private.
#pragma once

#include <sys/stat.h>

#include "platform/file_id.h"

namespace kddc {

// Attributes and identifier of one file. Where the file system gives no usable handle, the
// identifier is made of the inode number: enough for a scan, but no file can be opened by it.
struct Identity {
  struct stat st {};
  fsf_fid fid{};
  bool isMountRoot = false;
};

// Of what `fd` stands for; O_PATH is enough. 0, or a negative errno.
int identityOf(int fd, Identity& identity);
// Of the entry `name` of a folder, in two calls: the name must not change hands meanwhile.
int identityOf(int folder, const char* name, Identity& identity);

}  // namespace kddc
