// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The rows of one folder after the other, as a comparison with the disk asks for them: by name, in
// about the order in which a scan has met them.
//
// A folder costs one query for its rows, which come in the order of their insertion, and one for
// each run of rows of FIDS that lie near each other: two rows are read in a row for what one search
// costs. A name is first sought right behind the one found before; only where that fails are the
// names put in order.
//
// Reads within transactions that `release` ends, so that a writer's log can be written back between
// two batches. Memory: the rows of the largest folder, about 130 bytes each.
//
// Threads: one. Failures: UDCException.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/engine/sqlite_query.h"
#include "platform/file_id.h"

namespace kddc {

struct FolderRow {
  std::int64_t inode = 0, fidsRowId = 0;
  std::int64_t size = 0;
  std::uint32_t mode = 0, links = 0, uid = 0, gid = 0, mtime = 0, ctime = 0;
  int type = 0;
  fsf_fid fid{};
  bool knowsFid = false;  // it and the row of its identifier speak of each other
  bool met = false;       // its name was found on the disk
  std::uint32_t nameBegin = 0, nameLength = 0;
};

class FolderRows {
 public:
  explicit FolderRows(const std::string& catalogueFolder);

  // Reads the rows of a folder in place of those of the last one.
  void load(std::int64_t folder);
  void clear();

  std::vector<FolderRow>& all() { return rows_; }
  std::string_view nameOf(const FolderRow& row) const {
    return std::string_view(names_).substr(row.nameBegin, row.nameLength);
  }
  // A row of that name that was not met before, and marks it as met; or null.
  FolderRow* meet(std::string_view name);
  // Whether another row of the same name was met.
  bool isDuplicate(const FolderRow& row);

  // The folder that has the identifier, wherever it is; none when the catalogue knows none.
  std::optional<std::int64_t> folderOf(const fsf_fid& fid);

  void release();

  // Rows that were loaded, and how many of them know their identifier.
  std::uint64_t rows() const { return rowCount_; }
  std::uint64_t pairs() const { return pairCount_; }

 private:
  struct HashedName {
    std::size_t hash;
    std::uint32_t row;  // its place in rows_
    auto operator<=>(const HashedName&) const = default;
  };

  void begin();
  void identify();
  void identifyRun(std::size_t first, std::size_t end);
  void sortNames();
  // The places in byName_ that may hold the name.
  std::span<const HashedName> candidates(std::string_view name);

  ReadConnection files_, fids_;
  Query rowsIn_, rowOf_, identifiers_, tuple_;
  bool reading_ = false;

  std::vector<FolderRow> rows_;
  std::string names_;
  std::size_t next_ = 0;  // behind the row found last
  std::vector<HashedName> byName_;
  std::vector<std::uint32_t> byFidsRowId_;  // places in rows_
  std::uint64_t rowCount_ = 0, pairCount_ = 0;
};

}  // namespace kddc
