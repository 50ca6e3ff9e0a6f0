// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/strays.h"

#include <algorithm>

#include "agent/engine/catalogue_folder.h"
#include "agent/engine/folder_paths.h"
#include "agent/engine/sqlite_query.h"
#include "catalogue/file_type.h"

namespace kddc {
namespace {

struct Row {
  std::int64_t inode, parent, fidsRowId;
  bool isFolder;
};

// Where the way up leads.
enum class Way : unsigned char { kUnknown, kBeingGone, kToTheTop, kToNowhere, kRoundInACircle };

std::uint64_t countIn(const ReadConnection& database, const char* sql) {
  Query count(database, sql);
  count.step();
  return static_cast<std::uint64_t>(count.integer(0));
}

// In the order of their inodes.
std::vector<Row> readRows(const ReadConnection& files) {
  std::vector<Row> rows;
  Query query(files, "SELECT INODE,PINODE,FID_ROWID,FILE_TYPE FROM FILES ORDER BY INODE");
  while (query.step())
    rows.push_back(
        {query.integer(0), query.integer(1), query.integer(2), query.integer(3) == kFolder});
  return rows;
}

const Row* find(const std::vector<Row>& rows, std::int64_t inode) {
  const auto at = std::ranges::lower_bound(rows, inode, {}, &Row::inode);
  return at == rows.end() || at->inode != inode ? nullptr : &*at;
}

// Each row is climbed from once: whatever is passed on the way gets the same end.
class Ways {
 public:
  explicit Ways(const std::vector<Row>& rows) : rows_(rows), ways_(rows.size()) {}

  Way from(const Row& row) {
    const Way end = climb(row);
    for (const Row* passed : passed_) way(*passed) = end;
    return end;
  }
  // Whether the row is the last on a way to nowhere.
  bool isLast(const Row& row) const { return !isTop(row) && !folderOf(row); }

 private:
  Way& way(const Row& row) { return ways_[static_cast<std::size_t>(&row - rows_.data())]; }
  static bool isTop(const Row& row) { return row.parent == 0 || row.parent == kParkedParent; }
  const Row* folderOf(const Row& row) const {
    const Row* folder = find(rows_, row.parent);
    return folder && folder->isFolder ? folder : nullptr;
  }

  Way climb(const Row& from) {
    passed_.clear();
    for (const Row* row = &from; row; row = folderOf(*row)) {
      Way& known = way(*row);
      if (known == Way::kBeingGone) return Way::kRoundInACircle;
      if (known != Way::kUnknown) return known;
      known = Way::kBeingGone;
      passed_.push_back(row);
      if (isTop(*row)) return Way::kToTheTop;
    }
    return Way::kToNowhere;
  }

  const std::vector<Row>& rows_;
  std::vector<Way> ways_;
  std::vector<const Row*> passed_;
};

}  // namespace

Strays findStrays(const std::string& catalogueFolder) {
  const ReadConnection files(catalogueFolder + kFilesDatabase);
  const ReadConnection fids(catalogueFolder + kFidDatabase);
  files.run("BEGIN");
  fids.run("BEGIN");
  const std::vector<Row> rows = readRows(files);
  Strays strays;
  Ways ways(rows);
  for (const Row& row : rows) {
    const Way way = ways.from(row);
    if (way == Way::kRoundInACircle) strays.circles.push_back(row.inode);
    if (way == Way::kToNowhere && ways.isLast(row)) strays.rows.push_back(row.inode);
  }
  Query identifiers(fids, "SELECT FIDS_ROWID,FILES_ROWID FROM FIDS");
  while (identifiers.step()) {
    const Row* row = find(rows, identifiers.integer(1));
    if (!row || row->fidsRowId != identifiers.integer(0))
      strays.identifiers.push_back(identifiers.integer(0));
  }
  return strays;
}

// As many met as there are: then no row lies beside the ways of the walk, and nothing need be
// searched.
bool hasMetAll(const std::string& catalogueFolder, const CompareCounts& counts) {
  const ReadConnection files(catalogueFolder + kFilesDatabase);
  const ReadConnection fids(catalogueFolder + kFidDatabase);
  return countIn(files, "SELECT COUNT(*) FROM FILES") == counts.rows &&
         countIn(fids, "SELECT COUNT(*) FROM FIDS") == counts.pairs;
}

}  // namespace kddc
