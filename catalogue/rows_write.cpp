// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The operations that write single rows: each is its SQL, its failure texts and its binds.
//
// Modes, owners, link counts and times are bound as 32-bit integers; sizes, block counts, inodes
// and row ids as 64-bit ones.
#include <algorithm>
#include <ctime>

#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "catalogue/statement.h"
#include "platform/logged.h"
#include "platform/text.h"

using kddc::kDeriveFromMode;
using kddc::kFolder;
using kddc::kPlaceholder;
using kddc::kRegularFile;
using kddc::kStub;
using kddc::logged;
using kddc::Sql;

namespace {

// The columns are as wide as the numbers once were. A larger one is cut, and comes back cut:
// readers compare the low 32 bits.
template <class Number>
int int32(Number value) {
  return static_cast<int>(static_cast<unsigned>(value));
}
template <class Number>
unsigned long long int64(Number value) {
  return static_cast<unsigned long long>(value);
}

// A plain file whose data was moved away is a stub; only the storage manager can tell.
int stubOr(int fileType, RQHSMLowLevelRQFS& hsm, const struct stat& st, const fsf_fid& fid,
           const char* tag) {
  if (fileType != kRegularFile) return fileType;
  const int answer = hsm.isStub(st.st_dev, fid);
  if (answer < 0) {
    dbg.Error(tag, "eRRoR -- isStub failed.error[%d]", answer);
    throw UDCException(tag, 1, "isStub failed", 0);
  }
  return answer == 1 ? kStub : fileType;
}

constexpr Sql kInsertFile{
    .tag = "DCSqliteDB :: InsertFile",
    .text =
        "INSERT INTO FILES (PINODE,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME,"
        "FILE_TYPE,NAME,FID_ROWID) VALUES ( ?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14)",
    .cannotPrepare = "Could not prepeare the Insert Files query",
    .cannotBind = {"PINODE Bind failed", "MODE Bind failed", "NLINK Bind failed", "UID Bind failed",
                   "GID Bind failed", "SIZE Bind failed", "BLOCKS_USED Bind failed",
                   "ATIME Bind failed", "MTIME Bind failed", "CTIME Bind failed",
                   "TIME Bind failed", "FILE_TYPE Bind failed", "NAME Bind failed",
                   "FidRowId Bind failed"},
};

constexpr Sql kInsertFid{
    .tag = "DCSqliteDB :: InsertFid",
    .text =
        "INSERT INTO FIDS (FILES_ROWID,SEQNUM,RESCAN,FID1,FID2,FID3,FID4) VALUES "
        "(?1,?6,0,?2,?3,?4,?5)",
    .cannotPrepare = "Could not prepeare the Insert Fid query",
    .cannotBind = {"FILES_ROWID Bind failed", "FID1 Bind failed", "FID2 Bind failed",
                   "FID3 Bind failed", "FID4 Bind failed", "SEQNUM Bind failed"},
};

constexpr Sql kUpdate1{
    .tag = "DCSqliteDB :: Update1",
    .text =
        "UPDATE FILES SET MODE=?1,NLINK=?2,UID=?3,GID=?4,SIZE=?5,BLOCKSUSED=?6,ATIME=?7,"
        "MTIME=?8,CTIME=?9,TIME=?10,FILE_TYPE=?11 WHERE INODE=?12",
    .cannotPrepare = "Could not prepeare the Update Files query",
    .cannotBind = {"Mode Bind failed", "Nlink Bind failed", "Uid Bind failed", "Gid Bind failed",
                   "SIZE Bind failed", "BLOCKS Bind failed", "ATIME Bind failed",
                   "MTIME Bind failed", "CTIME Bind failed", "TIME Bind failed",
                   "FILETYPE Bind failed", "INODE Bind failed"},
};

constexpr Sql kUpdate{
    .tag = "DCSqliteDB :: Update",
    .text =
        "UPDATE FILES SET MODE=?1,NLINK=?2,UID=?3,GID=?4,SIZE=?5,BLOCKSUSED=?6,ATIME=?7,"
        "MTIME=?8,CTIME=?9,TIME=?10 WHERE INODE=?11",
    .cannotPrepare = "Could not prepeare the Update Files query",
    .cannotBind = {"Mode Bind failed", "Nlink Bind failed", "Uid Bind failed", "Gid Bind failed",
                   "SIZE Bind failed", "BLOCKS Bind failed", "ATIME Bind failed",
                   "MTIME Bind failed", "CTIME Bind failed", "TIME Bind failed",
                   "INODE Bind failed"},
};

constexpr Sql kUpdateSeqNum{
    .tag = "DCSqliteDB :: UpdateSeqNum",
    .text = "UPDATE FIDS SET SEQNUM=?1 WHERE FIDS_ROWID=?2",
    .cannotPrepare = "Could not prepeare the Update SeqNum query",
    .cannotBind = {"SEQNUM Bind failed", "FIDS_ROWID Bind failed"},
};

constexpr Sql kUpdateSizeAndBlocks{
    .tag = "DCSqliteDB :: UpdateSizeAndBlocks",
    .text = "UPDATE FILES SET SIZE=?1,BLOCKSUSED=?2 WHERE INODE=?3",
    .cannotPrepare = "Could not prepeare the Size and blocks upate query",
    .cannotBind = {"Size Bind failed", "Blocks Bind failed", "Inode Bind failed"},
};

constexpr Sql kUpdateAtime{
    .tag = "DCSqliteDB :: UpdateAtime",
    .text = "UPDATE FILES SET ATIME=?1 WHERE INODE=?2",
    .cannotPrepare = "Could not prepeare the Atime update query",
    .cannotBind = {"Atime Bind failed", "Inode Bind failed"},
};

constexpr Sql kUpdateFidRowIdInFilesDB{
    .tag = "DCSqliteDB :: UpdateFidRowIdInFilesDB",
    .text = "UPDATE FILES SET FID_ROWID=?1 WHERE INODE=?2",
    .cannotPrepare = "Could not prepeare the query to update FidRowIdInFilesDB",
    .cannotBind = {"FID_ROWID Bind failed", "INODE Bind failed"},
};

constexpr Sql kMarkForSelectiveRescan{
    .tag = "DCSqliteDB :: MarkForSelectiveRescan",
    .text = "UPDATE FIDS SET RESCAN=1 WHERE FIDS_ROWID=?1",
    .cannotPrepare = "Could not prepeare the Get MarkRescan query",
    .cannotBind = {"FIDS_ROWID Bind failed"},
};

constexpr Sql kDeleteInode{
    .tag = "DCSqliteDB :: DeleteInode",
    .text = "DELETE FROM FILES WHERE INODE=?1",
    .cannotPrepare = "Could not prepeare the Remove Inode query",
    .cannotBind = {"INODE Bind failed"},
};

constexpr Sql kDeleteFidGivenRowId{
    .tag = "DCSqliteDB :: DeleteFidGivenRowId",
    .text = "DELETE FROM FIDS WHERE FIDS_ROWID=?1",
    .cannotPrepare = "Could not prepeare the Remove Row query",
    .cannotBind = {"FIDS_ROWID Bind failed"},
};

constexpr Sql kDeleteFid{
    .tag = "DCSqliteDB :: DeleteFid",
    .text = "DELETE FROM FIDS WHERE FILES_ROWID=?1",
    .cannotPrepare = "Could not prepeare the Remove Row query",
    .cannotBind = {"FILES_ROWID Bind failed"},
};

}  // namespace

