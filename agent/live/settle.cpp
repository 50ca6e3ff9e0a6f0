// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/settle.h"

#include <algorithm>
#include <cstdint>

#include "driver/record_mask.h"
#include "catalogue/file_type.h"
#include "platform/exceptions.h"
#include "platform/logged.h"
#include "platform/text.h"

namespace kddc {
namespace {

constexpr fsf_fid kNobody{};
constexpr int kFew = 2;  // names, to tell none, the only one and several apart
constexpr std::size_t kMostHeldBack = 1000;
constexpr std::size_t kMostAskedBelow = 10'000;

bool isNobody(const fsf_fid& fid) {
  return fid == kNobody;
}

// Times and identities are stored as 32 bits.
bool differ(long long stored, long long seen) {
  return static_cast<std::uint32_t>(stored) != static_cast<std::uint32_t>(seen);
}

const Name* bearing(const std::vector<Name>& names, unsigned long long folder,
                    const std::string& name) {
  const auto at = std::ranges::find_if(
      names, [&](const Name& row) { return row.parent == folder && row.name == name; });
  return at == names.end() ? nullptr : &*at;
}

const Name* parkedAmong(const std::vector<Name>& names) {
  const auto at = std::ranges::find_if(names, &Name::parked);
  return at == names.end() ? nullptr : &*at;
}

// Only rows that speak of the file, too: what a crash left may name the row of another.
std::list<unsigned long long> rowsOf(LiveCatalogue& rows, const fsf_fid& fid) {
  std::list<unsigned long long> inodes;
  for (const Name& name : rows.namesOf(fid)) inodes.push_back(name.inode);
  return inodes;
}

bool differsInContent(const struct stat& row, const FlrJrnSetAttrRaw& seen) {
  return row.st_mode != seen.mode || differ(row.st_uid, static_cast<long long>(seen.uid)) ||
         differ(row.st_gid, static_cast<long long>(seen.gid)) ||
         row.st_size != static_cast<off_t>(seen.size) || differ(row.st_mtime, seen.mtime.tv_sec);
}

FlrJrnCommandRaw accessTimeAlone(FlrJrnCommandRaw record) {
  FlrJrnSetAttrRaw& r = record.u.setattr;
  r.mode_valid = r.uid_valid = r.gid_valid = r.mtime_valid = r.ctime_valid = r.size_valid =
      r.blocks_valid = 0;
  return record;
}

}  // namespace

// A file at a name.
struct Settle::Found {
  const fsf_fid& folder;
  const char* name;
  const fsf_fid& file;
  int type;
  RecordMask mask;

