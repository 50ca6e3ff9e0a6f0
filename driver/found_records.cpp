// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "driver/found_records.h"

#include <algorithm>
#include <cstdint>

namespace kddc {
namespace {

// In the place of an identifier that the driver does not know.
constexpr fsf_fid kNobody{};

// The codec writes whole seconds and nanoseconds; the catalogue keeps the seconds.
FlrJrnTime timeOf(const timespec& time) {
  return {time.tv_sec, time.tv_nsec};
}

FlrJrnCommandRaw recordOf(FlrJrnCmd cmd) {
  FlrJrnCommandRaw record{};
  record.cmd = cmd;
  return record;
}

// The change time of the file, not the time of the look: it is what decides whether the change was
// made while the catalogue was open.
FlrJrnCommandRaw recordOf(FlrJrnCmd cmd, const FoundFile& file, bool listed = false) {
  FlrJrnCommandRaw record = recordOf(cmd);
  record.timestamp = static_cast<std::uint32_t>(file.st.st_ctim.tv_sec);
  record.mask = RecordMask::of(file.st.st_nlink, listed).value();
  return record;
}

// What MKDIR and CREATE have in common.
template <class NewEntryRecord>
void describe(NewEntryRecord& record, const FoundName& name, const FoundFile& file) {
  record.par_fid = name.folder;
  record.fid = file.fid;
  record.short_name = name.name;
  record.mode = file.st.st_mode;
  record.uid = file.st.st_uid;
  record.gid = file.st.st_gid;
  record.atime = timeOf(file.st.st_atim);
  record.mtime = timeOf(file.st.st_mtim);
}

FlrJrnCommandRaw mkdirRecord(const FoundName& name, const FoundFile& file, bool listed) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_MKDIR, file, listed);
  describe(record.u.mkdir, name, file);
  return record;
}

FlrJrnCommandRaw symlinkRecord(const FoundName& name, const FoundFile& file, bool listed) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_SYMLINK, file, listed);
  record.u.symlink = {.src_name = file.linkText,
                      .dst_par_fid = name.folder,
                      .dst_short_name = name.name,
                      .dst_fid = file.fid,
                      .uid = file.st.st_uid,
                      .gid = file.st.st_gid};
  return record;
}

FlrJrnCommandRaw createRecord(const FoundName& name, const FoundFile& file, bool listed) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_CREATE, file, listed);
  describe(record.u.create, name, file);
  record.u.create.rdev = file.st.st_rdev;
  return record;
}

}  // namespace

FlrJrnCommandRaw presentRecord(const FoundName& name, const FoundFile& file, bool listed) {
  if (S_ISDIR(file.st.st_mode)) return mkdirRecord(name, file, listed);
  if (S_ISLNK(file.st.st_mode)) return symlinkRecord(name, file, listed);
  return createRecord(name, file, listed);
}

// The replaced file is told of by a record of its own: who it was can be looked up no more.
FlrJrnCommandRaw renameRecord(const FoundFile& file, const FoundName& from, const FoundName& to) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_RENAME, file);
  record.u.rename = {.src_fid = file.fid,
                     .src_par_fid = from.folder,
                     .src_short_name = from.name,
                     .dst_fid_valid = 0,
                     .dst_fid = kNobody,
                     .dst_par_fid = to.folder,
                     .dst_short_name = to.name};
  return record;
}

FlrJrnCommandRaw attributesRecord(const FoundFile& file) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_SETATTR, file);
  record.u.setattr = {.fid = file.fid,
                      .mode_valid = 1,
                      .uid_valid = 1,
                      .gid_valid = 1,
                      .atime_valid = 1,
                      .mtime_valid = 1,
                      .ctime_valid = 1,
                      .size_valid = 1,
                      .blocks_valid = 1,
                      .mode = file.st.st_mode,
                      .uid = file.st.st_uid,
                      .gid = file.st.st_gid,
                      .atime = timeOf(file.st.st_atim),
                      .mtime = timeOf(file.st.st_mtim),
                      .ctime = timeOf(file.st.st_ctim),
                      .size = static_cast<unsigned long long>(file.st.st_size),
                      .blocks = static_cast<unsigned long long>(file.st.st_blocks)};
  return record;
}

FlrJrnCommandRaw stubRecord(const FoundFile& file, bool isStub) {
  FlrJrnCommandRaw record = recordOf(isStub ? FLR_JRN_STUB : FLR_JRN_UNSTUB, file);
  if (isStub)
    record.u.stub = {.fid = file.fid, .meta = ""};
  else
    record.u.unstub = {.fid = file.fid};
  return record;
}

// Without name and folder a REMOVE tells the link count alone.
FlrJrnCommandRaw linkCountRecord(const FoundFile& file) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_REMOVE, file);
  record.u.remove = {.par_fid = kNobody,
                     .short_name = "",
                     .file_fid = file.fid,
                     .nlink = static_cast<unsigned>(std::min<nlink_t>(file.st.st_nlink, ~0U))};
  return record;
}

FlrJrnCommandRaw noLinksRecord(const fsf_fid& file) {
  return absentRecord({kNobody, ""}, file);
}

// Without a time: nothing is there that bears one. `lost` may be nobody.
FlrJrnCommandRaw absentRecord(const FoundName& name, const fsf_fid& lost, unsigned links) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_REMOVE);
  record.u.remove = {
      .par_fid = name.folder, .short_name = name.name, .file_fid = lost, .nlink = links};
  return record;
}

FlrJrnCommandRaw absentFolderRecord(const FoundName& name, const fsf_fid& lost) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_RMDIR);
  record.u.rmdir = {.dir_fid = lost, .par_fid = name.folder, .short_name = name.name};
  return record;
}

}  // namespace kddc
