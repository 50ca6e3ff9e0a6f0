// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/settle_attributes.h"

#include <algorithm>
#include <cstdint>
#include <list>
#include <utility>

#include "catalogue/file_type.h"

namespace kddc {
namespace {

// Files whose link count or stub mark waits, so that a file with thousands of names is written once
// and not with each of its records.
constexpr std::size_t kMostHeldBack = 1000;
// So many rows of a file are read when it is said what it is; more would take too long.
constexpr int kRowsToRead = 8;

// Times and identities are stored as 32 bits.
bool differ(long long stored, long long seen) {
  return static_cast<std::uint32_t>(stored) != static_cast<std::uint32_t>(seen);
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

void SettleAttributes::attributes(const FlrJrnCommandRaw& record) {
  const FlrJrnSetAttrRaw& r = record.u.setattr;
  // Written later, an older time must not replace the one that this record brings.
  if (const auto held = links_.find(r.fid); held != links_.end())
    held->second.time = record.timestamp;
  if (rows_.isPending(r.fid)) {
    noteLinks(r.fid, RecordMask(record.mask), record.timestamp);
    work_.apply(record);
  } else {
    compare(record);
  }
  if (justListed_ != kNobody && justListed_ == r.fid) stampListed(r.fid);
}

// From what readers ask for to what they hardly care for: content, blocks, links, the change time
// alone, the access time alone. Each needs less to be written than the one before.
void SettleAttributes::compare(const FlrJrnCommandRaw& record) {
  const FlrJrnSetAttrRaw& r = record.u.setattr;
  struct stat st {};
  unsigned long stamp = 0;
  if (!readRow(r, RecordMask(record.mask), st, stamp)) {
    ++work_.counts.outside;
    return;
  }
  const bool isRelinked = changesLinks(r.fid, st.st_nlink, RecordMask(record.mask));
  if (isRelinked) noteLinks(r.fid, RecordMask(record.mask), record.timestamp);
  if (differsInContent(st, r)) {
    work_.noteChanged(r.fid, record.seq_num);
    return work_.apply(record);
  }
  if (st.st_blocks != static_cast<blkcnt_t>(r.blocks)) updateBlocks(r);
  if (isRelinked) return;
  if (differ(st.st_ctime, r.ctime.tv_sec)) return changeTimeAlone(record, st, stamp);
  if (differ(st.st_atime, r.atime.tv_sec)) return work_.apply(accessTimeAlone(record));
  if (!work_.hasApplied()) ++work_.counts.unchanged;
}

// The first row of the file, or one of the next few that says something else of its content than
// what was seen: it is damaged.
bool SettleAttributes::readRow(const FlrJrnSetAttrRaw& seen, RecordMask mask, struct stat& st,
                               unsigned long& stamp) {
  const bool mayHaveMore = mask.hasManyLinks() || mask.links() > 1;
  bool isThere = false;
  for (const Name& name : rows_.namesOf(seen.fid, mayHaveMore ? kRowsToRead : 1)) {
    struct stat row {};
    unsigned long rowStamp = 0;
    if (!rows_.GetStatInfo(name.inode, &row, &rowStamp)) continue;
    const bool differs = differsInContent(row, seen) || changesLinks(seen.fid, row.st_nlink, mask);
    if (!isThere || differs) {
      st = row;
      stamp = rowStamp;
      isThere = true;
    }
    if (differs) break;
  }
  return isThere;
}

// The file system's own doing, and no change of the file.
void SettleAttributes::updateBlocks(const FlrJrnSetAttrRaw& seen) {
  for (const unsigned long long inode : rowsOf(rows_, seen.fid))
    rows_.UpdateSizeAndBlocks(inode, seen.size, seen.blocks);
  work_.noteApplied();
}

bool SettleAttributes::changesLinks(const fsf_fid& fid, nlink_t stored, RecordMask mask) const {
  const auto held = links_.find(fid);
  return !mask.hasManyLinks() &&
         (held == links_.end() ? stored : held->second.count) != mask.links();
}

// An access control list or an extended attribute changed; the events do not tell which.
void SettleAttributes::changeTimeAlone(const FlrJrnCommandRaw& record, struct stat& st,
                                       unsigned long stamp) {
  const FlrJrnSetAttrRaw& r = record.u.setattr;
  if (links_.contains(r.fid)) return work_.noteApplied();  // it comes with the link count
  work_.noteChanged(r.fid, record.seq_num);
  // The stamp must not go back, nor stay behind what readers have asked for.
  if (record.timestamp < static_cast<std::uint32_t>(stamp) || !rows_.wasOpenAt(record.timestamp)) {
    st.st_ctime = r.ctime.tv_sec;
    for (const unsigned long long inode : rowsOf(rows_, r.fid)) rows_.Update(inode, &st, 0);
    work_.noteApplied();
    return;
  }
  FlrJrnCommandRaw changed = record;
  changed.cmd = FLR_JRN_SETXATTR;
  changed.u.setxattr = {.fid = r.fid, .flags = 0, .attr_name = "", .attr_len = 0, .value = nullptr};
  work_.apply(changed);
}

// What a listing finds may be older than its coming into the volume, which is what counts.
void SettleAttributes::stampListed(const fsf_fid& fid) {
  justListed_ = kNobody;
  work_.write(fid);
  for (const unsigned long long inode : rowsOf(rows_, fid)) rows_.stampNow(inode);
}

// Of a file that was just created the rows have no mark yet, and "is no stub" says nothing new.
void SettleAttributes::stub(const FlrJrnCommandRaw& record) {
  const bool isStub = record.cmd == FLR_JRN_STUB;
  const fsf_fid& fid = isStub ? record.u.stub.fid : record.u.unstub.fid;
  if (!isStub && rows_.createdOf(fid)) return;
  work_.write(fid);
  const StubState state{isStub, record.timestamp, record.seq_num};
  if (rows_.namesOf(fid, kFewNames).size() < kFewNames) return writeStub(fid, state);
  stubs_.insert_or_assign(fid, state);
  noteHeldBack();
}

void SettleAttributes::writeStub(const fsf_fid& fid, const StubState& state) {
  const auto names = rows_.namesOf(fid);
  const auto isRight = [&](const Name& name) { return (name.type == kStub) == state.isStub; };
  if (std::ranges::all_of(names, isRight)) {
    ++work_.counts.unchanged;
    return;
  }
  work_.noteChanged(fid, state.number);
  const auto time = static_cast<int>(state.time);
  if (state.isStub)
    rows_.Stub({.fid = fid, .meta = ""}, time);
  else
    rows_.UnStub({.fid = fid}, time);
  work_.noteApplied();
}

void SettleAttributes::noteLinks(const fsf_fid& fid, RecordMask mask, unsigned time) {
  if (!mask.hasManyLinks()) noteLinks(fid, mask.links(), time);
}

// A row is written with one link, so that of a new file with one name there is nothing to hold
// back.
void SettleAttributes::noteLinks(const fsf_fid& fid, unsigned links, unsigned time) {
  if (rows_.createdOf(fid)) {
    if (links == 1) return;
    work_.write(fid);
  }
  links_[fid] = {links, time};
  noteHeldBack();
}

void SettleAttributes::noteHeldBack() {
  work_.noteApplied();
  if (links_.size() + stubs_.size() >= kMostHeldBack) writeHeldBack();
}

void SettleAttributes::writeHeldBack() {
  for (const auto& [fid, state] : std::exchange(stubs_, {})) writeStub(fid, state);
  for (const auto& [fid, links] : std::exchange(links_, {})) writeLinks(fid, links);
}

void SettleAttributes::forgetHeldBack(const fsf_fid& fid) {
  links_.erase(fid);
  stubs_.erase(fid);
}

// TIME goes forward only: a change that was made while nobody watched counts as made now, so that
// whoever asks from the last answer on hears of it.
void SettleAttributes::writeLinks(const fsf_fid& fid, const Links& links) {
  for (const unsigned long long inode : rowsOf(rows_, fid)) {
    struct stat st {};
    unsigned long stamp = 0;
    if (!rows_.GetStatInfo(inode, &st, &stamp)) continue;
    if (st.st_nlink == links.count && !differ(st.st_ctime, links.time)) continue;
    st.st_nlink = links.count;
    st.st_ctime = links.time;
    const auto later = std::max<unsigned long>(links.time, static_cast<std::uint32_t>(stamp));
    rows_.Update(inode, &st, rows_.wasOpenAt(links.time) ? later : 0);
  }
}

void SettleAttributes::stampAsNew(const fsf_fid& fid, unsigned time) {
  if (rows_.wasOpenAt(time)) return;
  for (const unsigned long long inode : rowsOf(rows_, fid)) rows_.stampNow(inode);
}

}  // namespace kddc
