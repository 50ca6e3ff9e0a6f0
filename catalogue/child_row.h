// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the row callbacks of a removal have in common: reading a child of the folder, and telling
// the query to end when there is nothing to be read or the child cannot be removed. Private.
#pragma once

#include <cstdlib>

#include "catalogue/file_type.h"
#include "platform/logged.h"

namespace kddc {

struct ChildRow {
  unsigned long long inode;
  unsigned long long fidRowId;
  bool isFolder;
};

// Hands the child in `values` (INODE, FID_ROWID, FILE_TYPE) to `remove`. 0, or -1, logged under
// `tag`, which ends the query.
template <class Remove>
int removeChild(const char* tag, char** values, Remove&& remove) {
  const auto readAndRemove = [&] {
    if (!values[0] || !values[1] || !values[2]) {
      dbg.Error(tag, "INODE,FID_ROWID,FILE_TYPE cannot be NULL");
      return -1;
    }
    remove(ChildRow{std::strtoull(values[0], nullptr, 10), std::strtoull(values[1], nullptr, 10),
                    std::atoi(values[2]) == kFolder});
    return 0;
  };
  return absorbed(tag, readAndRemove, -1);
}

}  // namespace kddc