unsigned long long DCSqliteDB::Insert(StatFidName_s* entry, unsigned long long parentInode,
                                      int fileType) {
  constexpr char kTag[] = "DCSqliteDB :: Insert";
  return logged(kTag, [&] {
    if (!filesDb || !fidDb) throw UDCException(kTag, 1, dbFolder + " is not open", 0);
    // Each of the two rows names the other. The number of the second is foretold, which spares an
    // update as long as nobody else inserts; when it was wrong, the first row is corrected.
    const unsigned long long predicted = fidDb->LastInsertRowId() + 1;
    InsertFile(entry, parentInode, &fileType, predicted);
    const unsigned long long inode = filesDb->LastInsertRowId();
    InsertFid(&entry->fid, inode, fileType);
    const unsigned long long actual = fidDb->LastInsertRowId();
    if (actual != predicted) UpdateFidRowIdInFilesDB(inode, actual);
    return actual;
  });
}

unsigned long long DCSqliteDB::Insert(const char* name, StatFid_s* entry,
                                      unsigned long long parentInode) {
  return logged("DCSqliteDB :: Insert", [&] {
    StatFidName_s named{entry->st, entry->fid, name};
    return Insert(&named, parentInode, kDeriveFromMode);
  });
}

int DCSqliteDB::InsertFile(StatFidName_s* entry, unsigned long long parentInode, int* fileType,
                           unsigned long long fidRowId) {
  return logged(kInsertFile.tag, [&] {
    const struct stat& st = entry->st;
    if (*fileType == kDeriveFromMode) *fileType = GetFileType(st.st_mode);
    if (lookForStubsDuringInsert)
      *fileType = stubOr(*fileType, hsm, st, entry->fid, kInsertFile.tag);

    // A row that was cut off before its size came shows the placeholder instead of a wrong size.
    const bool whole = *fileType == kFolder || writesWholeRows;
    time_t changed = std::max(st.st_mtime, st.st_ctime);
    if (changed < openTime) changed = time(nullptr);  // new to us, so it counts as changed now
    const std::string name = mbeToUtf(entry->name.c_str());
    // The foretold number first: of several binds that fail it is the one that callers have been
    // told.
    int result = run(statements_->insertFile, filesDb, kInsertFile)
                     .bindAt(14, fidRowId != 0 ? fidRowId : kPlaceholder)
                     .bind(parentInode, int32(st.st_mode), int32(st.st_nlink), int32(st.st_uid),
                           int32(st.st_gid), whole ? int64(st.st_size) : kPlaceholder,
                           whole ? int64(st.st_blocks) : kPlaceholder, int32(st.st_atime),
                           int32(st.st_mtime), int32(st.st_ctime), int32(changed), *fileType, name)
                     .write();
    if (!whole)
      result =
          UpdateSizeAndBlocks(filesDb->LastInsertRowId(), int64(st.st_size), int64(st.st_blocks));
    return result;
  });
}

