// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The journal record: one change on a volume, as bytes and as fields, and the way between them.
//
//   producer: fill a FlrJrnCommandRaw ─► getRawCmdSize ─► encodeRawCmd ─► bytes
//   consumer: bytes ─► kddc::isWellFormedRecord, if they come from outside ─► decodeRawCmd
//   people:   printRawCmd
//
// A RECORD AS BYTES. Integers are big-endian; nothing is aligned or padded.
//
//    0   1  cmd        the command, a FlrJrnCmd
//    1   3  length     of the whole record in bytes, this header included
//    4   8  devt       the volume's device
//   12   8  seq_num    sequence number of the record
//   20   4  timestamp  time of the change, in seconds
//   24   2  mask       carried through, not interpreted
//   26  ..  payload    the fields of the command's own record, in the order declared below
//
// The fields of a payload travel as
//   fsf_fid               its 24 bytes, unswapped
//   unsigned char         1 byte
//   unsigned int          4 bytes, but 1 byte for FlrJrnRenameRaw::dst_fid_valid
//   unsigned long long    8 bytes
//   FlrJrnTime            4 bytes of seconds, 4 bytes of nanoseconds
//   const char*           its characters and a NUL
//   const unsigned char*  as many bytes as the integer field before it says
//
// Ownership: a decoded record owns nothing. Its strings and data blocks point into the bytes it was
// decoded from, and are valid as long as those live unchanged.
//
// Threads: all functions are reentrant. Nothing here allocates, logs or throws. Failures are result
// codes, see each function.
#pragma once

#include <cstddef>

#include "platform/export.h"
#include "records/fsf_fid.h"

// The commands. Code 3 is unassigned: as a code above 23, it is unknown to the decoder and to
// getRawCmdSize, while the encoder makes a bare header of it.
enum FlrJrnCmd : unsigned int {
  FLR_JRN_NOOP = 0,  // no payload
  FLR_JRN_SNAP = 1,
  FLR_JRN_SETATTR = 2,
  FLR_JRN_WRITE = 4,
  FLR_JRN_CREATE = 5,
  FLR_JRN_MKDIR = 6,
  FLR_JRN_REMOVE = 7,
  FLR_JRN_RMDIR = 8,
  FLR_JRN_LINK = 9,
  FLR_JRN_SYMLINK = 10,
  FLR_JRN_RENAME = 11,
  FLR_JRN_EXT2_SETFLAGS = 12,
  FLR_JRN_SET_ACL = 13,
  FLR_JRN_SETXATTR = 14,
  FLR_JRN_RMXATTR = 15,
  FLR_JRN_STUB = 16,
  FLR_JRN_UNSTUB = 17,
  FLR_JRN_TWRITE = 18,  // FlrJrnWriteRaw
  FLR_JRN_WRITE_DDR = 19,
  FLR_JRN_FCLEAR = 20,
  FLR_JRN_SETXATTR_AIX = 21,  // FlrJrnSetXattrRaw
  FLR_JRN_RMXATTR_AIX = 22,   // FlrJrnRmXattrRaw
  FLR_JRN_TXTMSG = 23,
};

// A point in time. Only the low 32 bits of each half travel, and they are read back as unsigned:
// times before 1970 do not survive, by design of the format.
struct FlrJrnTime {
  long long tv_sec;
  long long tv_nsec;
};

// A snapshot was taken.
struct FlrJrnSnapRaw {
  unsigned long long job_id;
  const char* job_token;
  unsigned long long set_id;
};

// Attributes changed. A flag tells whether its value is meant; all values travel all the same.
struct FlrJrnSetAttrRaw {
  fsf_fid fid;
  unsigned char mode_valid;
  unsigned char uid_valid;
  unsigned char gid_valid;
  unsigned char atime_valid;
  unsigned char mtime_valid;
  unsigned char ctime_valid;
  unsigned char size_valid;
  unsigned char blocks_valid;
  unsigned int mode;
  unsigned long long uid;
  unsigned long long gid;
  FlrJrnTime atime;
  FlrJrnTime mtime;
  FlrJrnTime ctime;
  unsigned long long size;    // bytes
  unsigned long long blocks;  // as st_blocks
};

// `size` bytes were written at `offset`.
struct FlrJrnWriteRaw {
  fsf_fid fid;
  unsigned long long offset;
  unsigned int size;
  const unsigned char* data;
};

