// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Which file system it is that stands at a mount point. Device names and numbers go to whatever is
// plugged in next; what a file system says of itself stays with it.
//
// Threads: any. Failures: none are told; what cannot be found out is not known.
#pragma once

#include <string>

#include "platform/mount_table.h"

namespace kddc {

// "uuid:<the UUID in the file system's superblock>" of one on a block device, else
// "fsid:<16 hexadecimal digits>", the number that statfs(2) gives (of a tmpfs it is new with every
// mount). Empty when it is not known: the device cannot be read, or the file system has neither.
std::string identityOf(const KdMntEntry& mount);

// Whether two identities tell of two file systems. One that is not known tells nothing.
bool areDifferent(const std::string& one, const std::string& other);

}  // namespace kddc