int DCSqliteDB::InsertFid(const fsf_fid* fid, unsigned long long filesRowId, int fileType) {
  return logged(kInsertFid.tag, [&] {
    // The placeholder is overwritten at once: a finished row has sequence number 0.
    const auto& [fid1, fid2, fid3, fid4] = columnsOf(*fid);
    const bool whole = fileType != kFolder || writesWholeRows;
    const int result = run(statements_->insertFid, fidDb, kInsertFid)
                           .bindAt(6, whole ? 0ULL : kPlaceholder)
                           .bind(filesRowId, fid1, fid2, fid3, fid4)
                           .write();
    if (writesWholeRows) return result;
    return UpdateSeqNum(fidDb->LastInsertRowId(), 0);
  });
}

// TIME is our clock's, not the file's: a file whose own times were set back has changed all the
// same.
int DCSqliteDB::Update1(unsigned long long inode, struct stat* st, fsf_fid* fid) {
  return logged(kUpdate1.tag, [&] {
    int fileType = GetFileType(st->st_mode);
    if (lookForStubsDuringUpdate) fileType = stubOr(fileType, hsm, *st, *fid, kUpdate1.tag);
    return run(statements_->update1, filesDb, kUpdate1)
        .bind(int32(st->st_mode), int32(st->st_nlink), int32(st->st_uid), int32(st->st_gid),
              int64(st->st_size), int64(st->st_blocks), int32(st->st_atime), int32(st->st_mtime),
              int32(st->st_ctime), int32(time(nullptr)), fileType, inode)
        .write();
  });
}

