// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/folder_paths.h"

#include <fmt/format.h>

#include <unordered_set>

#include "catalogue/file_type.h"
#include "platform/exceptions.h"

namespace kddc {
namespace {

// Deep trees with long names would fill the memory with paths that are hardly asked for again.
constexpr std::size_t kMostKnownBytes = 64 * 1024 * 1024;
// Deeper than most trees: only from here on a climb looks out for folders in a circle.
constexpr std::size_t kDeep = 32;

}  // namespace

bool canBeAName(std::string_view name) {
  constexpr std::string_view kInNoName("/\0", 2);
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(kInNoName) == std::string_view::npos;
}

void requireName(std::string_view name, std::int64_t inode) {
  if (!canBeAName(name))
    throw UDCException("FolderPaths", 3, SQLITE_CORRUPT,
                       fmt::format("row {} has a name that no file can have", inode));
}

FolderPaths::FolderPaths(const ReadConnection& files)
    : parentOf_(files, "SELECT PINODE,NAME,FILE_TYPE FROM FILES WHERE INODE=?1") {}

const std::string* FolderPaths::prefixOf(std::int64_t inode) {
  if (inode == kParkedParent) return nullptr;
  if (inode == last_) return lastHasPath_ ? &prefix_ : nullptr;
  last_ = 0;
  if (knownBytes_ > kMostKnownBytes) {
    known_.clear();
    knownBytes_ = 0;
  }
  const auto steps = climb(inode);
  if (steps) descend(*steps);
  lastHasPath_ = steps.has_value();
  last_ = inode;
  return lastHasPath_ ? &prefix_ : nullptr;
}

// Goes up to the root or to a folder whose path is known, which becomes the beginning of the
// prefix; returns the folders passed, the lowest first. None when it comes to a parked row.
std::optional<std::vector<FolderPaths::Step>> FolderPaths::climb(std::int64_t inode) {
  std::vector<Step> steps;
  std::unordered_set<std::int64_t> passed;
  prefix_.clear();
  for (;;) {
    if (const auto known = known_.find(inode); known != known_.end()) {
      prefix_ = known->second;
      return steps;
    }
    parentOf_.bind(inode);
    const bool isCircle = steps.size() > kDeep && !passed.insert(inode).second;
    if (isCircle || !parentOf_.step() || parentOf_.integer(2) != kFolder)
      throw UDCException("FolderPaths", 3, SQLITE_CORRUPT,
                         fmt::format("row {} has no way up to the volume's root", inode));
    const std::int64_t parent = parentOf_.integer(0);
    if (parent != 0) steps.push_back({inode, std::string(parentOf_.text(1))});
    parentOf_.reset();
    if (parent == 0) return steps;
    if (parent == kParkedParent) return std::nullopt;
    inode = parent;
  }
}

void FolderPaths::descend(const std::vector<Step>& steps) {
  for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
    requireName(step->name, step->inode);
    prefix_ += step->name;
    prefix_ += '/';
    if (knownBytes_ > kMostKnownBytes) continue;
    known_[step->inode] = prefix_;
    knownBytes_ += prefix_.size() + sizeof(std::string);
  }
}

}  // namespace kddc
