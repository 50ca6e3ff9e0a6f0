// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The payloads of all commands, declared once.
//
// A layout shows the fields of a payload to a visitor, in the order in which they travel; a visitor
// is one method for each kind of field. Size, encoder, decoder, check and dump are visitors. To add
// a command, add its record, a layout and a row of kCommands.
//
//   v.fid    an identifier, 24 bytes
//   v.byte   an integer of any width in memory, of which the low byte travels
//   v.u32    4 bytes
//   v.u64    8 bytes
//   v.time   two halves of 4 bytes
//   v.text   characters and a NUL
//   v.block  bytes, whose count is a field that came before: a decoder knows it already
//   v.none   a field that does not travel
//
// The name of a field and its form are for people: the codec does not look at them.
#pragma once

#include <tuple>
#include <type_traits>

#include "records/journal_record.h"

namespace kddc {

// How a field is shown to people: integers in decimal, unless something else is said; blocks not at
// all, or by their first bytes.
enum class As { kDecimal, kOctal, kHex, kPreview, kHidden };

template <class Payload>
inline constexpr auto layout = nullptr;

template <>
inline constexpr auto layout<unsigned char> = [](auto& v, auto& noop) { v.none(noop); };

template <>
inline constexpr auto layout<FlrJrnSnapRaw> = [](auto& v, auto& r) {
  v.u64("job_id", r.job_id);
  v.text("job_token", r.job_token);
  v.u64("set_id", r.set_id);
};

template <>
inline constexpr auto layout<FlrJrnSetAttrRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.byte("mode_valid", r.mode_valid);
  v.byte("uid_valid", r.uid_valid);
  v.byte("gid_valid", r.gid_valid);
  v.byte("atime_valid", r.atime_valid);
  v.byte("mtime_valid", r.mtime_valid);
  v.byte("ctime_valid", r.ctime_valid);
  v.byte("size_valid", r.size_valid);
  v.byte("blocks_valid", r.blocks_valid);
  v.u32("mode", r.mode, As::kOctal);
  v.u64("uid", r.uid);
  v.u64("gid", r.gid);
  v.time("atime", r.atime);
  v.time("mtime", r.mtime);
  v.time("ctime", r.ctime);
  v.u64("size", r.size);
  v.u64("blocks", r.blocks);
};

template <>
inline constexpr auto layout<FlrJrnWriteRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.u64("offset", r.offset);
  v.u32("size", r.size);
  v.block("data", r.data, r.size, As::kPreview);
};

template <>
inline constexpr auto layout<FlrJrnMkDirRaw> = [](auto& v, auto& r) {
  v.fid("par_fid", r.par_fid);
  v.fid("fid", r.fid);
  v.text("short_name", r.short_name);
  v.u32("mode", r.mode, As::kOctal);
  v.u64("uid", r.uid);
  v.u64("gid", r.gid);
  v.time("atime", r.atime);
  v.time("mtime", r.mtime);
};

template <>
inline constexpr auto layout<FlrJrnCreateRaw> = [](auto& v, auto& r) {
  layout<FlrJrnMkDirRaw>(v, r);
  v.u64("rdev", r.rdev, As::kHex);
};

template <>
inline constexpr auto layout<FlrJrnRemoveRaw> = [](auto& v, auto& r) {
  v.fid("par_fid", r.par_fid);
  v.text("short_name", r.short_name);
  v.fid("file_fid", r.file_fid);
  v.u32("nlink", r.nlink);
};

template <>
inline constexpr auto layout<FlrJrnRmDirRaw> = [](auto& v, auto& r) {
  v.fid("dir_fid", r.dir_fid);
  v.fid("par_fid", r.par_fid);
  v.text("short_name", r.short_name);
};

template <>
inline constexpr auto layout<FlrJrnLinkRaw> = [](auto& v, auto& r) {
  v.fid("src_fid", r.src_fid);
  v.fid("dst_par_fid", r.dst_par_fid);
  v.text("dst_short_name", r.dst_short_name);
};

template <>
inline constexpr auto layout<FlrJrnSymLinkRaw> = [](auto& v, auto& r) {
  v.text("src_name", r.src_name);
  v.fid("dst_par_fid", r.dst_par_fid);
  v.text("dst_short_name", r.dst_short_name);
  v.fid("dst_fid", r.dst_fid);
  v.u64("uid", r.uid);
  v.u64("gid", r.gid);
};

template <>
inline constexpr auto layout<FlrJrnRenameRaw> = [](auto& v, auto& r) {
  v.fid("src_fid", r.src_fid);
  v.fid("src_par_fid", r.src_par_fid);
  v.text("src_short_name", r.src_short_name);
  v.byte("dst_fid_valid", r.dst_fid_valid);
  v.fid("dst_fid", r.dst_fid);
  v.fid("dst_par_fid", r.dst_par_fid);
  v.text("dst_short_name", r.dst_short_name);
};

template <>
inline constexpr auto layout<FlrJrnExt2SetFlagsRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.u32("flags", r.flags, As::kHex);
};

template <>
inline constexpr auto layout<FlrJrnSetAclRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.u32("data_len", r.data_len);
  v.block("data", r.data, r.data_len, As::kHidden);
};

