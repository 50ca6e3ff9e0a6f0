// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Journal records that a volume might send, and some that it should not: each is made from a number
// and from the rows that a catalogue has by now, so that most of them hit something.
//
// A record depends on nothing else. So a list of numbers is a whole test case, and a shorter list
// is a smaller one.
#pragma once

#include <cstdint>
#include <deque>
#include <iterator>
#include <string>

#include "records/journal_record.h"
#include "tests/support/model_catalogue.h"

namespace kddc::test {

// A record and what its pointers point at.
struct OwnedRecord {
  FlrJrnCommandRaw record{};
  std::deque<std::string> owned;
};

// A stream of numbers that all follow from the first.
class Dice {
 public:
  explicit Dice(std::uint64_t seed) : state_(seed) {}

  std::uint64_t any() {
    std::uint64_t z = state_ += 0x9e3779b97f4a7c15;
    z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
    z = (z ^ z >> 27) * 0x94d049bb133111eb;
    return z ^ z >> 31;
  }
  std::uint64_t below(std::uint64_t limit) { return any() % limit; }
  // One time in `n`.
  bool oneIn(std::uint64_t n) { return below(n) == 0; }
  template <class Values>
  auto& oneOf(Values& values) {
    const auto at = below(std::size(values));
    return *std::next(std::begin(values), static_cast<std::ptrdiff_t>(at));
  }

 private:
  std::uint64_t state_;
};

class RandomRecord {
 public:
  // `now` is the time around which the volume lives.
  RandomRecord(const ModelCatalogue& catalogue, std::time_t now, std::uint64_t seed)
      : catalogue_(catalogue), now_(now), dice_(seed) {}

  OwnedRecord make();

 private:
  // A name as the volume would tell of it.
  struct Place {
    fsf_fid fid{};
    fsf_fid parentFid{};
    std::string name;
  };

  const ModelCatalogue& catalogue_;
  std::time_t now_;
  Dice dice_;
  OwnedRecord made_;

  fsf_fid anyFid();
  fsf_fid knownFid();
  fsf_fid fidAt(long long inode);
  fsf_fid folderFid();
  Place place();
  const char* keep(std::string text) { return made_.owned.emplace_back(std::move(text)).c_str(); }
  const char* name();
  unsigned char flag();
  unsigned mode();
  long long seconds();
  unsigned long long number();
  FlrJrnTime time() { return {seconds(), static_cast<long long>(dice_.below(1000000000))}; }

