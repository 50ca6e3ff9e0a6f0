// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Folders in which nobody but we and root can put, replace or remove anything. What lies in such a
// folder can be opened by its path: no link and no other file can be slipped in between a look and
// an opening.
//
//   the folder itself   ours or root's, and writable for its owner alone
//   each one above it   ours or root's, and either the same or sticky, as /tmp is
//   no link among them  a path is settled first, and then means what it says
//
// Threads: any. Failures: Failure, which names the folder, what is wrong with it and what to do.
#pragma once

#include <string>

namespace kddc {

// Absolute, links resolved as far as the path exists, without a slash at the end. A link is
// followed only when nobody but we and root can have put it there.
std::string settledPath(const std::string& path);

// Refuses the folder at a settled path unless it is ours as said above. Of one that does not exist
// those above it, as far as they exist.
void requireOwnFolder(const std::string& path);

// The same, and makes the folder and those above it that are missing, for this user alone (0700).
void makeFolders(const std::string& path);
// The same, but makes only those above it.
void makeFoldersAbove(const std::string& path);

}  // namespace kddc
