// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue in memory that coalesces records: what is held back for each file, and what that
// comes to, told once more. Attributes go by their names; nothing is sorted until it must be.
#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/model_catalogue.h"

namespace kddc::test {

class ModelCumulative : public ModelCatalogue {
 public:
  // `limit` files are held back at most; 0 holds nothing back.
  ModelCumulative(std::time_t openTime, unsigned long long limit)
      : ModelCatalogue(openTime), limit_(limit) {}

  void flush(std::time_t now) {
    now_ = now;
    flushAll();
  }
  std::vector<fsf_fid> heldBack() const override {
    std::vector<fsf_fid> held;
    for (const Pending& p : pending_) held.push_back(p.fid);
    return held;
  }

 protected:
  void dispatch(const FlrJrnCommandRaw& record, int time) override;

 private:
  struct Pending {
    fsf_fid fid{};
    bool created = false;
    std::string name;
    long long parent = 0;
    std::map<std::string, long long> values;  // by the name of the attribute; those missing are 0
    std::set<std::string> sent;               // by records of attributes

    long long value(const std::string& attribute) const {
      const auto found = values.find(attribute);
      return found == values.end() ? 0 : found->second;
    }
  };

  unsigned long long limit_;
  std::vector<Pending> pending_;

  Pending* find(const fsf_fid& fid);
  Pending& add(const fsf_fid& fid);
  void drop(const fsf_fid& fid);
  void hold(const FlrJrnSetAttrRaw& r);
  void hold(const FlrJrnCreateRaw& r);
  bool removeHeld(const fsf_fid& fid);
  void flushOne(const fsf_fid& fid);
  void flushAll();
  void insertHeld(const Pending& p);
  void update(const Pending& p, const std::vector<long long>& inodes);
  long long stamp(const Pending& p, const ModelFile& row, bool onlyChangeTime) const;
  static bool before(const fsf_fid& a, const fsf_fid& b);
  static long long read(const ModelFile& row, const std::string& name);
  static bool differs(const Pending& p, const ModelFile& row, const std::string& name) {
    return p.sent.count(name) != 0 && p.value(name) != read(row, name);
  }
};

inline void ModelCumulative::dispatch(const FlrJrnCommandRaw& record, int time) {
  const auto& u = record.u;
  if (limit_ != 0) {
    switch (record.cmd) {
      // clang-format off
      case FLR_JRN_SETATTR: return hold(u.setattr);
      case FLR_JRN_CREATE: return hold(u.create);
      case FLR_JRN_REMOVE: if (removeHeld(u.remove.file_fid)) return; break;
      case FLR_JRN_STUB: flushOne(u.stub.fid); break;
      case FLR_JRN_UNSTUB: flushOne(u.unstub.fid); break;
      case FLR_JRN_LINK: flushOne(u.link.src_fid); break;
      case FLR_JRN_RENAME: flushAll(); break;
      default: break;
        // clang-format on
    }
  }
  ModelCatalogue::dispatch(record, time);
}

// Holding back.

inline ModelCumulative::Pending* ModelCumulative::find(const fsf_fid& fid) {
  for (Pending& p : pending_)
    if (std::memcmp(&p.fid, &fid, sizeof fid) == 0) return &p;
  return nullptr;
}

inline ModelCumulative::Pending& ModelCumulative::add(const fsf_fid& fid) {
  if (pending_.size() == limit_) flushAll();
  if (Pending* p = find(fid)) return *p;
  pending_.emplace_back().fid = fid;
  return pending_.back();
}

inline void ModelCumulative::drop(const fsf_fid& fid) {
  std::erase_if(pending_,
                [&](const Pending& p) { return std::memcmp(&p.fid, &fid, sizeof fid) == 0; });
}

inline void ModelCumulative::hold(const FlrJrnSetAttrRaw& r) {
  Pending* known = find(r.fid);
  Pending& p = known ? *known : add(r.fid);
  const auto take = [&](unsigned char flag, const char* name, auto value) {
    if (flag == 0) return;
    p.values[name] = static_cast<long long>(value);
    p.sent.insert(name);
  };
  take(r.mode_valid, "mode", r.mode);
  take(r.uid_valid, "uid", static_cast<unsigned>(r.uid));
  take(r.gid_valid, "gid", static_cast<unsigned>(r.gid));
  take(r.atime_valid, "atime", r.atime.tv_sec);
  take(r.mtime_valid, "mtime", r.mtime.tv_sec);
  take(r.ctime_valid, "ctime", r.ctime.tv_sec);
  take(r.size_valid, "size", r.size);
  take(r.blocks_valid, "blocks", r.blocks);
}

inline void ModelCumulative::hold(const FlrJrnCreateRaw& r) {
  Pending& p = add(r.fid);
  p.created = true;
  p.name = r.short_name;
  p.parent = inodeOf(r.par_fid);
  p.values["mode"] = r.mode;
  p.values["uid"] = static_cast<unsigned>(r.uid);
  p.values["gid"] = static_cast<unsigned>(r.gid);
  p.values["atime"] = r.atime.tv_sec;
  p.values["mtime"] = p.values["ctime"] = r.mtime.tv_sec;
}

// Whether the file that went had not come yet.
inline bool ModelCumulative::removeHeld(const fsf_fid& fid) {
  const Pending* p = find(fid);
  const bool created = p && p->created;
  drop(fid);
  return created;
}

// Writing.

inline void ModelCumulative::flushOne(const fsf_fid& fid) {
  const Pending* p = find(fid);
  if (!p) return;
  if (p->created)
    insertHeld(*p);
  else
    update(*p, rowsOf(fid).inodes);
  drop(fid);
}

inline void ModelCumulative::flushAll() {
  if (limit_ == 0) return;
  std::sort(pending_.begin(), pending_.end(),
            [](const Pending& a, const Pending& b) { return before(a.fid, b.fid); });
  for (const Pending& p : pending_)
    if (!p.created) update(p, rowsOf(p.fid).inodes);
  for (const Pending& p : pending_)
    if (p.created) insertHeld(p);
  pending_.clear();
}

inline void ModelCumulative::insertHeld(const Pending& p) {
  NewEntry entry;
  entry.fid = p.fid;
  entry.name = p.name;
  entry.mode = static_cast<unsigned>(p.value("mode"));
  entry.uid = static_cast<unsigned>(p.value("uid"));
  entry.gid = static_cast<unsigned>(p.value("gid"));
  entry.size = p.value("size");
  entry.blocks = p.value("blocks");
  entry.atime = p.value("atime");
  entry.mtime = p.value("mtime");
  entry.ctime = p.value("ctime");
  insert(entry, p.parent, 0);
}

inline void ModelCumulative::update(const Pending& p, const std::vector<long long>& inodes) {
  const ModelFile* first = nullptr;
  for (const long long inode : inodes)
    if (!first) first = file(inode);
  const bool onlyAccessTime = p.sent.empty() || p.sent == std::set<std::string>{"atime"};
  if (!first) return;
  bool content = false;
  for (const char* name : {"mtime", "mode", "uid", "gid", "size", "blocks"})
    content = content || differs(p, *first, name);
  const bool changeTime = differs(p, *first, "ctime");
  const ModelFile was = *first;
  const auto value = [&](const char* name) {
    return p.sent.count(name) != 0 ? p.value(name) : read(was, name);
  };
  for (const long long inode : inodes) {
    ModelFile* row = file(inode);
    if (!row) continue;
    if (onlyAccessTime || (!content && !changeTime)) {
      row->atime = signed32(p.value("atime"));
      continue;
    }
    row->mode = signed32(value("mode"));
    row->nlink = was.nlink;
    row->uid = signed32(value("uid"));
    row->gid = signed32(value("gid"));
    row->size = value("size");
    row->blocks = value("blocks");
    row->atime = signed32(value("atime"));
    row->mtime = signed32(value("mtime"));
    row->ctime = signed32(value("ctime"));
    row->time = signed32(stamp(p, was, !content));
  }
}

inline long long ModelCumulative::stamp(const Pending& p, const ModelFile& row,
                                        bool onlyChangeTime) const {
  long long stamp = unsigned32(row.time);
  if (!onlyChangeTime) {
    const long long latest = std::max(p.value("mtime"), p.value("ctime"));
    stamp = latest < openTime_ || latest < stamp ? now_ : latest;
  }
  return stamp == 0 ? now_ : stamp;
}

// Three words of eight bytes, the first byte of each weighing least.
inline bool ModelCumulative::before(const fsf_fid& a, const fsf_fid& b) {
  for (int word = 0; word < 24; word += 8)
    for (int byte = word + 7; byte >= word; --byte)
      if (a.data[byte] != b.data[byte]) return a.data[byte] < b.data[byte];
  return false;
}

// As the library reads a row: modes and owners as unsigned numbers, all else as it stands there.
inline long long ModelCumulative::read(const ModelFile& row, const std::string& name) {
  if (name == "mode") return unsigned32(row.mode);
  if (name == "uid") return unsigned32(integer(row.uid));
  if (name == "gid") return unsigned32(integer(row.gid));
  if (name == "size") return integer(row.size);
  if (name == "blocks") return integer(row.blocks);
  if (name == "atime") return row.atime;
  return name == "mtime" ? row.mtime : row.ctime;
}

}  // namespace kddc::test
