// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue in memory, for comparing the real one with: its tables, and what each journal record
// does to them, told once more without SQL and without the code under test.
//
// What SQLite does with numbers stands here as rules:
//
//   bound times  the low 32 bits, signed: a time of 2038 and later is stored as a negative number
//   times and sizes in SQL text   as they are; from 2^63 on as floating-point numbers
//
// The wall clock stands still while a record is applied: apply() is told what it shows.
#pragma once

#include <algorithm>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "records/journal_record.h"
#include "tests/support/model_rows.h"
#include "tests/support/model_tables.h"

namespace kddc::test {

class ModelCatalogue : public ModelTables {
 public:
  explicit ModelCatalogue(std::time_t openTime) : openTime_(openTime) {}
  virtual ~ModelCatalogue() = default;
  ModelCatalogue(const ModelCatalogue&) = default;
  ModelCatalogue& operator=(const ModelCatalogue&) = default;

  // What ApplyJournal answers for the record while the clock shows `now`.
  bool apply(const FlrJrnCommandRaw& record, std::time_t now);

  // Identifiers that records spoke of and that no row shows yet.
  virtual std::vector<fsf_fid> heldBack() const { return {}; }

 protected:
  struct NewEntry {
    fsf_fid fid{};
    std::string name;
    unsigned mode = 0, uid = 0, gid = 0;
    long long nlink = 1, size = 0, blocks = 0, atime = 0, mtime = 0, ctime = 0;
  };

  static constexpr int kFolder = 1, kLink = 2, kFromMode = 7, kStub = 8;

  std::time_t openTime_;
  std::time_t now_ = 0;

  static long long signed32(long long value) { return static_cast<int>(value); }
  static long long unsigned32(long long value) { return static_cast<unsigned>(value); }
  static int typeOf(unsigned mode);
  void insert(const NewEntry& entry, long long parent, int type);

  virtual void dispatch(const FlrJrnCommandRaw& record, int time);

 private:
  void stampLink(long long inode, int time, long long nlink);
  void stampBelow(long long folder);

