// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The operations that read single rows, and the decisions that rest on what they find. A query that
// finds no row leaves the caller's variables as they were.
#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "catalogue/statement.h"
#include "platform/logged.h"
#include "platform/text.h"
#include "records/fsf_fid.h"

using kddc::kFolder;
using kddc::logged;
using kddc::Sql;

namespace {

// SQLite's integers are signed; row ids and the pieces of identifiers use all 64 bits.
unsigned long long column64(sqlite3_stmt* row, int column) {
  return static_cast<unsigned long long>(sqlite3_column_int64(row, column));
}

// By its length: what a damaged database holds need not be text.
std::string columnText(sqlite3_stmt* row, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
  return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(row, column)))
              : std::string();
}

// Callers pass null for what they do not ask for, so that one query serves them all.
template <class Value>
void give(Value* output, const Value& value) {
  if (output) *output = value;
}
void append(std::list<unsigned long long>* output, unsigned long long value) {
  if (output) output->push_back(value);
}

// Joins the four columns of an identifier, the first of them at `column`.
void giveIdentifier(sqlite3_stmt* row, int column, fsf_fid* fid) {
  if (!fid) return;
  unsigned long long pieces[4];
  for (int i = 0; i < 4; ++i) pieces[i] = column64(row, column + i);
  GetBlobForInt(pieces, fid);
}

// A row that another row names must be there; without it nothing more can be concluded.
[[noreturn]] void noSuchRow(const char* tag, unsigned long long inode) {
  dbg.Error(tag, "Could not find an entry with Inode:%llu", inode);
  throw UDCException(tag, 1, "DB Inconsistent", 0);
}

constexpr Sql kGetFidTuple{
    .tag = "DCSqliteDB :: GetFidTuple",
    .text =
        "SELECT FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN FROM FIDS WHERE FID1=?1 AND FID2=?2 AND "
        "FID3=?3 AND FID4=?4",
    .cannotPrepare = "Could not prepeare the GetFid query",
    .cannotBind = {"FID1 Bind failed", "FID2 Bind failed", "FID3 Bind failed", "FID4 Bind failed"},
};

constexpr Sql kGetFidAndFilesRowId{
    .tag = "DCSqliteDB :: GetFidAndFilesRowId",
    .text = "SELECT FILES_ROWID,FID1,FID2,FID3,FID4 FROM FIDS WHERE FIDS_ROWID=?1",
    .cannotPrepare = "Could not prepeare the GetFidAndFilesRowId  query",
    .cannotBind = {"FIDS_ROWID Bind failed"},
};

constexpr Sql kGetFidGivenFidsRowId{
    .tag = "DCSqliteDB :: GetFidGivenFidsRowId",
    .text = "SELECT FID1,FID2,FID3,FID4 FROM FIDS WHERE FIDS_ROWID=?1",
    .cannotPrepare = "Could not prepeare the Get Rescan query",
    .cannotBind = {"FIDS_ROWID Bind failed"},
};

constexpr Sql kGetRescanList{
    .tag = "DCSqliteDB :: GetRescanList",
    .text = "SELECT FIDS_ROWID FROM FIDS WHERE RESCAN=1",
    .cannotPrepare = "Could not prepeare the Get Rescan query",
};

constexpr Sql kGetRowIdAndFileType{
    .tag = "DCSqliteDB :: GetRowIdAndFileType",
    .text = "SELECT INODE,FILE_TYPE,FID_ROWID FROM FILES WHERE PINODE=?1 AND NAME=?2",
    .cannotPrepare = "Could not prepeare the GetRowId query",
    .cannotBind = {"PINODE Bind failed", "NAME Bind failed"},
};

constexpr Sql kCheckDBToSeeIfThisIsAFolder{
    .tag = "DCSqliteDB :: CheckDBToSeeIfThisIsAFolder",
    .text = "SELECT FILE_TYPE FROM FILES WHERE INODE=?1",
    .cannotPrepare = "Could not prepeare the Get File Type query",
    .cannotBind = {"INODE Bind failed"},
};

constexpr Sql kGetNameFileTypePInodeAndFidRowId{
    .tag = "DCSqliteDB :: GetNameFileTypePInodeAndFidRowId",
    .text = "SELECT FID_ROWID,PINODE,FILE_TYPE,NAME FROM FILES WHERE INODE=?1",
    .cannotPrepare = "Could not prepeare the Get Name File Type query",
    .cannotBind = {"INODE Bind failed"},
};