  void fillSetAttr();
  void fillMkDir(FlrJrnMkDirRaw& r, unsigned typeBits);
  void fillCreate();
  void fillRemove();
  void fillLink();
  void fillSymLink();
  void fillRename();
  void fill();
};

// The command of a record, as often as it stands here.
inline constexpr unsigned kMixOfCommands[] = {
    FLR_JRN_SETATTR, FLR_JRN_SETATTR,  FLR_JRN_SETATTR,       FLR_JRN_SETATTR,
    FLR_JRN_CREATE,  FLR_JRN_CREATE,   FLR_JRN_CREATE,        FLR_JRN_CREATE,
    FLR_JRN_CREATE,  FLR_JRN_MKDIR,    FLR_JRN_MKDIR,         FLR_JRN_MKDIR,
    FLR_JRN_REMOVE,  FLR_JRN_REMOVE,   FLR_JRN_REMOVE,        FLR_JRN_RMDIR,
    FLR_JRN_LINK,    FLR_JRN_LINK,     FLR_JRN_LINK,          FLR_JRN_SYMLINK,
    FLR_JRN_RENAME,  FLR_JRN_RENAME,   FLR_JRN_RENAME,        FLR_JRN_RENAME,
    FLR_JRN_RENAME,  FLR_JRN_RENAME,   FLR_JRN_STUB,          FLR_JRN_UNSTUB,
    FLR_JRN_SET_ACL, FLR_JRN_SETXATTR, FLR_JRN_RMXATTR,       FLR_JRN_SETXATTR_AIX,
    FLR_JRN_NOOP,    FLR_JRN_SNAP,     FLR_JRN_EXT2_SETFLAGS, FLR_JRN_RMXATTR_AIX,
    FLR_JRN_WRITE,   FLR_JRN_TWRITE,   FLR_JRN_WRITE_DDR,     FLR_JRN_FCLEAR,
    FLR_JRN_TXTMSG,
};

inline OwnedRecord RandomRecord::make() {
  FlrJrnCommandRaw& record = made_.record;
  record.cmd = dice_.oneOf(kMixOfCommands);
  record.timestamp = static_cast<unsigned>(seconds());
  record.seq_num = dice_.any();
  record.devt = dice_.below(3);
  record.mask = static_cast<unsigned>(dice_.below(0x10000));
  fill();
  return std::move(made_);
}

inline void RandomRecord::fill() {
  auto& u = made_.record.u;
  switch (made_.record.cmd) {
    // clang-format off
    case FLR_JRN_SETATTR: return fillSetAttr();
    case FLR_JRN_CREATE: return fillCreate();
    case FLR_JRN_MKDIR: return fillMkDir(u.mkdir, 040000);
    case FLR_JRN_REMOVE: return fillRemove();
    case FLR_JRN_LINK: return fillLink();
    case FLR_JRN_SYMLINK: return fillSymLink();
    case FLR_JRN_RENAME: return fillRename();
    case FLR_JRN_RMDIR: u.rmdir = {folderFid(), folderFid(), name()}; return;
    case FLR_JRN_STUB: u.stub = {knownFid(), keep("elsewhere")}; return;
    case FLR_JRN_UNSTUB: u.unstub = {knownFid()}; return;
    case FLR_JRN_SET_ACL: u.set_acl = {knownFid(), 0, nullptr}; return;
    case FLR_JRN_SETXATTR: case FLR_JRN_SETXATTR_AIX:
      u.setxattr = {knownFid(), 0, name(), 0, nullptr}; return;
    case FLR_JRN_RMXATTR: case FLR_JRN_RMXATTR_AIX: u.rmxattr = {knownFid(), name()}; return;
    case FLR_JRN_SNAP: u.snap = {dice_.any(), name(), dice_.any()}; return;
    case FLR_JRN_TXTMSG: u.txtmsg = {name()}; return;
    case FLR_JRN_NOOP: return;
    case FLR_JRN_EXT2_SETFLAGS: u.ext2_setflags = {knownFid(), 0}; return;
    case FLR_JRN_WRITE_DDR: u.write_ddr = {knownFid(), 0, 1}; return;
    case FLR_JRN_FCLEAR: u.fclear = {knownFid(), 0, 1}; return;
    default: u.write = {knownFid(), 0, 0, nullptr}; return;  // WRITE and TWRITE
      // clang-format on
  }
}

inline void RandomRecord::fillSetAttr() {
  FlrJrnSetAttrRaw& r = made_.record.u.setattr;
  r.fid = knownFid();
  const bool onlyTimes = dice_.oneIn(2);  // of all combinations of flags the one with most rules
  for (unsigned char* f :
       {&r.mode_valid, &r.uid_valid, &r.gid_valid, &r.size_valid, &r.blocks_valid})
    *f = onlyTimes ? 0 : flag();
  for (unsigned char* f : {&r.atime_valid, &r.mtime_valid, &r.ctime_valid}) *f = flag();
  r.mode = mode();
  r.uid = number();
  r.gid = number();
  r.atime = time();
  r.mtime = time();
  r.ctime = time();
  r.size = number();
  r.blocks = number();
}

inline void RandomRecord::fillMkDir(FlrJrnMkDirRaw& r, unsigned typeBits) {
  r.par_fid = folderFid();
  r.fid = anyFid();
  r.short_name = name();
  r.mode = dice_.oneIn(16) ? mode() : typeBits | 0644;
  r.uid = number();
  r.gid = number();
  r.atime = time();
  r.mtime = time();
}

inline void RandomRecord::fillCreate() {
  static constexpr unsigned kTypes[] = {0100000, 0100000, 0100000, 020000, 060000, 010000, 0140000};
  FlrJrnMkDirRaw r{};
  fillMkDir(r, dice_.oneOf(kTypes));
  made_.record.u.create = {r.par_fid, r.fid,   r.short_name, r.mode,     r.uid,
                           r.gid,     r.atime, r.mtime,      dice_.any()};
}

inline void RandomRecord::fillRemove() {
  const Place gone = place();
  const auto links = dice_.oneIn(8) ? dice_.any() : dice_.below(3);
  made_.record.u.remove = {gone.parentFid, keep(gone.name), gone.fid, static_cast<unsigned>(links)};
}

inline void RandomRecord::fillLink() {
  made_.record.u.link = {knownFid(), folderFid(), name()};
}

inline void RandomRecord::fillSymLink() {
  const char* target = keep(std::string(dice_.below(40), 't'));
  made_.record.u.symlink = {target, folderFid(), name(), anyFid(), number(), number()};
}

// To a new name, over another entry, or over itself.
inline void RandomRecord::fillRename() {
  FlrJrnRenameRaw& r = made_.record.u.rename;
  const Place from = place();
  const Place over = dice_.oneIn(6) ? from : place();
  const bool replaces = dice_.oneIn(2);
  r.src_fid = from.fid;
  r.src_par_fid = from.parentFid;
  r.src_short_name = keep(from.name);
  r.dst_fid_valid = replaces ? 1 + static_cast<unsigned>(dice_.below(255)) : 0;
  r.dst_fid = over.fid;
  r.dst_par_fid = replaces ? over.parentFid : folderFid();
  r.dst_short_name = replaces ? keep(over.name) : name();
}

// Few enough for some to come back; they differ in one byte, which may be any of the 24.
inline fsf_fid RandomRecord::anyFid() {
  fsf_fid fid{};
  fid.data[dice_.below(24)] = static_cast<unsigned char>(1 + dice_.below(dice_.oneIn(8) ? 2 : 255));
  return fid;
}

inline fsf_fid RandomRecord::knownFid() {
  if (const auto held = catalogue_.heldBack(); !held.empty() && dice_.oneIn(2))
    return dice_.oneOf(held);
  if (catalogue_.fids.empty() || dice_.oneIn(16)) return anyFid();
  return dice_.oneOf(catalogue_.fids).second.fid;
}

inline fsf_fid RandomRecord::fidAt(long long inode) {
  for (const auto& [rowId, row] : catalogue_.fids)
    if (row.filesRowId == inode) return row.fid;
  return anyFid();
}

inline fsf_fid RandomRecord::folderFid() {
  for (int tries = 0; tries < 8 && !catalogue_.files.empty(); ++tries) {
    const auto& [inode, row] = dice_.oneOf(catalogue_.files);
    if (row.type == 1) return fidAt(inode);
  }
  return knownFid();
}

inline RandomRecord::Place RandomRecord::place() {
  if (const auto held = catalogue_.heldBack(); !held.empty() && dice_.oneIn(4))
    return {dice_.oneOf(held), folderFid(), std::string(name())};
  if (catalogue_.files.empty() || dice_.oneIn(16))
    return {anyFid(), folderFid(), std::string(name())};
  const auto& [inode, row] = dice_.oneOf(catalogue_.files);
  return {fidAt(inode), fidAt(row.parent), row.name};
}

inline const char* RandomRecord::name() {
  static const std::string kNames[] = {"a",
                                       "A",
                                       "a.txt",
                                       "",
                                       "it's \"quoted\"; --",
                                       "%s%n",
                                       "\xc3\xa4\xe2\x82\xac",
                                       "\xff\xfe",
                                       std::string(255, 'x')};
  return keep(dice_.oneOf(kNames));
}

// Set, not set, or something that is neither 0 nor 1.
inline unsigned char RandomRecord::flag() {
  return static_cast<unsigned char>(dice_.oneIn(8) ? dice_.below(256) : dice_.below(2));
}

inline unsigned RandomRecord::mode() {
  return static_cast<unsigned>(dice_.any());
}

// Mostly a few seconds from now, as 32 bits.
inline long long RandomRecord::seconds() {
  const auto then = static_cast<std::uint64_t>(now_) + dice_.below(16) - 8;
  return static_cast<unsigned>(dice_.oneIn(8) ? dice_.any() : then);
}

inline unsigned long long RandomRecord::number() {
  return dice_.oneIn(4) ? dice_.any() : dice_.below(100000);
}

}  // namespace kddc::test
