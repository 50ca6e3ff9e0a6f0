// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/settle_coming.h"

#include <algorithm>

namespace kddc {

void SettleComing::present(const NamedFile& found, const FlrJrnCommandRaw& record) {
  const auto folder = rows_.folderOf(found.folder);
  if (!folder) {
    ++work_.counts.outside;
    return;
  }
  if (isBorneBy(*folder, found)) {
    ++work_.counts.unchanged;
    return;
  }
  if (rows_.createdOf(found.file)) work_.write(found.file);
  std::vector<Name> names = namesOf(found, record);
  if (found.isFolder()) keepOneRow(names);
  if (makeWay(*folder, found, names.empty())) return;
  if (names.empty())
    takeUnknown(found, *folder, record);
  else
    giveName(found, *folder, names, record);
}

// Identifiers made of inode numbers come again for another file. A pending entry has no type yet.
bool SettleComing::isBorneBy(unsigned long long folder, const NamedFile& found) {
  const auto bearer = rows_.bearerOf(folder, found.name);
  return bearer && bearer->hasFid() && bearer->fid == found.file &&
         (bearer->pending() || found.isOfType(bearer->type));
}

// A folder has one name. Two rows are left when it moved while it was scanned.
void SettleComing::keepOneRow(std::vector<Name>& names) {
  while (names.size() > 1) {
    going_.takeNameFrom(names.back());
    names.pop_back();
  }
}

// Rows of another type are those of a file that is gone, whose identifier was given again; beside
// rows of the right type they are damaged, and those others are not to go with them.
std::vector<Name> SettleComing::namesOf(const NamedFile& found, const FlrJrnCommandRaw& record) {
  const auto isAnothers = [&](const Name& name) { return !found.isOfType(name.type); };
  for (;;) {
    std::vector<Name> names = rows_.namesOf(found.file, kFewNames);
    if (std::ranges::none_of(names, isAnothers)) return names;
    names = rows_.namesOf(found.file);
    const bool isGone = std::ranges::all_of(names, isAnothers);
    for (const Name& name : names)
      if (isAnothers(name)) isGone ? going_.remove(name, record) : going_.drop(name);
  }
}

// Whoever else bears the name loses it. True when it turns out to be the comer's: a row that has
// lost its identifier gets it back.
bool SettleComing::makeWay(unsigned long long folder, const NamedFile& found, bool mayAdopt) {
  auto bearer = rows_.bearerOf(folder, found.name);
  if (!bearer) return false;
  if (mayAdopt && !bearer->hasFid() && found.isOfType(bearer->type)) {
    work_.giveIdentifier(*bearer, found.file);
    return true;
  }
  going_.takeNameFrom(*bearer);
  return false;
}

void SettleComing::takeUnknown(const NamedFile& found, unsigned long long folder,
                               const FlrJrnCommandRaw& record) {
  attributes_.forgetHeldBack(found.file);
  work_.apply(record);
  rows_.noteName(folder, found.name, found.file, 0);
  work_.noteAdded(found.file, folder, found.name, record);
  if (record.cmd == FLR_JRN_CREATE) correctType(found.file, record.u.create.mode);
  attributes_.noteLinks(found.file, found.mask, record.timestamp);
  if (found.mask.listed()) attributes_.noteListed(found.file);
  if (!found.isFolder()) return;
  if (const auto inode = rows_.folderOf(found.file)) rows_.noteNewFolder(*inode);
  if (!found.mask.listed()) work_.disk.list(found.file);
}

// Coalesced records make plain files of everything.
void SettleComing::correctType(const fsf_fid& fid, unsigned mode) {
  if (GetFileType(mode) == kRegularFile) return;
  work_.write(fid);
  for (const Name& name : rows_.namesOf(fid)) {
    struct stat st {};
    fsf_fid own = fid;
    if (name.type != GetFileType(mode) && rows_.GetStatInfo(name.inode, &st, nullptr))
      rows_.Update1(name.inode, &st, &own);
  }
}

// A known file at a name that it did not have: the look says how many names it has now, and so
// whether one of the old ones must be stale. A folder has one name.
void SettleComing::giveName(const NamedFile& found, unsigned long long folder,
                            const std::vector<Name>& names, const FlrJrnCommandRaw& record) {
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

void SettleComing::move(const Name& row, unsigned long long folder,
                        const FlrJrnCommandRaw& record) {
  rows_.forgetName(row);
  work_.apply(record);
  rows_.noteName(folder, record.u.rename.dst_short_name, row.fid, row.inode);
  if (!rows_.wasOpenAt(record.timestamp)) rows_.stampNow(row.inode);
  ++work_.counts.moved;
  work_.tell(CatalogueChange::Kind::kMoved, folder, record.u.rename.dst_short_name);
}

// Of a file with thousands of names a LINK would write every row anew. With the second name it is
// known to have more than one, and from then on the rows wait for their link count.
void SettleComing::link(const NamedFile& found, unsigned long long folder,
                        const std::vector<Name>& names, const FlrJrnCommandRaw& record) {
  if (names.size() > 1) {
    addRow(found, folder, names[0], record.timestamp);
  } else {
    FlrJrnCommandRaw linked = record;
    linked.cmd = FLR_JRN_LINK;
    linked.u.link = {
        .src_fid = found.file, .dst_par_fid = found.folder, .dst_short_name = found.name};
    work_.apply(linked);
    rows_.noteName(folder, found.name, found.file, 0);
    attributes_.stampAsNew(found.file, record.timestamp);
  }
  work_.noteAdded(found.file, folder, found.name, record);
  attributes_.noteLinks(found.file, found.mask, record.timestamp);
}

// As LINK does, but without writing the other rows: their link count is held back.
void SettleComing::addRow(const NamedFile& found, unsigned long long folder, const Name& other,
                          unsigned time) {
  work_.write(found.file);
  StatFidName_s entry{.st = {}, .fid = found.file, .name = found.name};
  rows_.GetStatInfo(other.inode, &entry.st, nullptr);
  entry.st.st_ctime = time;
  rows_.noteName(folder, found.name, found.file, rows_.insertRow(entry, folder, other.type));
  work_.noteApplied();
}

// What the driver has seen to move. Its two ends are looked at apart: the row may have moved
// already, may lie outside, or the names may have changed hands since.
void SettleComing::rename(const FlrJrnCommandRaw& record) {
  const FlrJrnRenameRaw& r = record.u.rename;
  const RecordMask mask(record.mask);
  const auto to = rows_.folderOf(r.dst_par_fid);
  if (!to) return going_.absent(r.src_par_fid, r.src_short_name, r.src_fid, mask.links(), record);
  work_.write(r.src_fid);
  std::vector<Name> names = rows_.namesOf(r.src_fid, kFewNames);
  if (names.empty())  // it came from outside, and only a look tells what it is
    return work_.disk.look(r.dst_par_fid, r.dst_short_name);
  const auto from = rows_.folderOf(r.src_par_fid);
  const auto source = from ? going_.bearerOf(*from, r.src_short_name, r.src_fid) : std::nullopt;
  const bool bears = source && source->hasFid() && source->fid == r.src_fid;
  const auto there = rows_.bearerOf(*to, r.dst_short_name);
  if (there && there->hasFid() && there->fid == r.src_fid) {
    if (bears) going_.takeNameFrom(*source);
    return;
  }
  const NamedFile found{r.dst_par_fid, r.dst_short_name, r.src_fid, names[0].type, mask};
  makeWay(*to, found, false);
  if (!bears) {
    if (found.isFolder()) keepOneRow(names);
    return giveName(found, *to, names, record);
  }
  FlrJrnCommandRaw moved = record;
  moved.u.rename.dst_fid_valid = 0;  // whoever bore the name is out of the way
  move(*source, *to, moved);
}

}  // namespace kddc
