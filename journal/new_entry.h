// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the record of a new file or folder tells about it. Private.
#pragma once

#include <sys/stat.h>

namespace kddc {

// Times in seconds. A record has no change time; what is new was changed when it was made. The rest
// of `st` stays as it is.
template <class NewEntryRecord>
void describeNew(struct stat& st, const NewEntryRecord& record, nlink_t links) {
  st.st_nlink = links;
  st.st_mode = record.mode;
  st.st_uid = static_cast<uid_t>(record.uid);
  st.st_gid = static_cast<gid_t>(record.gid);
  st.st_atime = record.atime.tv_sec;
  st.st_mtime = st.st_ctime = record.mtime.tv_sec;
}

}  // namespace kddc