// The type stays, which spares the question whether the data was moved away; Update1 asks it.
int DCSqliteDB::Update(unsigned long long inode, struct stat* st, unsigned long stamp) {
  return logged(kUpdate.tag, [&] {
    const int changed = stamp != 0 ? int32(stamp) : int32(time(nullptr));
    return run(statements_->update, filesDb, kUpdate)
        .bind(int32(st->st_mode), int32(st->st_nlink), int32(st->st_uid), int32(st->st_gid),
              int64(st->st_size), int64(st->st_blocks), int32(st->st_atime), int32(st->st_mtime),
              int32(st->st_ctime), changed, inode)
        .write();
  });
}

int DCSqliteDB::UpdateSeqNum(unsigned long long fidsRowId, unsigned long long seqNum) {
  return logged(kUpdateSeqNum.tag, [&] {
    dbg.DebugLvl(kUpdateSeqNum.tag, 7, "RowId[%llu] SeqNum[%llu]", fidsRowId, seqNum);
    // SQLite's integers are signed; a counter beyond them would come back negative.
    if (seqNum >= kPlaceholder)
      throw UDCException(kUpdateSeqNum.tag, 1,
                         "Sqlite cannot handle this large SeqNo. Wait till it is rolled over", 0);
    return run(statements_->updateSeqNum, fidDb, kUpdateSeqNum).bind(seqNum, fidsRowId).write();
  });
}

int DCSqliteDB::UpdateSizeAndBlocks(unsigned long long inode, unsigned long long size,
                                    unsigned long long blocks) {
  return logged(kUpdateSizeAndBlocks.tag, [&] {
    return run(statements_->updateSizeAndBlocks, filesDb, kUpdateSizeAndBlocks)
        .bind(size, blocks, inode)
        .write();
  });
}

// One row for each name of the file. TIME stays: to have been read is no change.
int DCSqliteDB::UpdateAtime(std::list<unsigned long long>& inodes, unsigned long atime) {
  return logged(kUpdateAtime.tag, [&] {
    int result = SQLITE_OK;
    for (const unsigned long long inode : inodes)
      result =
          run(statements_->updateAtime, filesDb, kUpdateAtime).bind(int32(atime), inode).write();
    return result;
  });
}

int DCSqliteDB::UpdateFidRowIdInFilesDB(unsigned long long inode, unsigned long long fidRowId) {
  return logged(kUpdateFidRowIdInFilesDB.tag, [&] {
    return run(statements_->updateFidRowIdInFilesDB, filesDb, kUpdateFidRowIdInFilesDB)
        .bind(fidRowId, inode)
        .write();
  });
}

int DCSqliteDB::MarkForSelectiveRescan(unsigned long long fidsRowId) {
  return logged(kMarkForSelectiveRescan.tag, [&] {
    return run(statements_->markForSelectiveRescan, fidDb, kMarkForSelectiveRescan)
        .bind(fidsRowId)
        .write();
  });
}

int DCSqliteDB::DeleteInode(unsigned long long inode) {
  return logged(kDeleteInode.tag, [&] {
    return run(statements_->deleteInode, filesDb, kDeleteInode).bind(inode).write();
  });
}

int DCSqliteDB::DeleteFidGivenRowId(unsigned long long fidsRowId) {
  return logged(kDeleteFidGivenRowId.tag, [&] {
    return run(statements_->deleteFidGivenRowId, fidDb, kDeleteFidGivenRowId)
        .bind(fidsRowId)
        .write();
  });
}

int DCSqliteDB::DeleteFid(unsigned long long filesRowId) {
  return logged(kDeleteFid.tag, [&] {
    return run(statements_->deleteFid, fidDb, kDeleteFid).bind(filesRowId).write();
  });
}
