// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The paths of a catalogue's folders, each built once: rows name their parents only, and most rows
// of an answer share the folder with the row before.
//
// Memory: at most about 64 MiB of known paths, however many folders there are. Threads: one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "agent/engine/sqlite_query.h"

namespace kddc {

// The parent of a row that has no name at present: its file has lost one and not yet got another.
inline constexpr std::int64_t kParkedParent = std::numeric_limits<std::int64_t>::max();

// Whether a file can have the name. A path made of any other could lead whoever uses it out of the
// volume.
bool canBeAName(std::string_view name);
// Throws UDCException with SQLITE_CORRUPT where that is not so.
void requireName(std::string_view name, std::int64_t inode);

class FolderPaths {
 public:
  // `files` must outlive the object.
  explicit FolderPaths(const ReadConnection& files);

  // What stands before the names in a folder: "" for the root, else its path with a "/" at the end;
  // null when the folder is parked, or one above it is: it has no path at present. Valid until the
  // next call. UDCException with SQLITE_CORRUPT when what is above the row is no chain of folders
  // with names up to the root.
  const std::string* prefixOf(std::int64_t inode);

 private:
  struct Step {
    std::int64_t inode;
    std::string name;
  };

  std::optional<std::vector<Step>> climb(std::int64_t inode);
  void descend(const std::vector<Step>& steps);

  Query parentOf_;
  std::unordered_map<std::int64_t, std::string> known_;
  std::size_t knownBytes_ = 0;
  // The answer given last: rows of one folder mostly follow each other.
  std::int64_t last_ = 0;
  bool lastHasPath_ = false;
  std::string prefix_;
};

}  // namespace kddc
