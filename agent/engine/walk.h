// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The walk over a tree: every entry once, a folder before what lies in it.
//
// The walk goes relative to open folders, so neither the depth of the tree nor the length of its
// paths matters, and a folder that is moved or replaced meanwhile is noticed: what is opened must
// be the very folder that was reported. Attributes and identifier of an entry always belong to the
// same file: they are taken by name while the folder is seen to be left alone, and from one
// descriptor where it is not. Nothing is opened for its data.
//
//   stack of frames     one for each folder on the way down; holds the names of its sub-folders
//                       that are still to be visited, and its descriptor while one is at hand
//
// Few descriptors are held: a folder's goes when its last sub-folder is open, and beyond a limit
// those nearest the root go first. They are opened again from below by "..", or else by name from
// the root.
//
// Left out: whatever is mounted somewhere below the root, folders of other devices, and the folders
// that the caller names. Entries that vanish while they are looked at were never there.
#pragma once

#include <sys/stat.h>

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/detached_folder.h"
#include "platform/file_id.h"
#include "platform/unique_fd.h"

namespace kddc {

// What tells files apart while they exist.
struct FileKey {
  dev_t device = 0;
  ino_t inode = 0;
  auto operator<=>(const FileKey&) const = default;
};

struct WalkOptions {
  std::string stubAttribute;      // regular files that carry it are stubs
  std::vector<FileKey> leaveOut;  // folders that are not reported and not entered
  // Names that count as mounted upon, though the root's own mount does not have it so.
  std::vector<CoveredPlace> covered = {};
  std::size_t openFolders = 128;  // how many descriptors the walk may hold
  // Whether a second thread helps to look at the entries of large folders.
  bool helped = false;
  // Told the number of each folder that was read to its end, right after its entries. One that is
  // lost before it can be entered is not among them.
  std::function<void(std::uint64_t folder)> folderRead = {};
  // Called with each folder that was reported, but moved or gone before it could be entered.
  std::function<void(const fsf_fid& folder)> folderLost = {};
};

// One entry, valid during the call of the sink.
struct WalkedEntry {
  const struct stat& st;
  const fsf_fid& fid;    // where the file system gives none, made of the inode number
  std::uint64_t parent;  // the number of its folder, 0 for the root
  bool isStub;
  std::string_view name;  // in its folder
};

// Folders are numbered 1, 2, 3, ... in the order in which they are reported; the root is 1. An
// exception that the sink throws ends the walk and goes to its caller.
using EntrySink = std::function<void(const WalkedEntry&)>;

struct WalkCounts {
  std::uint64_t entries = 0;      // reported, the root included
  std::uint64_t lostFolders = 0;  // reported, but moved or gone before they could be entered
  std::uint64_t mountsLeftOut = 0;
};

// Walks everything below `root`, which is reported first under `rootName`. Throws Failure naming
// the folder that cannot be read: a tree with a hole is never passed off as whole.
WalkCounts walkTree(UniqueFd root, const std::string& rootName, const WalkOptions& options,
                    const EntrySink& sink);

}  // namespace kddc