// A file `fid` appeared as `short_name` in the folder `par_fid`.
struct FlrJrnCreateRaw {
  fsf_fid par_fid;
  fsf_fid fid;
  const char* short_name;
  unsigned int mode;
  unsigned long long uid;
  unsigned long long gid;
  FlrJrnTime atime;
  FlrJrnTime mtime;
  unsigned long long rdev;  // the device that a device file stands for
};

// A folder appeared.
struct FlrJrnMkDirRaw {
  fsf_fid par_fid;
  fsf_fid fid;
  const char* short_name;
  unsigned int mode;
  unsigned long long uid;
  unsigned long long gid;
  FlrJrnTime atime;
  FlrJrnTime mtime;
};

// The name of a file went away; `nlink` is the link count that was reported with the removal.
struct FlrJrnRemoveRaw {
  fsf_fid par_fid;
  const char* short_name;
  fsf_fid file_fid;
  unsigned int nlink;
};

// A folder went away.
struct FlrJrnRmDirRaw {
  fsf_fid dir_fid;
  fsf_fid par_fid;
  const char* short_name;
};

// The existing file `src_fid` got a further name.
struct FlrJrnLinkRaw {
  fsf_fid src_fid;
  fsf_fid dst_par_fid;
  const char* dst_short_name;
};

// A symbolic link `dst_fid` to the text `src_name` appeared.
struct FlrJrnSymLinkRaw {
  const char* src_name;
  fsf_fid dst_par_fid;
  const char* dst_short_name;
  fsf_fid dst_fid;
  unsigned long long uid;
  unsigned long long gid;
};

// A file or folder moved. `dst_fid_valid` is not zero when it replaced `dst_fid`; only its low byte
// travels. `dst_fid` always travels.
struct FlrJrnRenameRaw {
  fsf_fid src_fid;
  fsf_fid src_par_fid;
  const char* src_short_name;
  unsigned int dst_fid_valid;
  fsf_fid dst_fid;
  fsf_fid dst_par_fid;
  const char* dst_short_name;
};

// Inode flags were set.
struct FlrJrnExt2SetFlagsRaw {
  fsf_fid fid;
  unsigned int flags;
};

// An access control list of `data_len` bytes was set.
struct FlrJrnSetAclRaw {
  fsf_fid fid;
  unsigned int data_len;
  const unsigned char* data;
};

// An extended attribute was set; `value` is `attr_len` bytes long, `flags` are carried through.
struct FlrJrnSetXattrRaw {
  fsf_fid fid;
  unsigned int flags;
  const char* attr_name;
  unsigned int attr_len;
  const unsigned char* value;
};

// An extended attribute was removed.
struct FlrJrnRmXattrRaw {
  fsf_fid fid;
  const char* attr_name;
};

// The data of a file moved to other storage, `meta` describes where to.
struct FlrJrnStubRaw {
  fsf_fid fid;
  const char* meta;
};

// The data of a file came back.
struct FlrJrnUnStubRaw {
  fsf_fid fid;
};

// `size` bytes were written at `offset`; the data does not travel.
struct FlrJrnWriteDdrRaw {
  fsf_fid fid;
  unsigned long long offset;
  unsigned int size;
};

// `length` bytes were cleared at `offset`.
struct FlrJrnFClearRaw {
  fsf_fid fid;
  unsigned long long offset;
  unsigned long long length;
};

// A message for the log.
struct FlrJrnTxtMsgRaw {
  const char* msg;
};

// The header alone, all six items of it.
struct FlrJrnHdrRaw {
  unsigned int cmd;     // 8 bits travel
  unsigned int length;  // 24 bits travel
  unsigned long long devt;
  unsigned long long seq_num;
  unsigned int timestamp;
  unsigned int mask;  // 16 bits travel
};

