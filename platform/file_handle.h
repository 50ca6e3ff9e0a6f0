// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Identifiers and the kernel's file handles: one made of the other, both ways. Private.
//
// The calls that answer an int give a negative errno on failure, because for files that come and go
// a failure is an everyday answer: -ESTALE (the file of a handle is gone), -ENOENT (the name is),
// -EOPNOTSUPP (no handles on this file system), -EOVERFLOW (handles too long for an identifier).
#pragma once

#include <fcntl.h>

#include <cstddef>

#include "platform/file_id.h"

namespace kddc {

inline constexpr std::size_t kMaxHandleBytes = 20;

// Whether an identifier can hold the handle. One that comes from an event must be asked this first,
// and its length must lie inside the event.
bool fitsIdentifier(const file_handle& handle);
// The identifier of a handle; KdException when it cannot hold it.
fsf_fid fidFromHandle(const file_handle& handle);

// The identifier of what `fd` stands for; O_PATH is enough. 0, or a negative errno.
int identify(int fd, fsf_fid& fid);
// The identifier of the entry `name` of the folder `dirFd` (or of a path, with AT_FDCWD); of a
// symbolic link itself unless `followLinks`. 0, or a negative errno.
int identify(int dirFd, const char* name, fsf_fid& fid, bool followLinks = false);

// Opens the file of an identifier with `flags` of open(2); O_CLOEXEC is added. `mountFd` is any
// descriptor on a mount of its file system, not an O_PATH one. Needs CAP_DAC_READ_SEARCH. Returns a
// descriptor, which is the caller's, or a negative errno; -EINVAL for bytes that are no identifier.
// What is not known to be a folder must be opened with O_PATH: a FIFO would block, a device act.
int openByFid(int mountFd, const fsf_fid& fid, int flags);

}  // namespace kddc