constexpr Sql kGetStatInfo{
    .tag = "DCSqliteDB :: GetStatInfo",
    .text =
        "SELECT MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME FROM FILES WHERE "
        "INODE=?1",
    .cannotPrepare = "Could not prepeare the Get Stat Info query",
    .cannotBind = {"INODE Bind failed"},
};

// Numbers that were bound as 32 bits are read as the unsigned numbers they were.
unsigned column32(sqlite3_stmt* row, int column) {
  return static_cast<unsigned>(sqlite3_column_int64(row, column));
}

void giveStat(sqlite3_stmt* row, struct stat* st) {
  if (!st) return;
  st->st_mode = column32(row, 0);
  st->st_nlink = column32(row, 1);
  st->st_uid = column32(row, 2);
  st->st_gid = column32(row, 3);
  st->st_size = sqlite3_column_int64(row, 4);
  st->st_blocks = sqlite3_column_int64(row, 5);
  st->st_atime = sqlite3_column_int64(row, 6);
  st->st_mtime = sqlite3_column_int64(row, 7);
  st->st_ctime = sqlite3_column_int64(row, 8);
}

}  // namespace

// The answer lies in this object until the next call: whoever asks binds it at once.
const std::array<unsigned long long, 4>& DCSqliteDB::columnsOf(const fsf_fid& fid) {
  unsigned long long* columns = fidBuf.data();
  GetIntForBlob(&fid, &columns);
  return fidBuf;
}

// A file has one identifier and a row for each of its names. Lists take all of these; of several
// rows the single outputs keep the last.
int DCSqliteDB::GetFidTuple(const fsf_fid* fid, std::list<unsigned long long>* filesRowIds,
                            unsigned long long* filesRowId, unsigned long long* seqNum,
                            bool* rescan, unsigned long long* fidsRowId,
                            std::list<unsigned long long>* fidsRowIds) {
  return logged(kGetFidTuple.tag, [&] {
    const auto& [fid1, fid2, fid3, fid4] = columnsOf(*fid);
    return run(statements_->getFidTuple, fidDb, kGetFidTuple)
        .bind(fid1, fid2, fid3, fid4)
        .read([&](sqlite3_stmt* row) {
          give(fidsRowId, column64(row, 0));
          append(fidsRowIds, column64(row, 0));
          give(filesRowId, column64(row, 1));
          append(filesRowIds, column64(row, 1));
          give(seqNum, column64(row, 2));
          give(rescan, sqlite3_column_int(row, 3) != 0);
        });
  });
}

// Several rows are a file with several names: none of their numbers speaks for all, so that no
// record counts as newer.
bool DCSqliteDB::CheckSeqNum(const fsf_fid* fid, unsigned long long seqNum, int* rowCount) {
  constexpr char kTag[] = "DCSqliteDb :: CheckSeqNum";  // sic: as it stands in the logs
  return logged(kTag, [&] {
    give(rowCount, 1);
    unsigned long long stored = 0;
    const int rows = GetFidTuple(fid, nullptr, nullptr, &stored, nullptr, nullptr, nullptr);
    if (rows == 1) return stored < seqNum;
    give(rowCount, rows);
    dbg.Error(kTag, "Db has multiple or no entries with this fid:%s", kddc::fid2str(*fid).c_str());
    return false;
  });
}

bool DCSqliteDB::GetFidAndFilesRowId(unsigned long long fidsRowId, fsf_fid* fid,
                                     unsigned long long* filesRowId) {
  return logged(kGetFidAndFilesRowId.tag, [&] {
    return run(statements_->getFidAndFilesRowId, fidDb, kGetFidAndFilesRowId)
        .bind(fidsRowId)
        .readFirst([&](sqlite3_stmt* row) {
          give(filesRowId, column64(row, 0));
          giveIdentifier(row, 1, fid);
        });
  });
}

bool DCSqliteDB::GetFidGivenFidsRowId(unsigned long long fidsRowId, fsf_fid* fid) {
  return logged(kGetFidGivenFidsRowId.tag, [&] {
    return run(statements_->getFidGivenFidsRowId, fidDb, kGetFidGivenFidsRowId)
        .bind(fidsRowId)
        .readFirst([&](sqlite3_stmt* row) { giveIdentifier(row, 0, fid); });
  });
}

