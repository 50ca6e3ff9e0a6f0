// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records about names that go away and names that are added to a file, the times that they share
// with other records, and what an agent asks about single names outside the journal.
#include <cstdlib>
#include <unordered_set>

#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "catalogue/statement.h"
#include "journal/identifier.h"
#include "platform/logged.h"

using kddc::inodeOf;
using kddc::inodesOf;
using kddc::kDeriveFromMode;
using kddc::logged;
using kddc::RowIds;
using kddc::Sql;

namespace {

constexpr Sql kUpdateNlinkCtimeTime{
    .tag = "DCSqliteDB :: UpdateNlinkCtimeTime",
    .text = "UPDATE FILES SET NLINK=?1,CTIME=?2,TIME=?3 WHERE INODE=?4",
    .cannotPrepare = "Could not prepeare the Remove query",
    .cannotBind = {"NLINK Bind failed", "CTIME Bind failed", "TIME Bind failed",
                   "INODE Bind failed"},
};

constexpr Sql kUpdateCtimeTime{
    .tag = "DCSqliteDB :: UpdateCtimeTime",
    .text = "UPDATE FILES SET CTIME=?1,TIME=?2 WHERE INODE=?3",
    .cannotPrepare = "Could not prepeare the UpdateCtimeTime query",
    .cannotBind = {"CTIME Bind failed", "TIME Bind failed", "INODE Bind failed"},
};

constexpr Sql kUpdateTimeFieldRecursively{
    .tag = "DCSqliteDB :: UpdateTimeFieldRecursively",
    .text = "UPDATE FILES SET TIME=?1 WHERE PINODE=?2",
    .cannotPrepare = "Could not prepeare the UpdateTimeField query",
    .cannotBind = {"TIME Bind failed", "PINODE Bind failed"},
};

constexpr Sql kPopulateSubFolderList{
    .tag = "DCSqliteDB :: PopulateSubFolderList",
    .text = "SELECT INODE FROM FILES WHERE PINODE=?1 AND FILE_TYPE=1",
    .cannotPrepare = "Could not prepeare the GetSubFolder query",
    .cannotBind = {"PINODE Bind failed"},
};

// Rows hold times as 32 bits.
int int32(unsigned long time) {
  return static_cast<int>(time);
}

// Not DeleteEntry, which says each pair of rows in the log: a record has been said already.
void deleteRows(DCSqliteDB& db, const RowIds& row) {
  db.DeleteInode(row.inode);
  db.DeleteFidGivenRowId(row.fidsRowId);
}

// The row of a name that went away while the file has others.
RowIds rowNamed(DCSqliteDB& db, const char* tag, const fsf_fid& parent, const char* name) {
  const unsigned long long parentInode = inodeOf(db, parent);
  RowIds row;
  if (!db.GetRowIdAndFileType(parentInode, name, &row.inode, nullptr, &row.fidsRowId)) {
    dbg.Error(tag, "Could not find an entry with Pinode:%llu and name:%s", parentInode, name);
    throw UDCException(tag, 1, "DB Inconsistent", 0);
  }
  return row;
}

}  // namespace

void DCSqliteDB::Remove(const FlrJrnRemoveRaw& record, unsigned long time) {
  constexpr char kTag[] = "DCSqliteDB :: Remove";
  logged(kTag, [&] {
    // The last name has the only row of its file. While there are others, only parent and name tell
    // which of the rows it is.
    if (record.nlink == 0) {
      deleteRows(*this, kddc::rowOf(*this, record.file_fid));
      return;
    }
    deleteRows(*this, rowNamed(*this, kTag, record.par_fid, record.short_name));
    // The names that are left: the row above is gone by now.
    for (const unsigned long long inode : inodesOf(*this, record.file_fid))
      UpdateNlinkCtimeTime(inode, time, static_cast<int>(record.nlink));
  });
}

// A folder has one name, so that its identifier is enough.
void DCSqliteDB::RemoveDir(const FlrJrnRmDirRaw& record, int /*time*/) {
  logged("DCSqliteDB :: RemoveDir", [&] { deleteRows(*this, kddc::rowOf(*this, record.dir_fid)); });
}

void DCSqliteDB::CreateLink(const FlrJrnLinkRaw& record, int time) {
  logged("DCSqliteDB :: CreateLink", [&] {
    // An unknown file counts as one without names, and the new one has no stat fields.
    StatFidName_s entry{.st = {}, .fid = record.src_fid, .name = record.dst_short_name};
    const std::list<unsigned long long> names = inodesOf(*this, record.src_fid);
    GetStatInfo(names.empty() ? 0 : names.back(), &entry.st, nullptr);
    // The record does not say how many names there are, so the rows are counted.
    entry.st.st_nlink = names.size() + 1;
    entry.st.st_ctime = time;
    Insert(&entry, inodeOf(*this, record.dst_par_fid), kDeriveFromMode);
    for (const unsigned long long inode : names)
      UpdateNlinkCtimeTime(inode, static_cast<unsigned long>(time),
                           static_cast<int>(entry.st.st_nlink));
  });
}

