// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "driver/found_records.h"

#include "driver/record_mask.h"

namespace kddc {
namespace {

FlrJrnTime timeOf(const timespec& time) {
  return {time.tv_sec, time.tv_nsec};
}

FlrJrnCommandRaw recordOf(FlrJrnCmd cmd, const FoundFile& file) {
  FlrJrnCommandRaw record{};
  record.cmd = cmd;
  record.timestamp = static_cast<unsigned>(file.st.st_ctim.tv_sec);
  record.mask = RecordMask::of(file.st.st_nlink, false).value();
  return record;
}

FlrJrnCommandRaw folderRecord(const fsf_fid& folder, const char* name, const FoundFile& file) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_MKDIR, file);
  record.u.mkdir = {.par_fid = folder,
                    .fid = file.fid,
                    .short_name = name,
                    .mode = file.st.st_mode,
                    .uid = file.st.st_uid,
                    .gid = file.st.st_gid,
                    .atime = timeOf(file.st.st_atim),
                    .mtime = timeOf(file.st.st_mtim)};
  return record;
}

FlrJrnCommandRaw symbolicLinkRecord(const fsf_fid& folder, const char* name,
                                    const FoundFile& file) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_SYMLINK, file);
  record.u.symlink = {.src_name = file.linkText,
                      .dst_par_fid = folder,
                      .dst_short_name = name,
                      .dst_fid = file.fid,
                      .uid = file.st.st_uid,
                      .gid = file.st.st_gid};
  return record;
}

}  // namespace

FlrJrnCommandRaw presentRecord(const fsf_fid& folder, const char* name, const FoundFile& file) {
  if (S_ISDIR(file.st.st_mode)) return folderRecord(folder, name, file);
  if (S_ISLNK(file.st.st_mode)) return symbolicLinkRecord(folder, name, file);
  FlrJrnCommandRaw record = recordOf(FLR_JRN_CREATE, file);
  record.u.create = {.par_fid = folder,
                     .fid = file.fid,
                     .short_name = name,
                     .mode = file.st.st_mode,
                     .uid = file.st.st_uid,
                     .gid = file.st.st_gid,
                     .atime = timeOf(file.st.st_atim),
                     .mtime = timeOf(file.st.st_mtim),
                     .rdev = file.st.st_rdev};
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

FlrJrnCommandRaw linkCountRecord(const FoundFile& file) {
  FlrJrnCommandRaw record = recordOf(FLR_JRN_REMOVE, file);
  record.u.remove = {.par_fid = {},
                     .short_name = "",
                     .file_fid = file.fid,
                     .nlink = static_cast<unsigned>(file.st.st_nlink)};
  return record;
}

FlrJrnCommandRaw absentRecord(const fsf_fid& folder, const char* name) {
  FlrJrnCommandRaw record{};
  record.cmd = FLR_JRN_REMOVE;
  record.u.remove = {.par_fid = folder, .short_name = name, .file_fid = {}, .nlink = 0};
  return record;
}

}  // namespace kddc