// A decoded record. `cmd` tells which member of `u` is alive.
struct FlrJrnCommandRaw {
  unsigned int cmd;  // 8 bits travel
  unsigned int timestamp;
  unsigned long long seq_num;
  unsigned long long devt;
  unsigned int mask;  // 16 bits travel
  union {
    unsigned char noop;  // set to zero when a FLR_JRN_NOOP is decoded
    FlrJrnSnapRaw snap;
    FlrJrnSetAttrRaw setattr;
    FlrJrnWriteRaw write;  // also FLR_JRN_TWRITE
    FlrJrnCreateRaw create;
    FlrJrnMkDirRaw mkdir;
    FlrJrnRemoveRaw remove;
    FlrJrnRmDirRaw rmdir;
    FlrJrnLinkRaw link;
    FlrJrnSymLinkRaw symlink;
    FlrJrnRenameRaw rename;
    FlrJrnExt2SetFlagsRaw ext2_setflags;
    FlrJrnSetAclRaw set_acl;
    FlrJrnSetXattrRaw setxattr;  // also FLR_JRN_SETXATTR_AIX
    FlrJrnRmXattrRaw rmxattr;    // also FLR_JRN_RMXATTR_AIX
    FlrJrnStubRaw stub;
    FlrJrnUnStubRaw unstub;
    FlrJrnWriteDdrRaw write_ddr;
    FlrJrnFClearRaw fclear;
    FlrJrnTxtMsgRaw txtmsg;
  } u;
};

// Places `len` bytes from `src` at `dst`, which lies inside the encoded record. Its result becomes
// the result of the encoder. Must not throw.
using FlrJrnCopyFn = int (*)(void* dst, const void* src, unsigned int len, void* ctx);

extern "C" {

// Writes the 26 bytes of a header. Neither pointer is checked for null.
KDDC_API void encodeRawHdr(const FlrJrnHdrRaw* header, unsigned char* bytes) noexcept;

// Reads the 26 bytes of a header. Does nothing when a pointer is null.
KDDC_API void decodeRawHdr(const unsigned char* bytes, FlrJrnHdrRaw* header) noexcept;

// Encodes a record. `bytes` has room for getRawCmdSize of it, or 26 bytes where that is 0; this is
// not checked, nor is that the length fits its 24 bits: the low 24 are kept.
//
// `copy`, unless null, is called with `ctx` to place the data block of FLR_JRN_WRITE,
// FLR_JRN_TWRITE, FLR_JRN_SET_ACL and FLR_JRN_SETXATTR, once per record, even when it is empty. So
// a producer can stream large blocks straight to where they belong. The value of
// FLR_JRN_SETXATTR_AIX is always copied plainly.
//
// Result: -1 and nothing written when a pointer is null, the result of `copy` where it was called,
// otherwise 0.
//
// The name begins with underscores because callers have linked to it by that name all along.
// NOLINTNEXTLINE(bugprone-reserved-identifier)
KDDC_API int __encodeRawCmd(const FlrJrnCommandRaw* record, unsigned char* bytes, FlrJrnCopyFn copy,
                            void* ctx) noexcept;

// Encodes a record with plain copies only.
KDDC_API int encodeRawCmd(const FlrJrnCommandRaw* record, unsigned char* bytes) noexcept;

// Decodes the record at `bytes`, in place. Trusts its input: the header's length is not looked at,
// the extent of the record follows from its contents, and a string without a NUL is read beyond the
// end. Bytes that come from outside go through kddc::isWellFormedRecord first.
//
// Result: 0, or -1 when a pointer is null (nothing written) or the command is unknown (the header
// fields are written).
KDDC_API int decodeRawCmd(const unsigned char* bytes, FlrJrnCommandRaw* record) noexcept;

// The number of bytes that the record encodes to. 0 for a null pointer and for an unknown command.
KDDC_API unsigned int getRawCmdSize(const FlrJrnCommandRaw* record) noexcept;

// Writes a decoded record as text to the `size` bytes at `out`, for logs and tools: a line for each
// field, "label....... value", with no newline behind the last. Decimal integers are shown as
// signed ones, names and the first 60 bytes of written data byte for byte; access control lists and
// values of attributes are not shown. An unknown command is shown as UNKNOWN, with its header.
//
// Text that does not fit is cut off. The last of the `size` bytes is always set to NUL, and the
// result points at it. `size` is at least 1; neither pointer is checked for null.
KDDC_API char* printRawCmd(char* out, unsigned int size, const FlrJrnCommandRaw* record) noexcept;

}  // extern "C"

namespace kddc {

// Whether a record stands at `bytes` that decodeRawCmd can be trusted with: its header is there,
// its length fits the `available` bytes, its command is known, every string ends and every data
// block lies inside that length, and the payload fills it exactly. Reads no more than `available`
// bytes, whatever they hold. More bytes may follow: the next record of a stream.
KDDC_API bool isWellFormedRecord(const unsigned char* bytes, std::size_t available) noexcept;

}  // namespace kddc