int DCSqliteDB::UpdateNlinkCtimeTime(unsigned long long inode, unsigned long time, int nlink) {
  return logged(kUpdateNlinkCtimeTime.tag, [&] {
    return run(statements_->updateNlinkCtimeTime, filesDb, kUpdateNlinkCtimeTime)
        .bind(nlink, int32(time), int32(time), inode)
        .write();
  });
}

int DCSqliteDB::UpdateCtimeTime(unsigned long long inode, unsigned long time) {
  return logged(kUpdateCtimeTime.tag, [&] {
    return run(statements_->updateCtimeTime, filesDb, kUpdateCtimeTime)
        .bind(int32(time), int32(time), inode)
        .write();
  });
}

bool DCSqliteDB::UpdateTimeFieldRecursively(unsigned long long folderInode) {
  return logged(kUpdateTimeFieldRecursively.tag, [&] {
    kddc::Execution stamp =
        run(statements_->updateTimeFieldRecursively, filesDb, kUpdateTimeFieldRecursively);
    stamp.bindAt(1, int32(static_cast<unsigned long>(constructTime)));
    // A list of folders to come, not recursion: no depth of a tree exhausts the stack.
    subFolderList.assign(1, folderInode);
    // Parents may form a cycle, in a damaged catalogue or after a false record.
    std::unordered_set<unsigned long long> visited;
    while (!subFolderList.empty()) {
      const unsigned long long folder = subFolderList.front();
      subFolderList.pop_front();
      if (!visited.insert(folder).second) continue;
      stamp.bindAt(2, folder).write();
      PopulateSubFolderList(folder);
    }
    return false;
  });
}

int DCSqliteDB::PopulateSubFolderList(unsigned long long folderInode) {
  return logged(kPopulateSubFolderList.tag, [&] {
    run(statements_->populateSubFolderList, filesDb, kPopulateSubFolderList)
        .bind(folderInode)
        .read([&](sqlite3_stmt* row) {
          subFolderList.push_back(static_cast<unsigned long long>(sqlite3_column_int64(row, 0)));
        });
    return SQLITE_OK;
  });
}

int UpdateTimeCallBack(void* object, int /*columns*/, char** values, char** /*names*/) {
  constexpr char kTag[] = "UpdateTimeCallBack";
  const auto stampBelow = [&] {
    if (!values[0]) {
      dbg.Error(kTag, "INODE cannot be NULL");
      return -1;
    }
    const auto folder = static_cast<unsigned long long>(std::atoll(values[0]));
    static_cast<DCSqliteDB*>(object)->UpdateTimeFieldRecursively(folder);
    return 0;
  };
  return kddc::absorbed(kTag, stampBelow, -1);
}

void DCSqliteDB::DeleteChildIfExists(unsigned long long parentInode, fsf_fid* /*fid*/,
                                     const char* name) {
  logged("DCSqliteDB :: DeleteChildIfExists", [&] {
    RowIds child;
    bool isFile = false;
    if (!GetRowIdAndFileType(parentInode, name, &child.inode, &isFile, &child.fidsRowId)) return;
    if (isFile)
      DeleteEntry(child.inode, child.fidsRowId);
    else
      RemoveFolderGivenInode(child.inode, child.fidsRowId);
  });
}

// The answer was always false; what callers rely on are the exceptions of the two lookups.
bool DCSqliteDB::IfChildExists(unsigned long long parentInode, fsf_fid* /*fid*/, const char* name) {
  return logged("DCSqliteDB :: IfChildExists", [&] {
    RowIds child;
    fsf_fid found;
    if (GetRowIdAndFileType(parentInode, name, &child.inode, nullptr, &child.fidsRowId))
      GetFidGivenFidsRowId(child.fidsRowId, &found);
    return false;
  });
}

bool DCSqliteDB::IsFidFile(const fsf_fid* fid) {
  return logged("DCSqliteDB :: IsFidFile", [&] {
    unsigned long long inode = 0;
    bool rescan = false;
    const int rows = GetFidTuple(fid, nullptr, &inode, nullptr, &rescan, nullptr, nullptr);
    return rows != 0 && rescan;
  });
}

void DCSqliteDB::DeleteDBEntries(const fsf_fid* fid) {
  logged("DCSqliteDB :: DeleteDBEntries", [&] { RemoveDuplicateFid(fid); });
}