  bool isFolder() const { return type == kFolder; }
  // A stub is a regular file.
  bool isOfType(int rowType) const {
    return rowType == type || (rowType == kStub && type == kRegularFile);
  }
};

Settle::Result Settle::take(const FlrJrnCommandRaw& record) {
  return guarded([&] { settle(record); });
}

Settle::Result Settle::guarded(const std::function<void()>& work) {
  result_ = Result::kNothing;
  const auto done = [&] {
    work();
    return true;
  };
  if (!absorbed("Settle :: take", done, false)) result_ = Result::kFailed;
  if (result_ == Result::kFailed) ++counts_.failed;
  return result_;
}

Settle::Result Settle::unname(unsigned long long inode) {
  return guarded([&] {
    const auto row = rows_.rowAt(inode);
    if (row && !row->parked()) takeNameFrom(*row);
  });
}

void Settle::dropParked() {
  guarded([&] {
    for (const Name& row : rows_.parkedRows()) {
      if (row.type == kFolder) {
        counts_.removed += rows_.dropTree(row);
      } else {
        rows_.drop(row);
        ++counts_.removed;
      }
    }
  });
}

void Settle::settle(const FlrJrnCommandRaw& record) {
  const RecordMask mask(record.mask);
  switch (record.cmd) {
    case FLR_JRN_CREATE: {
      const auto& r = record.u.create;
      return present({r.par_fid, r.short_name, r.fid, GetFileType(r.mode), mask}, record);
    }
    case FLR_JRN_MKDIR: {
      const auto& r = record.u.mkdir;
      return present({r.par_fid, r.short_name, r.fid, kFolder, mask}, record);
    }
    case FLR_JRN_SYMLINK: {
      const auto& r = record.u.symlink;
      return present({r.dst_par_fid, r.dst_short_name, r.dst_fid, GetFileType(S_IFLNK), mask},
                     record);
    }
    case FLR_JRN_REMOVE: {
      const auto& r = record.u.remove;
      if (r.short_name[0] == 0) return linkCount(record);
      return absent(r.par_fid, r.short_name, r.file_fid, r.nlink, record);
    }
    case FLR_JRN_RMDIR: {
      const auto& r = record.u.rmdir;
      return absent(r.par_fid, r.short_name, r.dir_fid, mask.links(), record);
    }
    case FLR_JRN_RENAME:
      return rename(record);
    case FLR_JRN_SETATTR:
      return attributes(record);
    case FLR_JRN_STUB:
    case FLR_JRN_UNSTUB:
      return stub(record);
    default:
      return apply(record);
  }
}

void Settle::present(const Found& found, const FlrJrnCommandRaw& record) {
  const auto folder = rows_.folderOf(found.folder);
  if (!folder) {
    ++counts_.outside;
    return;
  }
  const auto bearer = rows_.bearerOf(*folder, found.name);
  if (bearer && bearer->hasFid() && bearer->fid == found.file) {
    ++counts_.unchanged;
    return;
  }
  if (rows_.createdOf(found.file)) write(found.file);
  std::vector<Name> names = namesOf(found, record);
  if (found.isFolder()) keepOneRow(names);
  if (makeWay(*folder, found, names.empty())) return;
  if (names.empty())
    takeUnknown(found, *folder, record);
  else
    giveName(found, *folder, names, record);
}

void Settle::keepOneRow(std::vector<Name>& names) {
  while (names.size() > 1) {
    takeNameFrom(names.back());
    names.pop_back();
  }
}

// Identifiers made of inode numbers come again for another file.
std::vector<Name> Settle::namesOf(const Found& found, const FlrJrnCommandRaw& record) {
  const auto isAnothers = [&](const Name& name) { return !found.isOfType(name.type); };
  for (;;) {
    std::vector<Name> names = rows_.namesOf(found.file, kFew);
    if (std::ranges::none_of(names, isAnothers)) return names;
    for (const Name& name : names)
      if (isAnothers(name)) remove(name, record);
  }
}

// Whoever else bears the name loses it. True when it turns out to be the comer's: a row that has
// lost its identifier gets it back.
bool Settle::makeWay(unsigned long long folder, const Found& found, bool mayAdopt) {
  auto bearer = rows_.bearerOf(folder, found.name);
  if (!bearer) return false;
  if (mayAdopt && !bearer->hasFid() && found.isOfType(bearer->type)) {
    rows_.adopt(*bearer, found.file);
    return true;
  }
  takeNameFrom(*bearer);
  return false;
}

void Settle::takeNameFrom(Name bearer) {
  if (bearer.pending()) {
    write(bearer.fid);
    const auto names = rows_.namesOf(bearer.fid);
    const Name* row = bearing(names, bearer.parent, bearer.name);
    if (!row) return;
    bearer = *row;
  }
  if (bearer.hasFid() && !otherRowOf(bearer))
    rows_.park(bearer);
  else
    drop(bearer);
  result_ = result_ == Result::kFailed ? result_ : Result::kApplied;
}

// A row that nobody will ask for again. The row goes first, so that rows in a circle are met once.
// A folder that was moved while it was scanned has two rows, and below each some of what it holds:
// that goes to the other row, and a listing finds the rest.
void Settle::drop(const Name& name) {
  const bool isFolder = name.type == kFolder;
  if (isFolder) rows_.FlushAllJournals();
  const auto other = otherRowOf(name);
  rows_.drop(name);
  ++counts_.removed;
  if (!isFolder) return;
  for (const Name& child : rows_.childrenOf(name.inode))
    other ? handOver(child, other->inode) : takeNameFrom(child);
  if (other) disk_.list(name.fid);
}

void Settle::handOver(const Name& child, unsigned long long folder) {
  if (!child.hasFid() || otherRowOf(child) || rows_.bearerOf(folder, child.name.c_str()))
    takeNameFrom(child);
  else
    rows_.moveRow(child, folder);
}

// Another row of the same file; a row of a folder is none of a file, whatever it says.
std::optional<Name> Settle::otherRowOf(const Name& name) {
  if (!name.hasFid()) return std::nullopt;
  for (Name& row : rows_.namesOf(name.fid, kFew + 1))
    if (row.inode != name.inode && (row.type == kFolder) == (name.type == kFolder)) return row;
  return std::nullopt;
}

void Settle::takeUnknown(const Found& found, unsigned long long folder,
                         const FlrJrnCommandRaw& record) {
  apply(record);
  rows_.noteName(folder, found.name, found.file, 0);
  noteAdded(found.file, folder, found.name, record);
  if (record.cmd == FLR_JRN_CREATE) correctType(found.file, record.u.create.mode);
  noteLinks(found.file, found.mask, record.timestamp);
  if (found.mask.listed()) justListed_ = found.file;
  if (!found.isFolder()) return;
  if (const auto inode = rows_.folderOf(found.file)) rows_.noteNewFolder(*inode);
  if (!found.mask.listed()) disk_.list(found.file);
}

// Coalesced records make plain files of everything.
void Settle::correctType(const fsf_fid& fid, unsigned mode) {
  if (GetFileType(mode) == kRegularFile) return;
  write(fid);
  for (const Name& name : rows_.namesOf(fid)) {
    struct stat st {};
    fsf_fid own = fid;
    if (name.type != GetFileType(mode) && rows_.GetStatInfo(name.inode, &st, nullptr))
      rows_.Update1(name.inode, &st, &own);
  }
}

// A known file at a name that it did not have: the look says how many names it has now, and so
// whether one of the old ones must be stale. A folder has one name.
void Settle::giveName(const Found& found, unsigned long long folder, const std::vector<Name>& names,
                      const FlrJrnCommandRaw& record) {
  const Name* parked = parkedAmong(names);
  const bool isTheOnlyName = names.size() == 1 && (found.isFolder() || found.mask.links() == 1);
  if (!parked && !isTheOnlyName) return link(found, folder, names, record);
  FlrJrnCommandRaw moved = record;
  moved.cmd = FLR_JRN_RENAME;
  moved.u.rename = {.src_fid = found.file,
                    .src_par_fid = kNobody,
                    .src_short_name = "",
                    .dst_fid_valid = 0,
                    .dst_fid = kNobody,
                    .dst_par_fid = found.folder,
                    .dst_short_name = found.name};
  move(parked ? *parked : names[0], folder, moved);
}

void Settle::move(const Name& row, unsigned long long folder, const FlrJrnCommandRaw& record) {
  rows_.forgetName(row);
  apply(record);
  rows_.noteName(folder, record.u.rename.dst_short_name, row.fid, row.inode);
  if (!rows_.wasOpenAt(record.timestamp)) rows_.stampNow(row.inode);
  ++counts_.moved;
  tell(CatalogueChange::Kind::kMoved, folder, record.u.rename.dst_short_name);
}

// Of a file with thousands of names a LINK would write every row anew. With the second name it is
// known to have more than one, and from then on the rows wait for their link count.
void Settle::link(const Found& found, unsigned long long folder, const std::vector<Name>& names,
                  const FlrJrnCommandRaw& record) {
  if (names.size() > 1) {
    addRow(found, folder, names[0], record.timestamp);
  } else {
    FlrJrnCommandRaw linked = record;
    linked.cmd = FLR_JRN_LINK;
    linked.u.link = {
        .src_fid = found.file, .dst_par_fid = found.folder, .dst_short_name = found.name};
    apply(linked);
    rows_.noteName(folder, found.name, found.file, 0);
    stampAsNew(found.file, record.timestamp);
  }
  noteAdded(found.file, folder, found.name, record);
  noteLinks(found.file, found.mask, record.timestamp);
}

void Settle::addRow(const Found& found, unsigned long long folder, const Name& other,
                    unsigned time) {
  write(found.file);
  StatFidName_s entry{.st = {}, .fid = found.file, .name = found.name};
  rows_.GetStatInfo(other.inode, &entry.st, nullptr);
  entry.st.st_ctime = time;
  rows_.noteName(folder, found.name, found.file, rows_.insertRow(entry, folder, other.type));
  result_ = result_ == Result::kFailed ? result_ : Result::kApplied;
}

void Settle::absent(const fsf_fid& folderFid, const char* name, const fsf_fid& file, unsigned links,
                    const FlrJrnCommandRaw& record) {
  const auto folder = rows_.folderOf(folderFid);
  if (!folder) {
    ++counts_.outside;
    return;
  }
  auto bearer = bearerOf(*folder, name, file);
  if (!bearer) {
    ++counts_.unchanged;
    return;
  }
  tell(CatalogueChange::Kind::kRemoved, *folder, name);
  const bool isFile = bearer->fid == file;
  if (isFile && links == 0 && (bearer->pending() || rows_.namesOf(file, kFew).size() == 1))
    return remove(*bearer, record);
  takeNameFrom(*bearer);
  if (isFile && links > 0) noteLinks(file, RecordMask::of(links, false), record.timestamp);
}

// The file that an event named mostly is the one; then its folder's names need not be known.
std::optional<Name> Settle::bearerOf(unsigned long long folder, const char* name,
                                     const fsf_fid& hint) {
  const std::string wanted = mbeToUtf(name);
  if (const DCJrn* created = rows_.createdOf(hint);
      created && created->parentInode == folder && mbeToUtf(created->name.c_str()) == wanted)
    return Name{.fid = hint, .parent = folder, .name = wanted};
  if (!isNobody(hint)) {
    const auto names = rows_.namesOf(hint, kFew);
    if (const Name* row = bearing(names, folder, wanted)) return *row;
  }
  return rows_.bearerOf(folder, name);
}

// A file that is gone, or a folder. What the catalogue still has in the folder must have moved: its
// records are on the way.
void Settle::remove(const Name& name, const FlrJrnCommandRaw& record) {
  FlrJrnCommandRaw removal = record;
  if (name.type == kFolder && !name.pending()) {
    rows_.FlushAllJournals();
    const std::vector<Name> children = rows_.childrenOf(name.inode);
    askBelow(children);
    for (const Name& child : children) takeNameFrom(child);
    removal.cmd = FLR_JRN_RMDIR;
    removal.u.rmdir = {.dir_fid = name.fid, .par_fid = kNobody, .short_name = ""};
  } else {
    removal.cmd = FLR_JRN_REMOVE;
    removal.u.remove = {.par_fid = kNobody, .short_name = "", .file_fid = name.fid, .nlink = 0};
  }
  rows_.forget(name);
  apply(removal);
  ++counts_.removed;
}

// What a folder still holds when it is gone has mostly gone with it. Asked after one level after
// the other, a deep tree would take as many rounds; asked after from the bottom, it takes one.
void Settle::askBelow(const std::vector<Name>& children) {
  std::vector<Name> found;
  for (const Name& child : children)
    if (child.type == kFolder) found.push_back(child);
  for (std::size_t i = 0; i < found.size() && found.size() < kMostAskedBelow; ++i)
    if (found[i].type == kFolder)
      for (Name& below : rows_.childrenOf(found[i].inode)) found.push_back(std::move(below));
  for (auto name = found.rbegin(); name != found.rend(); ++name)
    if (name->hasFid()) disk_.lookAt(name->fid);
}

void Settle::rename(const FlrJrnCommandRaw& record) {
  const FlrJrnRenameRaw& r = record.u.rename;
  const RecordMask mask(record.mask);
  const auto to = rows_.folderOf(r.dst_par_fid);
  if (!to) return absent(r.src_par_fid, r.src_short_name, r.src_fid, mask.links(), record);
  write(r.src_fid);
  std::vector<Name> names = rows_.namesOf(r.src_fid, kFew);
  if (names.empty())  // it came from outside, and only a look tells what it is
    return disk_.look(r.dst_par_fid, r.dst_short_name);
  const auto from = rows_.folderOf(r.src_par_fid);
  const auto source = from ? bearerOf(*from, r.src_short_name, r.src_fid) : std::nullopt;
  const bool bears = source && source->hasFid() && source->fid == r.src_fid;
  const auto there = rows_.bearerOf(*to, r.dst_short_name);
  if (there && there->hasFid() && there->fid == r.src_fid) {
    if (bears) takeNameFrom(*source);
    return;
  }
  const Found found{r.dst_par_fid, r.dst_short_name, r.src_fid, names[0].type, mask};
  makeWay(*to, found, false);
  if (!bears) {
    if (found.isFolder()) keepOneRow(names);
    return giveName(found, *to, names, record);
  }
  FlrJrnCommandRaw moved = record;
  moved.u.rename.dst_fid_valid = 0;  // whoever bore the name is out of the way
  move(*source, *to, moved);
}

void Settle::linkCount(const FlrJrnCommandRaw& record) {
  const FlrJrnRemoveRaw& r = record.u.remove;
  if (r.nlink != 0) return noteLinks(r.file_fid, r.nlink, record.timestamp);
  if (RecordMask(record.mask).links() == 0) return removeAll(r.file_fid, record);
  const std::vector<Name> names = rows_.namesOf(r.file_fid, kFew);
  const Name* parked = parkedAmong(names);
  if (!parked) {
    ++counts_.unchanged;
  } else if (parked->type == kFolder) {
    counts_.removed += rows_.dropTree(*parked);
    result_ = Result::kApplied;
  } else {
    remove(*parked, record);
  }
}

// A file that is gone has no names, whatever their own records will say.
void Settle::removeAll(const fsf_fid& file, const FlrJrnCommandRaw& record) {
  if (const DCJrn* created = rows_.createdOf(file))
    return remove(
        {.fid = file, .parent = created->parentInode, .name = mbeToUtf(created->name.c_str())},
        record);
  std::vector<Name> names = rows_.namesOf(file, kFew);
  if (names.empty()) ++counts_.unchanged;
  for (; !names.empty() && result_ != Result::kFailed; names = rows_.namesOf(file, kFew))
    for (const Name& name : names) remove(name, record);
}

void Settle::noteLinks(const fsf_fid& fid, RecordMask mask, unsigned time) {
  if (!mask.hasManyLinks()) noteLinks(fid, mask.links(), time);
}

void Settle::noteLinks(const fsf_fid& fid, unsigned links, unsigned time) {
  if (rows_.createdOf(fid)) {
    if (links == 1) return;
    write(fid);
  }
  links_[fid] = {links, time};
  result_ = result_ == Result::kFailed ? result_ : Result::kApplied;
  if (links_.size() >= kMostHeldBack) writeHeldBack();
}

void Settle::writeHeldBack() {
  for (const auto& [fid, links] : std::exchange(links_, {}))
    writeLinks(fid, links.count, links.time);
}

void Settle::writeLinks(const fsf_fid& fid, unsigned links, unsigned time) {
  for (const unsigned long long inode : rowsOf(rows_, fid)) {
    struct stat st {};
    unsigned long stamp = 0;
    if (!rows_.GetStatInfo(inode, &st, &stamp) || st.st_nlink == links) continue;
    st.st_nlink = links;
    st.st_ctime = time;
    const auto later = std::max<unsigned long>(time, static_cast<std::uint32_t>(stamp));
    rows_.Update(inode, &st, rows_.wasOpenAt(time) ? later : 0);
  }
}

// A change that is older than our watch is news all the same.
void Settle::stampAsNew(const fsf_fid& fid, unsigned time) {
  if (rows_.wasOpenAt(time)) return;
  for (const unsigned long long inode : rowsOf(rows_, fid)) rows_.stampNow(inode);
}

void Settle::attributes(const FlrJrnCommandRaw& record) {
  const FlrJrnSetAttrRaw& r = record.u.setattr;
  if (rows_.isPending(r.fid)) {
    noteLinks(r.fid, RecordMask(record.mask), record.timestamp);
    apply(record);
  } else {
    compareAttributes(record);
  }
  if (!isNobody(justListed_) && justListed_ == r.fid) stampListed(r.fid);
}

void Settle::compareAttributes(const FlrJrnCommandRaw& record) {
  const FlrJrnSetAttrRaw& r = record.u.setattr;
  const auto names = rows_.namesOf(r.fid, 1);
  struct stat st {};
  unsigned long stamp = 0;
  if (names.empty() || !rows_.GetStatInfo(names[0].inode, &st, &stamp)) {
    ++counts_.outside;
    return;
  }
  const bool isRelinked = changesLinks(r.fid, st.st_nlink, RecordMask(record.mask));
  if (isRelinked) noteLinks(r.fid, RecordMask(record.mask), record.timestamp);
  if (differsInContent(st, r)) {
    noteChanged(r.fid, record);
    return apply(record);
  }
  if (st.st_blocks != static_cast<blkcnt_t>(r.blocks))  // by the file system's own doing
    for (const unsigned long long inode : rowsOf(rows_, r.fid))
      rows_.UpdateSizeAndBlocks(inode, r.size, r.blocks);
  if (isRelinked) return;  // which brings the change time, too
  if (differ(st.st_ctime, r.ctime.tv_sec)) return changeTimeAlone(record, st, stamp);
  if (differ(st.st_atime, r.atime.tv_sec)) return apply(accessTimeAlone(record));
  ++counts_.unchanged;
}

bool Settle::changesLinks(const fsf_fid& fid, nlink_t stored, RecordMask mask) const {
  const auto held = links_.find(fid);
  return !mask.hasManyLinks() &&
         (held == links_.end() ? stored : held->second.count) != mask.links();
}

// An access control list or an extended attribute changed; the events do not tell which.
void Settle::changeTimeAlone(const FlrJrnCommandRaw& record, struct stat& st, unsigned long stamp) {
  const FlrJrnSetAttrRaw& r = record.u.setattr;
  noteChanged(r.fid, record);
  // The stamp must not go back, nor stay behind what readers have asked for.
  if (record.timestamp < static_cast<std::uint32_t>(stamp) || !rows_.wasOpenAt(record.timestamp)) {
    st.st_ctime = r.ctime.tv_sec;
    for (const unsigned long long inode : rowsOf(rows_, r.fid)) rows_.Update(inode, &st, 0);
    result_ = Result::kApplied;
    return;
  }
  FlrJrnCommandRaw changed = record;
  changed.cmd = FLR_JRN_SETXATTR;
  changed.u.setxattr = {.fid = r.fid, .flags = 0, .attr_name = "", .attr_len = 0, .value = nullptr};
  apply(changed);
}

// What a listing finds may be older than its coming into the volume, which is what counts.
void Settle::stampListed(const fsf_fid& fid) {
  justListed_ = kNobody;
  write(fid);
  for (const unsigned long long inode : rowsOf(rows_, fid)) rows_.stampNow(inode);
}

void Settle::stub(const FlrJrnCommandRaw& record) {
  const bool isStub = record.cmd == FLR_JRN_STUB;
  const fsf_fid& fid = isStub ? record.u.stub.fid : record.u.unstub.fid;
  if (!isStub && rows_.createdOf(fid)) return;
  write(fid);
  const auto names = rows_.namesOf(fid);
  const auto isRight = [&](const Name& name) { return (name.type == kStub) == isStub; };
  if (std::ranges::all_of(names, isRight)) {
    ++counts_.unchanged;
    return;
  }
  noteChanged(fid, record);
  apply(record);
}

void Settle::apply(const FlrJrnCommandRaw& record) {
  if (!rows_.apply(record))
    result_ = Result::kFailed;
  else if (result_ != Result::kFailed)
    result_ = Result::kApplied;
}

void Settle::noteAdded(const fsf_fid& fid, unsigned long long folder, const std::string& name,
                       const FlrJrnCommandRaw& record) {
  ++counts_.added;
  added_ = fid;
  addedBy_ = record.seq_num;
  tell(CatalogueChange::Kind::kAdded, folder, name);
}

void Settle::noteChanged(const fsf_fid& fid, const FlrJrnCommandRaw& record) {
  if (added_ == fid && record.seq_num - addedBy_ <= 2) return;
  ++counts_.changed;
  tellOf(fid, CatalogueChange::Kind::kChanged);
}

void Settle::tell(CatalogueChange::Kind kind, unsigned long long folder, const std::string& name) {
  if (observer_) observer_({kind, folder, name});
}

void Settle::tellOf(const fsf_fid& fid, CatalogueChange::Kind kind) {
  if (!observer_) return;
  for (const Name& name : rows_.namesOf(fid)) tell(kind, name.parent, name.name);
}

}  // namespace kddc