int DCSqliteDB::GetRescanList(std::list<unsigned long long>* fidsRowIds) {
  return logged(kGetRescanList.tag, [&] {
    return run(statements_->getRescanList, fidDb, kGetRescanList).read([&](sqlite3_stmt* row) {
      append(fidsRowIds, column64(row, 0));
    });
  });
}

bool DCSqliteDB::GetRowIdAndFileType(unsigned long long parentInode, const char* name,
                                     unsigned long long* inode, bool* isFile,
                                     unsigned long long* fidRowId) {
  return logged(kGetRowIdAndFileType.tag, [&] {
    // Stored names are UTF-8 whatever the locale, so what is looked for is converted as they were.
    const std::string utf8Name = mbeToUtf(name);
    return run(statements_->getRowIdAndFileType, filesDb, kGetRowIdAndFileType)
        .bind(parentInode, utf8Name)
        .readFirst([&](sqlite3_stmt* row) {
          give(inode, column64(row, 0));
          give(isFile, sqlite3_column_int(row, 1) != kFolder);
          // 32 bits wide: callers have always seen this lookup's row id so, and large ones cut.
          give(fidRowId, static_cast<unsigned long long>(sqlite3_column_int(row, 2)));
        });
  });
}

bool DCSqliteDB::GetStatInfo(unsigned long long inode, struct stat* st, unsigned long* stamp) {
  return logged(kGetStatInfo.tag, [&] {
    return run(statements_->getStatInfo, filesDb, kGetStatInfo)
        .bind(inode)
        .readFirst([&](sqlite3_stmt* row) {
          giveStat(row, st);
          give(stamp, static_cast<unsigned long>(column32(row, 9)));
        });
  });
}

bool DCSqliteDB::CheckDBToSeeIfThisIsAFolder(unsigned long long inode, int* fileType) {
  return logged(kCheckDBToSeeIfThisIsAFolder.tag, [&] {
    int type = 0;
    const bool found =
        run(statements_->checkDBToSeeIfThisIsAFolder, filesDb, kCheckDBToSeeIfThisIsAFolder)
            .bind(inode)
            .readFirst([&](sqlite3_stmt* row) { type = sqlite3_column_int(row, 0); });
    if (!found) noSuchRow(kCheckDBToSeeIfThisIsAFolder.tag, inode);
    give(fileType, type);
    return type == kFolder;
  });
}

void DCSqliteDB::GetNameFileTypePInodeAndFidRowId(unsigned long long inode, std::string* name,
                                                  int* fileType, unsigned long long* parentInode,
                                                  unsigned long long* fidRowId) {
  logged(kGetNameFileTypePInodeAndFidRowId.tag, [&] {
    const bool found = run(statements_->getNameFileTypePInodeAndFidRowId, filesDb,
                           kGetNameFileTypePInodeAndFidRowId)
                           .bind(inode)
                           .readFirst([&](sqlite3_stmt* row) {
                             give(fidRowId, column64(row, 0));
                             give(parentInode, column64(row, 1));
                             give(fileType, sqlite3_column_int(row, 2));
                             give(name, columnText(row, 3));
                           });
    if (!found) noSuchRow(kGetNameFileTypePInodeAndFidRowId.tag, inode);
  });
}

// Row by row, and not by a query for parent and name: the identifier has brought the few candidates
// already, and a folder may hold very many names.
void DCSqliteDB::FindWhichInodeCorrespondsToThisParentAndShortName(
    std::list<unsigned long long>& inodes, unsigned long long parentInode, const char* name,
    int* fileType, unsigned long long* fidRowId, unsigned long long* inode) {
  constexpr char kTag[] = "DCSqliteDB :: FindWhichInodeCorrespondsToThisParentAndShortName";
  logged(kTag, [&] {
    const std::string wanted = mbeToUtf(name);
    for (const unsigned long long candidate : inodes) {
      std::string candidateName;
      int candidateType = 0;
      unsigned long long candidateParent = 0, candidateFidRowId = 0;
      GetNameFileTypePInodeAndFidRowId(candidate, &candidateName, &candidateType, &candidateParent,
                                       &candidateFidRowId);
      if (candidateParent != parentInode || candidateName != wanted) continue;
      give(fileType, candidateType);
      give(fidRowId, candidateFidRowId);
      give(inode, candidate);
      return;
    }
    dbg.Error(kTag, "Could not find an entry with ParentInode[%llu] ShortName[%s]", parentInode,
              name);
    throw UDCException(kTag, 1, "DB Inconsistent", 0);
  });
}