template <>
inline constexpr auto layout<FlrJrnSetXattrRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.u32("flags", r.flags);
  v.text("attr_name", r.attr_name);
  v.u32("attr_len", r.attr_len);
  v.block("value", r.value, r.attr_len, As::kHidden);
};

template <>
inline constexpr auto layout<FlrJrnRmXattrRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.text("attr_name", r.attr_name);
};

template <>
inline constexpr auto layout<FlrJrnStubRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.text("meta", r.meta);
};

template <>
inline constexpr auto layout<FlrJrnUnStubRaw> = [](auto& v, auto& r) { v.fid("fid", r.fid); };

template <>
inline constexpr auto layout<FlrJrnWriteDdrRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.u64("offset", r.offset);
  v.u32("size", r.size);
};

template <>
inline constexpr auto layout<FlrJrnFClearRaw> = [](auto& v, auto& r) {
  v.fid("fid", r.fid);
  v.u64("offset", r.offset);
  v.u64("length", r.length);
};

template <>
inline constexpr auto layout<FlrJrnTxtMsgRaw> = [](auto& v, auto& r) { v.text("msg", r.msg); };

using Payload = decltype(FlrJrnCommandRaw::u);

template <FlrJrnCmd Code, auto Member>
struct Command {
  const char* name;
};

// One row per command: its code, its place in the decoded record, its name in dumps and logs. A
// code without a row (3, and all above 23) is unknown to every function that asks here.
inline constexpr std::tuple kCommands{
    Command<FLR_JRN_NOOP, &Payload::noop>{"FLR_JRN_NOOP"},
    Command<FLR_JRN_SNAP, &Payload::snap>{"FLR_JRN_SNAP"},
    Command<FLR_JRN_SETATTR, &Payload::setattr>{"FLR_JRN_SETATTR"},
    Command<FLR_JRN_WRITE, &Payload::write>{"FLR_JRN_WRITE"},
    Command<FLR_JRN_CREATE, &Payload::create>{"FLR_JRN_CREATE"},
    Command<FLR_JRN_MKDIR, &Payload::mkdir>{"FLR_JRN_MKDIR"},
    Command<FLR_JRN_REMOVE, &Payload::remove>{"FLR_JRN_REMOVE"},
    Command<FLR_JRN_RMDIR, &Payload::rmdir>{"FLR_JRN_RMDIR"},
    Command<FLR_JRN_LINK, &Payload::link>{"FLR_JRN_LINK"},
    Command<FLR_JRN_SYMLINK, &Payload::symlink>{"FLR_JRN_SYMLINK"},
    Command<FLR_JRN_RENAME, &Payload::rename>{"FLR_JRN_RENAME"},
    Command<FLR_JRN_EXT2_SETFLAGS, &Payload::ext2_setflags>{"FLR_JRN_EXT2_SETFLAGS"},
    Command<FLR_JRN_SET_ACL, &Payload::set_acl>{"FLR_JRN_SET_ACL"},
    Command<FLR_JRN_SETXATTR, &Payload::setxattr>{"FLR_JRN_SETXATTR"},
    Command<FLR_JRN_RMXATTR, &Payload::rmxattr>{"FLR_JRN_RMXATTR"},
    Command<FLR_JRN_STUB, &Payload::stub>{"FLR_JRN_STUB"},
    Command<FLR_JRN_UNSTUB, &Payload::unstub>{"FLR_JRN_UNSTUB"},
    Command<FLR_JRN_TWRITE, &Payload::write>{"FLR_JRN_TWRITE"},
    Command<FLR_JRN_WRITE_DDR, &Payload::write_ddr>{"FLR_JRN_WRITE_DDR"},
    Command<FLR_JRN_FCLEAR, &Payload::fclear>{"FLR_JRN_FCLEAR"},
    Command<FLR_JRN_SETXATTR_AIX, &Payload::setxattr>{"FLR_JRN_SETXATTR_AIX"},
    Command<FLR_JRN_RMXATTR_AIX, &Payload::rmxattr>{"FLR_JRN_RMXATTR_AIX"},
    Command<FLR_JRN_TXTMSG, &Payload::txtmsg>{"FLR_JRN_TXTMSG"},
};

template <class Visitor, class Record, FlrJrnCmd Code, auto Member>
bool visitIf(Command<Code, Member>, Visitor& visitor, Record& record) {
  if (record.cmd != Code) return false;
  auto& payload = record.u.*Member;
  layout<std::remove_cvref_t<decltype(payload)>>(visitor, payload);
  return true;
}

// Shows the payload of `record` to `visitor`, field by field. False when its command is unknown.
template <class Visitor, class Record>
bool visitPayload(Visitor& visitor, Record& record) {
  return std::apply([&](auto... row) { return (visitIf(row, visitor, record) || ...); }, kCommands);
}

template <FlrJrnCmd Code, auto Member>
constexpr bool nameIf(Command<Code, Member> row, unsigned int cmd, const char*& name) {
  if (cmd != Code) return false;
  name = row.name;
  return true;
}

// The name of a command, "UNKNOWN" where it has none.
constexpr const char* commandName(unsigned int cmd) {
  const char* name = "UNKNOWN";
  std::apply([&](auto... row) { (nameIf(row, cmd, name) || ...); }, kCommands);
  return name;
}

}  // namespace kddc
