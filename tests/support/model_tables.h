// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The tables of a catalogue in memory. What SQLite does stands here as rules:
//
//   row ids    the greatest one in the table plus 1
//   row order  rows of one identifier by FIDS_ROWID, rows of one folder by INODE
#pragma once

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "tests/support/model_rows.h"

namespace kddc::test {

class ModelTables {
 public:
  std::map<long long, ModelFile> files;  // by INODE
  std::map<long long, ModelFid> fids;    // by FIDS_ROWID; SEQNUM and RESCAN are always 0

  void deleteInode(long long inode) { files.erase(inode); }
  void insertFid(const fsf_fid& fid, long long filesRowId) {
    fids[nextId(fids)] = {filesRowId, fid};
  }

  // All columns in the order of the schema, as SQLite prints them, by row id.
  std::vector<std::string> fileRows() const;
  std::vector<std::string> fidRows() const;

 protected:
  // The journal does not fit the catalogue; what was written until then stays.
  struct Inconsistent {};

  // The rows of one identifier; the last one stands for all where one is asked for.
  struct Rows {
    std::vector<long long> inodes;
    long long inode = 0, fidRowId = 0;
  };

  template <class Table>
  static long long nextId(const Table& table) {
    return table.empty() ? 1 : table.rbegin()->first + 1;
  }

  Rows rowsOf(const fsf_fid& fid) const;
  long long inodeOf(const fsf_fid& fid) const { return rowsOf(fid).inode; }
  ModelFile* file(long long inode);
  ModelFile& existing(long long inode);
  // 0 when there is none.
  long long childOf(long long parent, const std::string& name) const;
  // The link that stands in that folder under that name. A row that is missing ends the search.
  long long linkAt(const Rows& rows, long long parent, const std::string& name);
  void deletePair(long long inode, long long fidRowId);
};

inline ModelTables::Rows ModelTables::rowsOf(const fsf_fid& fid) const {
  Rows rows;
  for (const auto& [rowId, row] : fids) {
    if (std::memcmp(&row.fid, &fid, sizeof fid) != 0) continue;
    rows.inodes.push_back(row.filesRowId);
    rows.inode = row.filesRowId;
    rows.fidRowId = rowId;
  }
  return rows;
}

inline ModelFile* ModelTables::file(long long inode) {
  const auto found = files.find(inode);
  return found == files.end() ? nullptr : &found->second;
}

inline ModelFile& ModelTables::existing(long long inode) {
  ModelFile* row = file(inode);
  if (!row) throw Inconsistent{};
  return *row;
}

inline long long ModelTables::childOf(long long parent, const std::string& name) const {
  for (const auto& [inode, row] : files)
    if (row.parent == parent && row.name == name) return inode;
  return 0;
}

inline long long ModelTables::linkAt(const Rows& rows, long long parent, const std::string& name) {
  for (const long long inode : rows.inodes) {
    const ModelFile& row = existing(inode);
    if (row.parent == parent && row.name == name) return inode;
  }
  throw Inconsistent{};
}

inline void ModelTables::deletePair(long long inode, long long fidRowId) {
  files.erase(inode);
  fids.erase(fidRowId);
}

inline std::vector<std::string> ModelTables::fileRows() const {
  std::vector<std::string> rows;
  for (const auto& [inode, r] : files)
    rows.push_back(rowText(inode, r.fidRowId, r.parent, r.mode, r.nlink, r.uid, r.gid, r.size,
                           r.blocks, r.atime, r.mtime, r.ctime, r.time, r.type, r.name));
  return rows;
}

inline std::vector<std::string> ModelTables::fidRows() const {
  std::vector<std::string> rows;
  for (const auto& [rowId, r] : fids)
    rows.push_back(rowText(rowId, r.filesRowId, 0LL, 0LL, fidText(r.fid)));
  return rows;
}

}  // namespace kddc::test
