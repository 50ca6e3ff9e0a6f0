// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/folder_rows.h"

#include <algorithm>
#include <numeric>

#include "agent/engine/catalogue_folder.h"
#include "catalogue/file_type.h"
#include "records/fsf_fid.h"

namespace kddc {
namespace {

// Stepping over a row costs less than a fourth of searching for the next one.
constexpr std::uint64_t kWidestGap = 4;

constexpr char kRowsIn[] =
    "SELECT INODE,FID_ROWID,MODE,NLINK,UID,GID,SIZE,MTIME,CTIME,FILE_TYPE,NAME FROM FILES "
    "WHERE PINODE=?1";
constexpr char kRowOf[] = "SELECT FID_ROWID,FILE_TYPE FROM FILES WHERE INODE=?1";
constexpr char kIdentifiers[] =
    "SELECT FIDS_ROWID,FILES_ROWID,FID1,FID2,FID3,FID4 FROM FIDS "
    "WHERE FIDS_ROWID BETWEEN ?1 AND ?2";
constexpr char kTuple[] =
    "SELECT FIDS_ROWID,FILES_ROWID FROM FIDS WHERE FID1=?1 AND FID2=?2 AND FID3=?3 AND FID4=?4";

fsf_fid fidIn(const Query& row, int column) {
  unsigned long long pieces[4];
  for (int i = 0; i < 4; ++i) pieces[i] = static_cast<unsigned long long>(row.integer(column + i));
  fsf_fid fid{};
  GetBlobForInt(pieces, &fid);
  return fid;
}

// Names are sorted by their hashes: in a folder of a million names comparing texts is what would
// cost.
std::size_t hashOf(std::string_view name) {
  return std::hash<std::string_view>()(name);
}

}  // namespace

FolderRows::FolderRows(const std::string& catalogueFolder)
    : files_(catalogueFolder + kFilesDatabase),
      fids_(catalogueFolder + kFidDatabase),
      rowsIn_(files_, kRowsIn),
      rowOf_(files_, kRowOf),
      identifiers_(fids_, kIdentifiers),
      tuple_(fids_, kTuple) {}

// FILES first: a writer commits identifiers first, so every one that FILES names is there.
void FolderRows::begin() {
  if (reading_) return;
  files_.run("BEGIN");
  fids_.run("BEGIN");
  reading_ = true;
}

void FolderRows::release() {
  if (!reading_) return;
  files_.run("COMMIT");
  fids_.run("COMMIT");
  reading_ = false;
}

void FolderRows::clear() {
  rows_.clear();
  names_.clear();
  byName_.clear();
  next_ = 0;
}

// All names of a folder share one text, and rows say where in it theirs lies: a string for each
// would be most of the memory.
void FolderRows::load(std::int64_t folder) {
  begin();
  clear();
  rowsIn_.bind(folder);
  while (rowsIn_.step()) {
    const std::string_view name = rowsIn_.text(10);
    rows_.push_back({.inode = rowsIn_.integer(0),
                     .fidsRowId = rowsIn_.integer(1),
                     .size = rowsIn_.integer(6),
                     .mode = rowsIn_.word(2),
                     .links = rowsIn_.word(3),
                     .uid = rowsIn_.word(4),
                     .gid = rowsIn_.word(5),
                     .mtime = rowsIn_.word(7),
                     .ctime = rowsIn_.word(8),
                     .type = static_cast<int>(rowsIn_.integer(9)),
                     .nameBegin = static_cast<std::uint32_t>(names_.size()),
                     .nameLength = static_cast<std::uint32_t>(name.size())});
    names_ += name;
  }
  rowCount_ += rows_.size();
  identify();
}

// The rows' identifiers, in runs of FIDS rows that lie close together: a scan gave the entries of a
// folder neighbouring numbers, so that most folders take one or a few searches.
void FolderRows::identify() {
  byFidsRowId_.resize(rows_.size());
  std::iota(byFidsRowId_.begin(), byFidsRowId_.end(), 0U);
  const auto rowIdAt = [&](std::uint32_t at) {
    return static_cast<std::uint64_t>(rows_[at].fidsRowId);
  };
  if (!std::ranges::is_sorted(byFidsRowId_, {}, rowIdAt))
    std::ranges::sort(byFidsRowId_, {}, rowIdAt);
  for (std::size_t first = 0; first < byFidsRowId_.size();) {
    std::size_t end = first + 1;
    while (end < byFidsRowId_.size() &&
           rowIdAt(byFidsRowId_[end]) - rowIdAt(byFidsRowId_[end - 1]) <= kWidestGap)
      ++end;
    identifyRun(first, end);
    first = end;
  }
}

// Both sides are sorted and are passed through side by side. What speaks of another row is none:
// the row has lost its identifier.
void FolderRows::identifyRun(std::size_t first, std::size_t end) {
  identifiers_.bind(rows_[byFidsRowId_[first]].fidsRowId, rows_[byFidsRowId_[end - 1]].fidsRowId);
  while (identifiers_.step()) {
    const std::int64_t fidsRowId = identifiers_.integer(0);
    while (first < end && rows_[byFidsRowId_[first]].fidsRowId < fidsRowId) ++first;
    for (; first < end && rows_[byFidsRowId_[first]].fidsRowId == fidsRowId; ++first) {
      FolderRow& row = rows_[byFidsRowId_[first]];
      if (identifiers_.integer(1) != row.inode) continue;
      row.fid = fidIn(identifiers_, 2);
      row.knowsFid = true;
      ++pairCount_;
    }
  }
}

void FolderRows::sortNames() {
  if (!byName_.empty()) return;
  byName_.reserve(rows_.size());
  for (std::uint32_t at = 0; at < rows_.size(); ++at)
    byName_.push_back({hashOf(nameOf(rows_[at])), at});
  std::ranges::sort(byName_);
}

std::span<const FolderRows::HashedName> FolderRows::candidates(std::string_view name) {
  sortNames();
  const std::size_t hash = hashOf(name);
  const auto first = std::ranges::lower_bound(byName_, hash, {}, &HashedName::hash);
  const auto end = std::ranges::upper_bound(first, byName_.end(), hash, {}, &HashedName::hash);
  return {first, end};
}

// The disk mostly lists names in the order in which the scan inserted them, so the next row is
// tried before the name is searched for.
FolderRow* FolderRows::meet(std::string_view name) {
  const auto isIt = [&](const FolderRow& row) { return !row.met && nameOf(row) == name; };
  if (next_ >= rows_.size() || !isIt(rows_[next_])) {
    next_ = rows_.size();
    for (const HashedName& candidate : candidates(name))
      if (isIt(rows_[candidate.row])) next_ = candidate.row;
  }
  if (next_ >= rows_.size()) return nullptr;
  rows_[next_].met = true;
  return &rows_[next_++];
}

// Of rows with one name only one can be met; the others are left over.
bool FolderRows::isDuplicate(const FolderRow& row) {
  return std::ranges::any_of(candidates(nameOf(row)), [&](const HashedName& candidate) {
    const FolderRow& other = rows_[candidate.row];
    return other.met && nameOf(other) == nameOf(row);
  });
}

// A folder has one name, but a crash may have left rows that do not speak of each other; those are
// passed over.
std::optional<std::int64_t> FolderRows::folderOf(const fsf_fid& fid) {
  begin();
  unsigned long long pieces[4];
  unsigned long long* out = pieces;
  GetIntForBlob(&fid, &out);
  tuple_.bind(pieces[0], pieces[1], pieces[2], pieces[3]);
  std::optional<std::int64_t> folder;
  while (tuple_.step()) {
    const std::int64_t fidsRowId = tuple_.integer(0), inode = tuple_.integer(1);
    const bool speaksOfIt = rowOf_.bind(inode).step() && rowOf_.integer(0) == fidsRowId;
    if (speaksOfIt && rowOf_.integer(1) == kFolder && !folder) folder = inode;
    rowOf_.reset();
  }
  return folder;
}

}  // namespace kddc
