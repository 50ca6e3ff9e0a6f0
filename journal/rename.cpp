// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A name moves. Hard links make an identifier stand for several rows; only parent and short name
// then tell which of them the record means.
#include <cstring>
#include <ctime>
#include <optional>

#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "catalogue/statement.h"
#include "journal/identifier.h"
#include "platform/logged.h"
#include "platform/text.h"

using kddc::fid2str;
using kddc::inodeOf;
using kddc::kFolder;
using kddc::logged;
using kddc::RowIds;
using kddc::Sql;

namespace {

constexpr int kDetail = 6;  // log level

constexpr Sql kRename{
    .tag = "DCSqliteDB :: Rename",
    .text = "UPDATE FILES SET PINODE=?1,CTIME=?2,TIME=?3,NAME=?4 WHERE INODE=?5",
    .cannotPrepare = "Could not prepeare the Rename query",
    .cannotBind = {"PINODE Bind failed", "CTIME Bind failed", "TIME Bind failed",
                   "NAME Bind failed", "INODE Bind failed"},
};

// One end of a rename, as the record tells of it.
struct End {
  const char* name;  // in log lines
  const fsf_fid& fid;
  const fsf_fid& parentFid;
  const char* shortName;
};

// Which row it is.
struct Found {
  RowIds row;
  std::optional<int> fileType;  // when the row was told from others by parent and name
};

[[noreturn]] void inconsistent() {
  throw UDCException(kRename.tag, 1, "DB Inconsistent", 0);
}

// `parentInode` is asked only when it matters.
template <class ParentInode>
Found find(DCSqliteDB& db, const End& end, ParentInode&& parentInode) {
  Found found;
  std::list<unsigned long long> inodes;
  db.GetFidTuple(&end.fid, &inodes, &found.row.inode, nullptr, nullptr, &found.row.fidsRowId,
                 nullptr);
  if (inodes.empty()) {
    dbg.Error(kRename.tag, "Could not find an entry with %s_fid[%s]", end.name,
              fid2str(end.fid).c_str());
    inconsistent();
  }
  if (inodes.size() > 1)
    db.FindWhichInodeCorrespondsToThisParentAndShortName(inodes, parentInode(), end.shortName,
                                                         &found.fileType.emplace(),
                                                         &found.row.fidsRowId, &found.row.inode);
  return found;
}

void requireRow(bool there, const End& end) {
  if (there) return;
  dbg.Error(kRename.tag,
            "Could not find the Inode corresponding to %s_par_fid[%s] %s_short_name[%s] "
            "%s_fid[%s]",
            end.name, fid2str(end.parentFid).c_str(), end.name, end.shortName, end.name,
            fid2str(end.fid).c_str());
  inconsistent();
}

// Deletes the row that the new name replaced. A folder loses only its own row.
void dropReplaced(DCSqliteDB& db, const FlrJrnRenameRaw& r, unsigned long long dstParent) {
  if (r.dst_par_fid == r.src_par_fid && std::strcmp(r.src_short_name, r.dst_short_name) == 0) {
    dbg.DebugLvl(kRename.tag, kDetail,
                 "A file/folder is being renamed as itself !!. We are applying this journal so "
                 "this file/dir will be picked for next incremental");
    return;
  }
  const End end{"dst", r.dst_fid, r.dst_par_fid, r.dst_short_name};
  const RowIds row = find(db, end, [&] { return dstParent; }).row;
  dbg.DebugLvl(kRename.tag, kDetail, "Deleting destination. Inode[%llu] FidRowId[%llu]", row.inode,
               row.fidsRowId);
  requireRow(row.inode != 0 && row.fidsRowId != 0, end);
  db.DeleteInode(row.inode);
  db.DeleteFidGivenRowId(row.fidsRowId);
}

struct Source {
  unsigned long long inode;
  bool folder;
};

Source findSource(DCSqliteDB& db, const FlrJrnRenameRaw& r) {
  const End end{"src", r.src_fid, r.src_par_fid, r.src_short_name};
  const auto [row, fileType] = find(db, end, [&] { return inodeOf(db, r.src_par_fid); });
  const bool folder =
      fileType ? *fileType == kFolder : db.CheckDBToSeeIfThisIsAFolder(row.inode, nullptr);
  dbg.DebugLvl(kRename.tag, kDetail, "Renaming Source. Inode[%llu]", row.inode);
  requireRow(row.inode != 0, end);
  return {row.inode, folder};
}

}  // namespace

void DCSqliteDB::Rename(const FlrJrnRenameRaw& record, int time) {
  logged(kRename.tag, [&] {
    // The replaced row goes first, so that two rows never share a parent and a name.
    const unsigned long long dstParent = inodeOf(*this, record.dst_par_fid);
    if (record.dst_fid_valid != 0) dropReplaced(*this, record, dstParent);
    const Source source = findSource(*this, record);

    const std::string name = mbeToUtf(record.dst_short_name);
    run(statements_->rename, filesDb, kRename)
        .bind(dstParent, time, time, name, source.inode)
        .write();
    if (!source.folder) return;
    constructTime = ::time(nullptr);
    UpdateTimeFieldRecursively(source.inode);
  });
}
