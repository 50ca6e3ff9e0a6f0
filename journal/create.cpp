// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records about entries that are new on the volume.
#include <sys/stat.h>

#include <cstring>

#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "journal/identifier.h"
#include "journal/new_entry.h"
#include "platform/logged.h"

using kddc::describeNew;
using kddc::inodeOf;
using kddc::kDeriveFromMode;
using kddc::kFolder;
using kddc::logged;

namespace {

// What the record of a new file or folder tells about it, to the nanosecond.
template <class NewEntryRecord>
StatFidName_s entryOf(const NewEntryRecord& record, nlink_t links) {
  StatFidName_s entry{.st = {}, .fid = record.fid, .name = record.short_name};
  describeNew(entry.st, record, links);
  entry.st.st_atim.tv_nsec = record.atime.tv_nsec;
  entry.st.st_mtim.tv_nsec = record.mtime.tv_nsec;
  return entry;
}

}  // namespace

void DCSqliteDB::Create(const FlrJrnCreateRaw& record) {
  logged("DCSqliteDB :: Create", [&] {
    StatFidName_s entry = entryOf(record, 1);
    Insert(&entry, inodeOf(*this, record.par_fid), kDeriveFromMode);
  });
}

void DCSqliteDB::MkDir(const FlrJrnMkDirRaw& record) {
  logged("DCSqliteDB :: MkDir", [&] {
    StatFidName_s entry = entryOf(record, 2);
    // A folder whatever its mode says: the command is proof enough.
    Insert(&entry, inodeOf(*this, record.par_fid), kFolder);
  });
}

void DCSqliteDB::CreateSymLink(const FlrJrnSymLinkRaw& record, int time) {
  logged("DCSqliteDB :: CreateSymLink", [&] {
    StatFidName_s entry{.st = {}, .fid = record.dst_fid, .name = record.dst_short_name};
    entry.st.st_nlink = 1;
    entry.st.st_mode = S_IFLNK | 0777;
    entry.st.st_uid = static_cast<uid_t>(record.uid);
    entry.st.st_gid = static_cast<gid_t>(record.gid);
    entry.st.st_atime = entry.st.st_mtime = entry.st.st_ctime = time;
    entry.st.st_size = static_cast<off_t>(std::strlen(record.src_name));
    Insert(&entry, inodeOf(*this, record.dst_par_fid), kDeriveFromMode);
  });
}
