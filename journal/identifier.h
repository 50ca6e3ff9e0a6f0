// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// From the identifiers of a record to rows. An identifier has one row for each name of the file;
// one that the catalogue does not know has none, which is no error here. Private.
#pragma once

#include <list>

#include "catalogue/db_access.h"

namespace kddc {

// The last row of an identifier, in both tables. Zeros, which no row has, when there is none.
struct RowIds {
  unsigned long long inode = 0;
  unsigned long long fidsRowId = 0;
};

inline RowIds rowOf(DCSqliteDB& db, const fsf_fid& fid) {
  RowIds row;
  db.GetFidTuple(&fid, nullptr, &row.inode, nullptr, nullptr, &row.fidsRowId, nullptr);
  return row;
}

// The inode alone, for a folder, which has one row.
inline unsigned long long inodeOf(DCSqliteDB& db, const fsf_fid& fid) {
  return rowOf(db, fid).inode;
}

// One inode for each name, in the order of the FIDS rows.
inline std::list<unsigned long long> inodesOf(DCSqliteDB& db, const fsf_fid& fid) {
  std::list<unsigned long long> inodes;
  db.GetFidTuple(&fid, &inodes, nullptr, nullptr, nullptr, nullptr, nullptr);
  return inodes;
}

}  // namespace kddc
