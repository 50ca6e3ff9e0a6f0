// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One record of each command: as fields, and as the bytes in which it travels, both written by
// hand. What the codec is tested against, and what the fuzzer starts from.
#pragma once

#include <initializer_list>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "records/journal_record.h"
#include "tests/support/bytes.h"

namespace kddc::test {

// 24 equal bytes.
inline fsf_fid fidOf(int byte) {
  fsf_fid fid;
  for (unsigned char& b : fid.data) b = static_cast<unsigned char>(byte);
  return fid;
}

// A record of command `cmd` with the header that all samples share and a payload of zeros.
inline FlrJrnCommandRaw record(unsigned int cmd) {
  FlrJrnCommandRaw r{};
  r.cmd = cmd;
  r.timestamp = 1000;
  r.seq_num = 9;
  r.devt = 7;
  r.mask = 5;
  return r;
}

inline const unsigned char* data(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

struct Sample {
  const char* name;
  FlrJrnCommandRaw record;
  std::string wire;
};

// How GoogleTest shows a sample.
inline void PrintTo(const Sample& sample, std::ostream* out) {
  *out << sample.name;
}

namespace samples {

inline constexpr std::string_view kHeader =
    "0000000000000007 0000000000000009 000003e8 0005";  // devt, seq_num, timestamp, mask
inline constexpr std::string_view kFidA = "a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1";
inline constexpr std::string_view kFidB = "b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2";
inline constexpr std::string_view kFidC = "c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3";
inline constexpr std::string_view kFidD = "d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4";

// "05 000078" followed by the shared header and `payload`.
inline std::string wire(std::string_view cmdAndLength,
                        std::initializer_list<std::string_view> payload) {
  std::string text(cmdAndLength);
  text += kHeader;
  for (const std::string_view part : payload) text += part;
  return text;
}

inline Sample noop() {
  return {"NOOP", record(FLR_JRN_NOOP), wire("00 00001a", {})};
}

inline Sample snap() {
  FlrJrnCommandRaw r = record(FLR_JRN_SNAP);
  r.u.snap = {0x1112131415161718, "tok", 0x2122232425262728};
  return {"SNAP", r, wire("01 00002e", {"1112131415161718", "746f6b00", "2122232425262728"})};
}

inline Sample setattr() {
  FlrJrnCommandRaw r = record(FLR_JRN_SETATTR);
  r.u.setattr = {.fid = fidOf(0xa1),
                 .mode_valid = 1,
                 .uid_valid = 2,
                 .gid_valid = 3,
                 .atime_valid = 4,
                 .mtime_valid = 5,
                 .ctime_valid = 6,
                 .size_valid = 7,
                 .blocks_valid = 255,
                 .mode = 0100644,
                 .uid = 501,
                 .gid = 20,
                 .atime = {1, 2},
                 .mtime = {3, 4},
                 .ctime = {5, 6},
                 .size = 0x3132333435363738,
                 .blocks = 0x4142434445464748};
  return {"SETATTR", r,
          wire("02 000076",
               {kFidA, "01 02 03 04 05 06 07 ff", "000081a4 00000000000001f5 0000000000000014",
                "00000001 00000002 00000003 00000004 00000005 00000006",
                "3132333435363738 4142434445464748"})};
}

inline FlrJrnWriteRaw writePayload() {
  return {fidOf(0xa1), 0x5152535455565758, 3, data("abc")};
}
inline constexpr std::string_view kWritten = "5152535455565758 00000003 616263";

inline Sample write() {
  FlrJrnCommandRaw r = record(FLR_JRN_WRITE);
  r.u.write = writePayload();
  return {"WRITE", r, wire("04 000041", {kFidA, kWritten})};
}

inline Sample twrite() {
  FlrJrnCommandRaw r = record(FLR_JRN_TWRITE);
  r.u.write = writePayload();
  return {"TWRITE", r, wire("12 000041", {kFidA, kWritten})};
}

inline constexpr std::string_view kNewEntry =
    "61 00"                                       // short_name "a"
    "000081a4 00000000000001f5 0000000000000014"  // mode 0100644, uid, gid
    "ffffffff 00000002 00000003 00000004";        // atime, mtime

inline Sample create() {
  FlrJrnCommandRaw r = record(FLR_JRN_CREATE);
  r.u.create = {.par_fid = fidOf(0xa1),
                .fid = fidOf(0xb2),
                .short_name = "a",
                .mode = 0100644,
                .uid = 501,
                .gid = 20,
                .atime = {0xffffffff, 2},
                .mtime = {3, 4},
                .rdev = 0x6162636465666768};
  return {"CREATE", r, wire("05 000078", {kFidA, kFidB, kNewEntry, "6162636465666768"})};
}

inline Sample mkdir() {
  FlrJrnCommandRaw r = record(FLR_JRN_MKDIR);
  r.u.mkdir = {.par_fid = fidOf(0xa1),
               .fid = fidOf(0xb2),
               .short_name = "a",
               .mode = 0100644,
               .uid = 501,
               .gid = 20,
               .atime = {0xffffffff, 2},
               .mtime = {3, 4}};
  return {"MKDIR", r, wire("06 000070", {kFidA, kFidB, kNewEntry})};
}

inline Sample remove() {
  FlrJrnCommandRaw r = record(FLR_JRN_REMOVE);
  r.u.remove = {fidOf(0xa1), "ab", fidOf(0xb2), 2};
  return {"REMOVE", r, wire("07 000051", {kFidA, "616200", kFidB, "00000002"})};
}

inline Sample rmdir() {
  FlrJrnCommandRaw r = record(FLR_JRN_RMDIR);
  r.u.rmdir = {fidOf(0xa1), fidOf(0xb2), "ab"};
  return {"RMDIR", r, wire("08 00004d", {kFidA, kFidB, "616200"})};
}

inline Sample link() {
  FlrJrnCommandRaw r = record(FLR_JRN_LINK);
  r.u.link = {fidOf(0xa1), fidOf(0xb2), "ab"};
  return {"LINK", r, wire("09 00004d", {kFidA, kFidB, "616200"})};
}

inline Sample symlink() {
  FlrJrnCommandRaw r = record(FLR_JRN_SYMLINK);
  r.u.symlink = {"to/x", fidOf(0xa1), "ab", fidOf(0xb2), 501, 20};
  return {"SYMLINK", r,
          wire("0a 000062",
               {"746f2f7800", kFidA, "616200", kFidB, "00000000000001f5 0000000000000014"})};
}

inline Sample rename() {
  FlrJrnCommandRaw r = record(FLR_JRN_RENAME);
  r.u.rename = {fidOf(0xa1), fidOf(0xb2), "ab", 1, fidOf(0xc3), fidOf(0xd4), "xyz"};
  return {"RENAME", r, wire("0b 000082", {kFidA, kFidB, "616200", "01", kFidC, kFidD, "78797a00"})};
}

inline Sample ext2SetFlags() {
  FlrJrnCommandRaw r = record(FLR_JRN_EXT2_SETFLAGS);
  r.u.ext2_setflags = {fidOf(0xa1), 0x71727374};
  return {"EXT2_SETFLAGS", r, wire("0c 000036", {kFidA, "71727374"})};
}

inline Sample setAcl() {
  FlrJrnCommandRaw r = record(FLR_JRN_SET_ACL);
  r.u.set_acl = {fidOf(0xa1), 4, data("acls")};
  return {"SET_ACL", r, wire("0d 00003a", {kFidA, "00000004", "61636c73"})};
}

inline FlrJrnSetXattrRaw xattrPayload() {
  return {fidOf(0xa1), 0x81828384, "user.x", 2, data("hi")};
}
inline constexpr std::string_view kXattr = "81828384 757365722e7800 00000002 6869";

inline Sample setXattr() {
  FlrJrnCommandRaw r = record(FLR_JRN_SETXATTR);
  r.u.setxattr = xattrPayload();
  return {"SETXATTR", r, wire("0e 000043", {kFidA, kXattr})};
}

inline Sample setXattrAix() {
  FlrJrnCommandRaw r = record(FLR_JRN_SETXATTR_AIX);
  r.u.setxattr = xattrPayload();
  return {"SETXATTR_AIX", r, wire("15 000043", {kFidA, kXattr})};
}

inline Sample rmXattr() {
  FlrJrnCommandRaw r = record(FLR_JRN_RMXATTR);
  r.u.rmxattr = {fidOf(0xa1), "user.x"};
  return {"RMXATTR", r, wire("0f 000039", {kFidA, "757365722e7800"})};
}

inline Sample rmXattrAix() {
  FlrJrnCommandRaw r = record(FLR_JRN_RMXATTR_AIX);
  r.u.rmxattr = {fidOf(0xa1), "user.x"};
  return {"RMXATTR_AIX", r, wire("16 000039", {kFidA, "757365722e7800"})};
}

inline Sample stub() {
  FlrJrnCommandRaw r = record(FLR_JRN_STUB);
  r.u.stub = {fidOf(0xa1), "m"};
  return {"STUB", r, wire("10 000034", {kFidA, "6d00"})};
}

inline Sample unstub() {
  FlrJrnCommandRaw r = record(FLR_JRN_UNSTUB);
  r.u.unstub = {fidOf(0xa1)};
  return {"UNSTUB", r, wire("11 000032", {kFidA})};
}

inline Sample writeDdr() {
  FlrJrnCommandRaw r = record(FLR_JRN_WRITE_DDR);
  r.u.write_ddr = {fidOf(0xa1), 0x5152535455565758, 0x91929394};
  return {"WRITE_DDR", r, wire("13 00003e", {kFidA, "5152535455565758 91929394"})};
}

inline Sample fclear() {
  FlrJrnCommandRaw r = record(FLR_JRN_FCLEAR);
  r.u.fclear = {fidOf(0xa1), 0x5152535455565758, 0xa1a2a3a4a5a6a7a8};
  return {"FCLEAR", r, wire("14 000042", {kFidA, "5152535455565758 a1a2a3a4a5a6a7a8"})};
}

inline Sample txtmsg() {
  FlrJrnCommandRaw r = record(FLR_JRN_TXTMSG);
  r.u.txtmsg = {"hello"};
  return {"TXTMSG", r, wire("17 000020", {"68656c6c6f00"})};
}

inline std::vector<Sample> oneOfEachCommand() {
  return {noop(),     snap(),     setattr(),     write(),      create(), mkdir(),
          remove(),   rmdir(),    link(),        symlink(),    rename(), ext2SetFlags(),
          setAcl(),   setXattr(), rmXattr(),     stub(),       unstub(), twrite(),
          writeDdr(), fclear(),   setXattrAix(), rmXattrAix(), txtmsg()};
}

}  // namespace samples

using samples::oneOfEachCommand;

}  // namespace kddc::test
