// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The rows that no entry of the disk claimed. Both callbacks log under one tag: logs are searched
// for it.
#include "catalogue/db_access.h"
#include "platform/logged.h"

namespace {

constexpr char kTag[] = "StaleFilesCallBack";

}  // namespace

int StaleFidCallBack(void* /*object*/, int /*columns*/, char** values, char** /*names*/) {
  const auto tell = [&] {
    if (!values[0]) {
      dbg.Error(kTag, "FILES_ROWID cannot be NULL");
      return -1;
    }
    dbg.Debug(kTag, "FILES_ROWID[%s]", values[0]);
    return 0;
  };
  return kddc::absorbed(kTag, tell, -1);
}

int StaleFilesCallBack(void* /*object*/, int /*columns*/, char** values, char** /*names*/) {
  const auto tell = [&] {
    if (!values[0] || !values[1]) {
      dbg.Error(kTag, "INODE,NAME cannot be NULL");
      return -1;
    }
    dbg.Debug(kTag, "INODE[%s] ANAME[%s]", values[0], values[1]);
    return 0;
  };
  return kddc::absorbed(kTag, tell, -1);
}
