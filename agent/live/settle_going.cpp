// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/settle_going.h"

#include <algorithm>
#include <string>
#include <utility>

#include "catalogue/file_type.h"
#include "platform/text.h"

namespace kddc {
namespace {

// What is beyond takes one more round.
constexpr std::size_t kMostAskedBelow = 10'000;

const Name* bearing(const std::vector<Name>& names, unsigned long long folder,
                    const std::string& name) {
  const auto at = std::ranges::find_if(
      names, [&](const Name& row) { return row.parent == folder && row.name == name; });
  return at == names.end() ? nullptr : &*at;
}

}  // namespace

void SettleGoing::absent(const fsf_fid& folderFid, const char* name, const fsf_fid& file,
                         unsigned links, const FlrJrnCommandRaw& record) {
  const auto folder = rows_.folderOf(folderFid);
  if (!folder) {
    ++work_.counts.outside;
    return;
  }
  auto bearer = bearerOf(*folder, name, file);
  if (!bearer) {
    ++work_.counts.unchanged;
    return;
  }
  work_.tell(CatalogueChange::Kind::kRemoved, *folder, name);
  const bool isFile = bearer->fid == file;
  if (isFile && links == 0 && (bearer->pending() || rows_.namesOf(file, kFewNames).size() == 1))
    return remove(*bearer, record);
  takeNameFrom(*bearer);
  if (isFile && links > 0)
    attributes_.noteLinks(file, RecordMask::of(links, false), record.timestamp);
}

// The file that an event named mostly is the one; then its folder's names need not be known.
std::optional<Name> SettleGoing::bearerOf(unsigned long long folder, const char* name,
                                          const fsf_fid& hint) {
  const std::string wanted = mbeToUtf(name);
  if (const DCJrn* created = rows_.createdOf(hint);
      created && created->parentInode == folder && mbeToUtf(created->name.c_str()) == wanted)
    return Name{.fid = hint, .parent = folder, .name = wanted};
  if (hint != kNobody) {
    const auto names = rows_.namesOf(hint, kFewNames);
    if (const Name* row = bearing(names, folder, wanted)) return *row;
  }
  return rows_.bearerOf(folder, name);
}

void SettleGoing::takeNameFrom(Name bearer) {
  if (bearer.pending()) {
    work_.write(bearer.fid);
    const auto names = rows_.namesOf(bearer.fid);
    const Name* row = bearing(names, bearer.parent, bearer.name);
    if (!row) return;
    bearer = *row;
  }
  if (bearer.hasFid() && isTheOnlyRow(bearer))
    rows_.park(bearer);
  else
    drop(bearer);
  work_.noteApplied();
}

// The row goes first, so that rows in a circle are met once.
// A folder that was moved while it was scanned has two rows, and below each some of what it holds.
// That goes to the other row; but records have spoken of only one of the two since the scan, so all
// of it is asked for.
void SettleGoing::drop(const Name& name) {
  const bool isFolder = name.type == kFolder;
  if (isFolder) rows_.FlushAllJournals();
  const auto other = otherRowOf(name);
  rows_.drop(name);
  ++work_.counts.removed;
  if (!isFolder) return;
  for (const Name& child : rows_.childrenOf(name.inode))
    other ? handOver(child, other->inode) : takeNameFrom(child);
  if (other) work_.askForContents(*other);
}

void SettleGoing::handOver(const Name& child, unsigned long long folder) {
  if (!child.hasFid() || otherRowOf(child) || rows_.bearerOf(folder, child.name.c_str()))
    takeNameFrom(child);
  else
    rows_.moveRow(child, folder);
}

// Another row of the same file; a row of a folder is none of a file, whatever it says.
std::optional<Name> SettleGoing::otherRowOf(const Name& name) {
  if (!name.hasFid()) return std::nullopt;
  for (Name& row : rows_.namesOf(name.fid, kFewNames + 1))
    if (row.inode != name.inode && (row.type == kFolder) == (name.type == kFolder)) return row;
  return std::nullopt;
}

bool SettleGoing::isTheOnlyRow(const Name& name) {
  return std::ranges::none_of(rows_.namesOf(name.fid, kFewNames),
                              [&](const Name& row) { return row.inode != name.inode; });
}

// A file that is gone, or a folder. What the catalogue still has in the folder must have moved: its
// records are on the way.
void SettleGoing::remove(const Name& name, const FlrJrnCommandRaw& record) {
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
  work_.apply(removal);
  ++work_.counts.removed;
}

// What a folder still holds when it is gone has mostly gone with it. Asked after one level after
// the other, a deep tree would take as many rounds; asked after from the bottom, it takes one.
void SettleGoing::askBelow(const std::vector<Name>& children) {
  std::vector<Name> found;
  for (const Name& child : children)
    if (child.type == kFolder) found.push_back(child);
  for (std::size_t i = 0; i < found.size() && found.size() < kMostAskedBelow; ++i)
    if (found[i].type == kFolder)
      for (Name& below : rows_.childrenOf(found[i].inode)) found.push_back(std::move(below));
  for (auto name = found.rbegin(); name != found.rend(); ++name)
    if (name->hasFid()) work_.disk.lookAt(name->fid);
}

void SettleGoing::linkCount(const FlrJrnCommandRaw& record) {
  const FlrJrnRemoveRaw& r = record.u.remove;
  if (r.nlink != 0) return attributes_.noteLinks(r.file_fid, r.nlink, record.timestamp);
  if (RecordMask(record.mask).links() == 0) return removeAll(r.file_fid, record);
  const std::vector<Name> names = rows_.namesOf(r.file_fid, kFewNames);
  const Name* parked = parkedAmong(names);
  if (!parked) {
    ++work_.counts.unchanged;
  } else if (parked->type == kFolder) {
    work_.counts.removed += rows_.dropTree(*parked);
    work_.noteApplied();
  } else {
    remove(*parked, record);
  }
}

// A file that is gone has no names, whatever their own records will say.
void SettleGoing::removeAll(const fsf_fid& file, const FlrJrnCommandRaw& record) {
  if (const DCJrn* created = rows_.createdOf(file))
    return remove(
        {.fid = file, .parent = created->parentInode, .name = mbeToUtf(created->name.c_str())},
        record);
  std::vector<Name> names = rows_.namesOf(file, kFewNames);
  if (names.empty()) ++work_.counts.unchanged;
  for (; !names.empty() && !work_.hasFailed(); names = rows_.namesOf(file, kFewNames))
    for (const Name& name : names) remove(name, record);
}

}  // namespace kddc