  void setAttr(const FlrJrnSetAttrRaw& r, int time);
  void writeAttr(ModelFile& row, const FlrJrnSetAttrRaw& r, int time) const;
  void setAdditionalAttr(const fsf_fid& fid, int time);
  void stub(const fsf_fid& fid, int time);
  void unStub(const fsf_fid& fid);
  template <class Record>
  void create(const Record& r, long long nlink, int type);
  void remove(const FlrJrnRemoveRaw& r, int time);
  void removeDir(const FlrJrnRmDirRaw& r);
  void createLink(const FlrJrnLinkRaw& r, int time);
  void createSymLink(const FlrJrnSymLinkRaw& r, int time);
  void deleteDestination(const FlrJrnRenameRaw& r, long long parent);
  void rename(const FlrJrnRenameRaw& r, int time);
};

inline bool ModelCatalogue::apply(const FlrJrnCommandRaw& record, std::time_t now) {
  now_ = now;
  try {
    dispatch(record, static_cast<int>(record.timestamp));
  } catch (const Inconsistent&) {
    return false;
  }
  return true;
}

inline void ModelCatalogue::dispatch(const FlrJrnCommandRaw& record, int time) {
  const auto& u = record.u;
  switch (record.cmd) {
    // clang-format off
    case FLR_JRN_SETATTR: return setAttr(u.setattr, time);
    case FLR_JRN_CREATE: return create(u.create, 1, kFromMode);
    case FLR_JRN_MKDIR: return create(u.mkdir, 2, kFolder);
    case FLR_JRN_REMOVE: return remove(u.remove, time);
    case FLR_JRN_RMDIR: return removeDir(u.rmdir);
    case FLR_JRN_LINK: return createLink(u.link, time);
    case FLR_JRN_SYMLINK: return createSymLink(u.symlink, time);
    case FLR_JRN_RENAME: return rename(u.rename, time);
    case FLR_JRN_SET_ACL: return setAdditionalAttr(u.set_acl.fid, time);
    case FLR_JRN_SETXATTR: case FLR_JRN_SETXATTR_AIX:
      return setAdditionalAttr(u.setxattr.fid, time);
    case FLR_JRN_RMXATTR: case FLR_JRN_RMXATTR_AIX: return setAdditionalAttr(u.rmxattr.fid, time);
    case FLR_JRN_STUB: return stub(u.stub.fid, time);
    case FLR_JRN_UNSTUB: return unStub(u.unstub.fid);
    default: return;  // data that was written, and messages, are no matter of the catalogue
      // clang-format on
  }
}

// Attributes.

inline void ModelCatalogue::setAttr(const FlrJrnSetAttrRaw& r, int time) {
  const bool onlyAccess = !r.mode_valid && !r.uid_valid && !r.gid_valid && !r.mtime_valid &&
                          !r.ctime_valid && !r.size_valid && !r.blocks_valid;
  for (const long long inode : rowsOf(r.fid).inodes) {
    ModelFile* row = file(inode);
    if (!row) continue;
    if (onlyAccess)
      row->atime = signed32(r.atime.tv_sec);
    else
      writeAttr(*row, r, time);
  }
}

// Only a flag of exactly 1 has its value written.
inline void ModelCatalogue::writeAttr(ModelFile& row, const FlrJrnSetAttrRaw& r, int time) const {
  const bool other = r.mode_valid == 1 || r.uid_valid == 1 || r.gid_valid == 1 ||
                     r.size_valid == 1 || r.blocks_valid == 1;
  const bool utime = r.mtime_valid == 1 && !other && r.mtime.tv_sec < time;
  if (r.mode_valid == 1) row.mode = r.mode;
  if (r.uid_valid == 1) row.uid = literal(r.uid);
  if (r.gid_valid == 1) row.gid = literal(r.gid);
  if (r.atime_valid == 1) row.atime = r.atime.tv_sec;
  if (r.mtime_valid == 1) row.mtime = r.mtime.tv_sec;
  if (r.size_valid == 1) row.size = literal(r.size);
  if (r.blocks_valid == 1) row.blocks = literal(r.blocks);
  if (r.ctime_valid == 1)
    row.ctime = r.ctime.tv_sec;
  else if (other || utime)
    row.ctime = unsigned32(time);
  if (!utime) row.time = unsigned32(now_);
}

inline void ModelCatalogue::setAdditionalAttr(const fsf_fid& fid, int time) {
  for (const long long inode : rowsOf(fid).inodes)
    if (ModelFile* row = file(inode)) row->ctime = row->time = time;
}

inline void ModelCatalogue::stub(const fsf_fid& fid, int time) {
  for (const long long inode : rowsOf(fid).inodes) {
    ModelFile* row = file(inode);
    if (!row) continue;
    row->type = kStub;
    row->ctime = time;
    row->time = signed32(now_);
  }
}

inline void ModelCatalogue::unStub(const fsf_fid& fid) {
  for (const long long inode : rowsOf(fid).inodes) {
    ModelFile* row = file(inode);
    if (!row) continue;
    row->type = 0;
    row->time = signed32(now_);
  }
}

// New names.

template <class Record>
void ModelCatalogue::create(const Record& r, long long nlink, int type) {
  NewEntry entry;
  entry.fid = r.fid;
  entry.name = r.short_name;
  entry.mode = r.mode;
  entry.uid = static_cast<unsigned>(r.uid);
  entry.gid = static_cast<unsigned>(r.gid);
  entry.nlink = nlink;
  entry.atime = r.atime.tv_sec;
  entry.mtime = entry.ctime = r.mtime.tv_sec;
  insert(entry, inodeOf(r.par_fid), type);
}

inline void ModelCatalogue::createLink(const FlrJrnLinkRaw& r, int time) {
  const Rows links = rowsOf(r.src_fid);
  NewEntry entry;
  if (const ModelFile* row = file(links.inode)) {
    entry.mode = static_cast<unsigned>(row->mode);
    entry.uid = static_cast<unsigned>(integer(row->uid));
    entry.gid = static_cast<unsigned>(integer(row->gid));
    entry.size = integer(row->size);
    entry.blocks = integer(row->blocks);
    entry.atime = row->atime;
    entry.mtime = row->mtime;
  }
  entry.fid = r.src_fid;
  entry.name = r.dst_short_name;
  entry.nlink = static_cast<long long>(links.inodes.size()) + 1;
  entry.ctime = time;
  insert(entry, inodeOf(r.dst_par_fid), kFromMode);
  for (const long long inode : links.inodes) stampLink(inode, time, entry.nlink);
}

inline void ModelCatalogue::createSymLink(const FlrJrnSymLinkRaw& r, int time) {
  NewEntry entry;
  entry.fid = r.dst_fid;
  entry.name = r.dst_short_name;
  entry.mode = 0120777;
  entry.uid = static_cast<unsigned>(r.uid);
  entry.gid = static_cast<unsigned>(r.gid);
  entry.size = static_cast<long long>(std::strlen(r.src_name));
  entry.atime = entry.mtime = entry.ctime = time;
  insert(entry, inodeOf(r.dst_par_fid), kFromMode);
}

inline void ModelCatalogue::insert(const NewEntry& entry, long long parent, int type) {
  const long long changed = std::max(entry.mtime, entry.ctime);
  const long long inode = nextId(files), fidRowId = nextId(fids);
  ModelFile row;
  row.fidRowId = fidRowId;
  row.parent = parent;
  row.mode = signed32(entry.mode);
  row.nlink = signed32(entry.nlink);
  row.uid = signed32(entry.uid);
  row.gid = signed32(entry.gid);
  row.size = entry.size;
  row.blocks = entry.blocks;
  row.atime = signed32(entry.atime);
  row.mtime = signed32(entry.mtime);
  row.ctime = signed32(entry.ctime);
  row.time = signed32(changed < openTime_ ? now_ : changed);
  row.type = type == kFromMode ? typeOf(entry.mode) : type;
  row.name = entry.name;
  files[inode] = row;
  insertFid(entry.fid, inode);
}

// Names that go.

inline void ModelCatalogue::remove(const FlrJrnRemoveRaw& r, int time) {
  if (r.nlink == 0) {
    const Rows rows = rowsOf(r.file_fid);
    return deletePair(rows.inode, rows.fidRowId);
  }
  const long long inode = childOf(inodeOf(r.par_fid), r.short_name);
  if (inode == 0) throw Inconsistent{};
  deletePair(inode, existing(inode).fidRowId);
  for (const long long left : rowsOf(r.file_fid).inodes) stampLink(left, time, signed32(r.nlink));
}

// What the folder held stays.
inline void ModelCatalogue::removeDir(const FlrJrnRmDirRaw& r) {
  const Rows rows = rowsOf(r.dir_fid);
  deletePair(rows.inode, rows.fidRowId);
}

// Names that move.

inline void ModelCatalogue::rename(const FlrJrnRenameRaw& r, int time) {
  const long long parent = inodeOf(r.dst_par_fid);
  if (r.dst_fid_valid != 0) deleteDestination(r, parent);

  const Rows source = rowsOf(r.src_fid);
  if (source.inodes.empty()) throw Inconsistent{};
  const long long inode = source.inodes.size() == 1
                              ? source.inode
                              : linkAt(source, inodeOf(r.src_par_fid), r.src_short_name);
  ModelFile& row = existing(inode);
  row.parent = parent;
  row.ctime = row.time = time;
  row.name = r.dst_short_name;
  if (row.type == kFolder) stampBelow(inode);
}

inline void ModelCatalogue::deleteDestination(const FlrJrnRenameRaw& r, long long parent) {
  const bool sameFolder = std::memcmp(&r.dst_par_fid, &r.src_par_fid, sizeof(fsf_fid)) == 0;
  if (sameFolder && std::strcmp(r.src_short_name, r.dst_short_name) == 0) return;
  Rows replaced = rowsOf(r.dst_fid);
  if (replaced.inodes.empty()) throw Inconsistent{};
  if (replaced.inodes.size() > 1) {
    replaced.inode = linkAt(replaced, parent, r.dst_short_name);
    replaced.fidRowId = existing(replaced.inode).fidRowId;
  }
  if (replaced.inode == 0 || replaced.fidRowId == 0) throw Inconsistent{};
  deletePair(replaced.inode, replaced.fidRowId);
}

// A folder among its own descendants is looked into once.
inline void ModelCatalogue::stampBelow(long long folder) {
  std::set<long long> seen{folder};
  std::deque<long long> waiting{folder};
  for (; !waiting.empty(); waiting.pop_front())
    for (auto& [inode, row] : files) {
      if (row.parent != waiting.front()) continue;
      row.time = signed32(now_);
      if (row.type == kFolder && seen.insert(inode).second) waiting.push_back(inode);
    }
}

// Rows.

inline void ModelCatalogue::stampLink(long long inode, int time, long long nlink) {
  ModelFile* row = file(inode);
  if (!row) return;
  row->nlink = nlink;
  row->ctime = row->time = time;
}

inline int ModelCatalogue::typeOf(unsigned mode) {
  // By the type bits of the mode: FIFO, character device, folder, block device, plain, link, socket
  static const std::map<unsigned, int> kTypes{{1, 5}, {2, 3},      {4, kFolder}, {6, 4},
                                              {8, 0}, {10, kLink}, {12, 6}};
  const auto found = kTypes.find(mode >> 12 & 15);
  return found == kTypes.end() ? 7 : found->second;
}

}  // namespace kddc::test
