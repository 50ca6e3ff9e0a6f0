// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How a catalogue differs from the disk, and from what a catalogue has to be whatever the disk
// holds: one line for each difference, none when it is exact.
#pragma once

#include <iterator>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tests/torture/catalogue_rows.h"
#include "tests/torture/tree.h"

namespace kddc::torture {

using Lines = std::vector<std::string>;

// On one line, whatever the bytes.
inline std::string shown(std::string_view name) {
  std::string text;
  for (const char byte : name) {
    const bool isPlain = byte > ' ' && byte < '\x7f' && byte != '\\';
    text += isPlain || byte == ' ' ? std::string(1, byte) : "\\x" + hexOf({&byte, 1});
  }
  return text;
}

class Comparison {
 public:
  Comparison(const Tree& disk, const CatalogueRows& catalogue)
      : disk_(disk), catalogue_(catalogue) {
    for (const FilesRow& row : catalogue.files) byInode_.emplace(row.inode, &row);
    for (const FidsRow& row : catalogue.fids) byFidRow_.emplace(row.number, &row);
  }

  Lines run() {
    for (const FilesRow& row : catalogue_.files) checkRow(row);
    for (const FidsRow& row : catalogue_.fids) checkFid(row);
    for (const auto& [path, facts] : disk_)
      if (!seen_.contains(path)) found_.push_back("missing: " + shown(path));
    return std::move(found_);
  }

 private:
  // The parent of a row whose last name is gone.
  static constexpr std::int64_t kParked = std::numeric_limits<std::int64_t>::max();

  void checkRow(const FilesRow& row) {
    Facts facts = row.facts;
    facts.fid = identifierOf(row);
    const std::string path = pathOf(row);
    if (path.empty()) return;
    const bool isFirst = seen_.insert(path).second;
    if (!isFirst) return found_.push_back("duplicate: " + about(row, path));
    const auto onDisk = disk_.find(path);
    if (onDisk == disk_.end()) return found_.push_back("extra: " + about(row, path));
    compare(path, onDisk->second, facts);
  }

  static std::string about(const FilesRow& row, const std::string& path) {
    return shown(path) + " (FILES row " + std::to_string(row.inode) + ")";
  }

  std::string identifierOf(const FilesRow& row) {
    const auto fid = byFidRow_.find(row.fidRow);
    if (fid != byFidRow_.end() && fid->second->filesRow == row.inode) return fid->second->fid;
    found_.push_back("without identifier: " + about(row, row.name));
    return "";
  }

  void checkFid(const FidsRow& row) {
    const auto named = byInode_.find(row.filesRow);
    if (named != byInode_.end() && named->second->fidRow == row.number) return;
    found_.push_back("identifier without a row: " + row.fid + " (FIDS row " +
                     std::to_string(row.number) + ")");
  }

  // Empty when the row hangs nowhere.
  std::string pathOf(const FilesRow& row) {
    if (row.parent == kParked) return report("parked: ", row);
    std::vector<const FilesRow*> up;
    std::set<std::int64_t> met;
    for (const FilesRow* at = &row; at->parent != 0; at = byInode_.at(at->parent)) {
      if (!met.insert(at->inode).second) return report("below itself: ", row);
      const auto parent = byInode_.find(at->parent);
      if (parent == byInode_.end()) return report("without parent: ", row);
      if (parent->second->facts.type != 1) return report("below what is no folder: ", row);
      up.push_back(at);
    }
    return join(up);
  }

  std::string report(const char* what, const FilesRow& row) {
    found_.push_back(what + about(row, row.name));
    return "";
  }

  static std::string join(const std::vector<const FilesRow*>& up) {
    if (up.empty()) return ".";
    std::string path;
    for (auto row = up.rbegin(); row != up.rend(); ++row)
      path += (path.empty() ? "" : "/") + (*row)->name;
    return path;
  }

  void compare(const std::string& path, const Facts& disk, const Facts& rows) {
    const auto field = [&](const char* name, const auto& there, const auto& here) {
      if (there != here)
        found_.push_back("different: " + shown(path) + ": " + name + " " + text(there) +
                         " on the disk, " + text(here) + " in the catalogue");
    };
    field("type", disk.type, rows.type);
    field("mode", disk.mode, rows.mode);
    field("uid", disk.uid, rows.uid);
    field("gid", disk.gid, rows.gid);
    field("nlink", disk.nlink, rows.nlink);
    field("size", disk.size, rows.size);
    field("mtime", disk.mtime, rows.mtime);
    if (!rows.fid.empty()) field("fid", disk.fid, rows.fid);
  }

  static std::string text(const std::string& value) { return value; }
  static std::string text(std::int64_t value) { return std::to_string(value); }

  const Tree& disk_;
  const CatalogueRows& catalogue_;
  std::unordered_map<std::int64_t, const FilesRow*> byInode_;
  std::unordered_map<std::int64_t, const FidsRow*> byFidRow_;
  std::set<std::string> seen_;
  Lines found_;
};

inline Lines differences(const Tree& disk, const CatalogueRows& catalogue) {
  return Comparison(disk, catalogue).run();
}

// Between the paths of a tree and those that a command printed.
inline Lines pathDifferences(const Tree& disk, const std::vector<std::string>& printed) {
  Lines found;
  std::set<std::string> seen;
  for (const std::string& path : printed) {
    if (!seen.insert(path).second) found.push_back("printed twice: " + shown(path));
    if (!disk.contains(path)) found.push_back("printed, not there: " + shown(path));
  }
  for (const auto& [path, facts] : disk)
    if (!seen.contains(path)) found.push_back("not printed: " + shown(path));
  return found;
}

// The catalogue's inodes of identifiers; a file with several links has several.
using Inodes = std::map<std::string, std::set<std::int64_t>>;

inline Inodes inodesOf(const std::vector<FidsRow>& fids, const std::set<std::string>& wanted) {
  Inodes inodes;
  for (const FidsRow& row : fids)
    if (wanted.contains(row.fid)) inodes[row.fid].insert(row.filesRow);
  return inodes;
}

// What lived throughout has kept one of its rows.
inline Lines inodeDifferences(const Inodes& before, const Inodes& after) {
  Lines found;
  for (const auto& [fid, inodes] : before) {
    const auto now = after.find(fid);
    if (now == after.end()) {
      found.push_back("lost: " + fid);
      continue;
    }
    bool kept = false;
    for (const std::int64_t inode : inodes) kept = kept || now->second.contains(inode);
    if (!kept) found.push_back("other inode: " + fid);
  }
  return found;
}

}  // namespace kddc::torture
