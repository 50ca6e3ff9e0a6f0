// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A decoded record as text, with all of its fields, for comparing records in tests. Written without
// the layouts of records/record_layout.h, so that a mistake there cannot hide itself.
#pragma once

#include <span>
#include <string>

#include "records/journal_record.h"
#include "tests/support/bytes.h"

namespace kddc::test {

namespace text {

using Block = std::span<const unsigned char>;

inline std::string of(unsigned long long value) {
  return std::to_string(value);
}
inline std::string of(const fsf_fid& fid) {
  return hex(fid.data);
}
inline std::string of(const char* s) {
  return '"' + std::string(s) + '"';
}
inline std::string of(Block block) {
  return '<' + hex(block) + '>';
}
inline std::string of(const FlrJrnTime& time) {
  return std::to_string(time.tv_sec) + "." + std::to_string(time.tv_nsec);
}

template <class... Values>
std::string fields(const Values&... values) {
  std::string line;
  ((line += of(values) + ' '), ...);
  return line;
}

inline std::string of(const FlrJrnSnapRaw& r) {
  return fields(r.job_id, r.job_token, r.set_id);
}
inline std::string of(const FlrJrnSetAttrRaw& r) {
  return fields(r.fid, r.mode_valid, r.uid_valid, r.gid_valid, r.atime_valid, r.mtime_valid,
                r.ctime_valid, r.size_valid, r.blocks_valid, r.mode, r.uid, r.gid, r.atime, r.mtime,
                r.ctime, r.size, r.blocks);
}
inline std::string of(const FlrJrnWriteRaw& r) {
  return fields(r.fid, r.offset, r.size, Block(r.data, r.size));
}
inline std::string of(const FlrJrnCreateRaw& r) {
  return fields(r.par_fid, r.fid, r.short_name, r.mode, r.uid, r.gid, r.atime, r.mtime, r.rdev);
}
inline std::string of(const FlrJrnMkDirRaw& r) {
  return fields(r.par_fid, r.fid, r.short_name, r.mode, r.uid, r.gid, r.atime, r.mtime);
}
inline std::string of(const FlrJrnRemoveRaw& r) {
  return fields(r.par_fid, r.short_name, r.file_fid, r.nlink);
}
inline std::string of(const FlrJrnRmDirRaw& r) {
  return fields(r.dir_fid, r.par_fid, r.short_name);
}
inline std::string of(const FlrJrnLinkRaw& r) {
  return fields(r.src_fid, r.dst_par_fid, r.dst_short_name);
}
inline std::string of(const FlrJrnSymLinkRaw& r) {
  return fields(r.src_name, r.dst_par_fid, r.dst_short_name, r.dst_fid, r.uid, r.gid);
}
inline std::string of(const FlrJrnRenameRaw& r) {
  return fields(r.src_fid, r.src_par_fid, r.src_short_name, r.dst_fid_valid, r.dst_fid,
                r.dst_par_fid, r.dst_short_name);
}
inline std::string of(const FlrJrnExt2SetFlagsRaw& r) {
  return fields(r.fid, r.flags);
}
inline std::string of(const FlrJrnSetAclRaw& r) {
  return fields(r.fid, r.data_len, Block(r.data, r.data_len));
}
inline std::string of(const FlrJrnSetXattrRaw& r) {
  return fields(r.fid, r.flags, r.attr_name, r.attr_len, Block(r.value, r.attr_len));
}
inline std::string of(const FlrJrnRmXattrRaw& r) {
  return fields(r.fid, r.attr_name);
}
inline std::string of(const FlrJrnStubRaw& r) {
  return fields(r.fid, r.meta);
}
inline std::string of(const FlrJrnUnStubRaw& r) {
  return fields(r.fid);
}
inline std::string of(const FlrJrnWriteDdrRaw& r) {
  return fields(r.fid, r.offset, r.size);
}
inline std::string of(const FlrJrnFClearRaw& r) {
  return fields(r.fid, r.offset, r.length);
}
inline std::string of(const FlrJrnTxtMsgRaw& r) {
  return fields(r.msg);
}

}  // namespace text

inline std::string payloadText(const FlrJrnCommandRaw& record) {
  const auto& u = record.u;
  switch (record.cmd) {
    // clang-format off
    case FLR_JRN_NOOP: return "";
    case FLR_JRN_SNAP: return text::of(u.snap);
    case FLR_JRN_SETATTR: return text::of(u.setattr);
    case FLR_JRN_WRITE: case FLR_JRN_TWRITE: return text::of(u.write);
    case FLR_JRN_CREATE: return text::of(u.create);
    case FLR_JRN_MKDIR: return text::of(u.mkdir);
    case FLR_JRN_REMOVE: return text::of(u.remove);
    case FLR_JRN_RMDIR: return text::of(u.rmdir);
    case FLR_JRN_LINK: return text::of(u.link);
    case FLR_JRN_SYMLINK: return text::of(u.symlink);
    case FLR_JRN_RENAME: return text::of(u.rename);
    case FLR_JRN_EXT2_SETFLAGS: return text::of(u.ext2_setflags);
    case FLR_JRN_SET_ACL: return text::of(u.set_acl);
    case FLR_JRN_SETXATTR: case FLR_JRN_SETXATTR_AIX: return text::of(u.setxattr);
    case FLR_JRN_RMXATTR: case FLR_JRN_RMXATTR_AIX: return text::of(u.rmxattr);
    case FLR_JRN_STUB: return text::of(u.stub);
    case FLR_JRN_UNSTUB: return text::of(u.unstub);
    case FLR_JRN_WRITE_DDR: return text::of(u.write_ddr);
    case FLR_JRN_FCLEAR: return text::of(u.fclear);
    case FLR_JRN_TXTMSG: return text::of(u.txtmsg);
    default: return "unknown";
      // clang-format on
  }
}

inline std::string recordText(const FlrJrnCommandRaw& record) {
  return text::fields(record.cmd, record.timestamp, record.seq_num, record.devt, record.mask) +
         "| " + payloadText(record);
}

}  // namespace kddc::test
