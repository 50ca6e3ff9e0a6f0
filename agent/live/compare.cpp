// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/compare.h"

#include <fmt/format.h>

#include <optional>
#include <utility>
#include <vector>

#include "agent/engine/folder_paths.h"
#include "agent/engine/walk_thread.h"
#include "agent/errors.h"
#include "agent/live/folder_rows.h"
#include "catalogue/file_type.h"
#include "records/fsf_fid.h"

namespace kddc {
namespace {

constexpr std::int64_t kUnknown = -1;  // in place of the inode of a folder

std::uint32_t low(long long number) {
  return static_cast<std::uint32_t>(number);
}

bool sameAttributes(const FolderRow& row, const struct stat& st) {
  return row.mode == st.st_mode && row.size == st.st_size && row.mtime == low(st.st_mtime) &&
         row.ctime == low(st.st_ctime) && row.links == static_cast<std::uint32_t>(st.st_nlink) &&
         row.uid == st.st_uid && row.gid == st.st_gid;
}

// A stub is a regular file, and becomes one again.
bool sameType(const FolderRow& row, const WalkedEntry& entry) {
  const int type = GetFileType(entry.st.st_mode);
  return row.type == type || (row.type == kStub && type == kRegularFile);
}

class Comparer {
 public:
  Comparer(const std::string& volumePath, const std::string& catalogueFolder,
           Suspicions& suspicions)
      : volumePath_(volumePath),
        folder_(catalogueFolder),
        suspicions_(suspicions),
        rows_(folder_) {}

  void take(const Batch& batch);
  std::uint64_t entries() const { return entries_; }
  void count(CompareCounts& counts) const {
    counts.rows = rows_.rows();
    counts.pairs = rows_.pairs();
  }

 private:
  struct Folder {
    std::int64_t inode;  // in the catalogue
    fsf_fid fid;
  };

  void meet(const WalkedEntry& entry);
  void meetRoot(const WalkedEntry& root);
  void judge(const FolderRow* row, const WalkedEntry& entry);
  void enter(std::uint64_t folder);
  void leave(std::uint64_t folder);
  void knowFolder(const FolderRow* row, const WalkedEntry& entry);

  const std::string& volumePath_;
  const std::string& folder_;
  Suspicions& suspicions_;
  FolderRows rows_;
  std::vector<Folder> folders_ = {{0, {}}};  // by the walk's numbers; 0 is above the root
  std::uint64_t entries_ = 0;
  std::uint64_t current_ = 0;  // whose rows are at hand; 0: none's
};

// The rows are let go of after each batch: a reader that stays would keep the log of the database
// from being emptied.
void Comparer::take(const Batch& batch) {
  std::size_t begin = 0;
  for (const Batch::Entry& entry : batch.entries) {
    if (entry.isEndOfFolder()) {
      leave(entry.parent);
      continue;
    }
    const auto name = std::string_view(batch.names).substr(begin, entry.nameEnd - begin);
    begin = entry.nameEnd;
    meet({entry.st, entry.fid, entry.parent, entry.isStub, name});
  }
  rows_.release();
}

void Comparer::meet(const WalkedEntry& entry) {
  ++entries_;
  if (entry.parent == 0) return meetRoot(entry);
  if (entry.parent != current_) enter(entry.parent);
  FolderRow* row = rows_.meet(entry.name);
  if (row && !sameType(*row, entry)) row = nullptr;
  if (S_ISDIR(entry.st.st_mode)) knowFolder(row, entry);
  judge(row && row->knowsFid && row->fid == entry.fid ? row : nullptr, entry);
}

// Of a name with the wrong identifier, or none, all is told anew; else only what it is like.
void Comparer::judge(const FolderRow* row, const WalkedEntry& entry) {
  if (!row)
    suspicions_.name(folders_[entry.parent].fid, entry);
  else if (!sameAttributes(*row, entry.st) || (row->type == kStub) != entry.isStub)
    suspicions_.attributes(entry);
}

// One that has moved is compared with the rows that it had where it was.
void Comparer::knowFolder(const FolderRow* row, const WalkedEntry& entry) {
  const bool isItsOwn = row && row->knowsFid && row->fid == entry.fid;
  auto inode = isItsOwn ? std::optional(row->inode) : rows_.folderOf(entry.fid);
  if (!inode && row && !row->knowsFid) {
    inode = row->inode;
    suspicions_.identity(entry, *inode);
  }
  folders_.push_back({inode.value_or(kUnknown), entry.fid});
}

void Comparer::meetRoot(const WalkedEntry& root) {
  rows_.load(0);
  if (rows_.all().empty())
    throw Failure(fmt::format("the catalogue in {} has no root; make a new one with: kddc scan {}",
                              folder_, volumePath_));
  FolderRow& row = rows_.all().front();
  if (rows_.nameOf(row) != volumePath_)
    throw Failure(fmt::format("{} holds the catalogue of {}, not of {}", folder_, rows_.nameOf(row),
                              volumePath_));
  for (const FolderRow& other : rows_.all())
    if (&other != &row) suspicions_.row(other.inode);
  folders_.push_back({row.inode, root.fid});
  if (!row.knowsFid || row.fid != root.fid) suspicions_.identity(root, row.inode);
  if (!sameAttributes(row, root.st)) suspicions_.attributes(root);
}

void Comparer::enter(std::uint64_t folder) {
  current_ = folder;
  if (const std::int64_t inode = folders_[folder].inode; inode != kUnknown)
    rows_.load(inode);
  else
    rows_.clear();
}

// What is left of the rows has no counterpart on the disk. A row that no name can be asked for is
// told by its number.
void Comparer::leave(std::uint64_t folder) {
  if (folder != current_) enter(folder);  // it was empty
  for (const FolderRow& row : rows_.all()) {
    if (row.met) continue;
    const std::string_view name = rows_.nameOf(row);
    if (!canBeAName(name) || rows_.isDuplicate(row))
      suspicions_.row(row.inode);
    else
      suspicions_.absent(folders_[folder].fid, name);
  }
  current_ = 0;
  if (folders_[folder].inode != kUnknown) suspicions_.compared(folders_[folder].inode);
}

}  // namespace

CompareCounts compareVolume(UniqueFd root, const std::string& volumePath,
                            const WalkOptions& options, const std::string& catalogueFolder,
                            Suspicions& suspicions, const CompareWishes& wishes) {
  Comparer comparer(volumePath, catalogueFolder, suspicions);
  WalkOptions helped = options;
  helped.helped = true;  // comparing costs a sixth of walking: there is time left
  WalkThread walk(std::move(root), volumePath, helped,
                  {.endsOfFolders = true, .check = wishes.check});
  while (const auto batch = walk.next()) {
    comparer.take(*batch);
    if (wishes.progress) wishes.progress(comparer.entries());
  }
  CompareCounts counts;
  counts.walk = walk.finish();
  comparer.count(counts);
  return counts;
}

}  // namespace kddc
