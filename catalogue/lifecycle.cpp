// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The life of a catalogue: created, opened, closed, and whether an old one may be trusted.
//
// The crash rule rests on two durable writes. OpenHandle forces GRACEFUL_SHUTDOWN=0 to the disk
// before anything else is written; CloseHandle forces everything else to the disk before it writes
// the 1. In between the databases run at synchronous level NORMAL: a power loss may take the last
// commits with it, but never the 0.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "catalogue/db_access.h"
#include "catalogue/statement.h"
#include "catalogue/subtree_walk.h"
#include "platform/logged.h"
#include "platform/platform_info.h"
#include "volumes/catalogue_files.h"

using kddc::absorbed;
using kddc::logged;
using kddc::Sql;

namespace {

// SQLite's synchronous levels.
constexpr int kFull = 2;
constexpr int kNormal = 1;
constexpr char kVersion[] = "10.1";

// The close writes a reference time this much earlier, so that what was still under way then is
// looked at again.
constexpr unsigned long kCloseMargin = 600;

constexpr const char* kPragmas[] = {"PRAGMA case_sensitive_like=1", "PRAGMA encoding = \"UTF-8\"",
                                    "PRAGMA legacy_file_format = OFF"};

// The declared types stand as every catalogue in the field has them, the misspelt one included.
constexpr char kFilesTable[] =
    "CREATE TABLE FILES ( INODE INTEGER PRIMARY KEY, FID_ROWID sqlite_uint64, PINODE "
    "sqlite_uint64, MODE INTEGER UNSIGNED, NLINK INTEGER UNSIGNED, UID INTEGER UNSIGNED, GID "
    "INTEGER UNSIGNED, SIZE sqlite_int64, BLOCKSUSED sqlite_int64, ATIME INTEGER UNSIGNED, MTIME "
    "INTEGER UNSIGNED, CTIME INTEGER UNSIGNED,TIME INTEGER UNSIGNED,FILE_TYPE INTEGER, NAME TEXT )";
constexpr char kTimeTable[] =
    "CREATE TABLE TIME ( TIME INTEGER UNSIGNED , FULL_SCAN INTEGER UNSIGNED, DB_CREATION_TIME "
    "INTEGER UNSIGNED, TOTAL_CHANGES sqlite_uint64 , VERSION TEXT,GRACEFUL_SHUTDOWN INTEGER )";
constexpr char kFidsTable[] =
    "CREATE TABLE FIDS ( FIDS_ROWID INTEGER PRIMARY KEY, FILES_ROWID sqlite_int64 , SEQNUM "
    "sqlite_unit64, RESCAN INTEGER,FID1 sqlite_uint64, FID2 sqlite_uint64,FID3 sqlite_uint64,FID4 "
    "sqlite_uint64 )";

// A new catalogue counts as closed properly and as never scanned, which keeps it from being
// trusted.
constexpr const char* kFilesSchema[] = {kFilesTable, kTimeTable,
                                        "INSERT INTO TIME VALUES (0,0,0,0,'10.1',1)",
                                        "CREATE INDEX IF NOT EXISTS IN_PINODE ON FILES(PINODE)"};
constexpr const char* kFidSchema[] = {kFidsTable,
                                      "CREATE INDEX IN_FID ON FIDS (FID1,FID2,FID3,FID4)"};

int pageSizeOfNewCatalogues(const char* tag) {
  long long size = 1024;
  KDPlatformInfo::getNumber("DataClassification", "SqlitePageSize", &size);
  if (size < 512 || size > 65536 || !std::has_single_bit(static_cast<unsigned long long>(size)))
    throw UDCException(tag, 1,
                       "SqlitePageSize is " + std::to_string(size) +
                           "; it must be a power of two from 512 to 65536",
                       0);
  return static_cast<int>(size);
}

unsigned numberIn(const char* cell) {
  return cell ? static_cast<unsigned>(std::strtoul(cell, nullptr, 10)) : 0;
}

}  // namespace

DCSqliteDB::DCSqliteDB(std::string folder) {
  logged("DCSqliteDB :: DCSqliteDB", [&] {
    dbFolder = std::move(folder);
    dbPath = dbFolder + "/.db.kd";
    dbLockPath = dbPath + ".lock";
    fidPath = dbFolder + "/.fid.kd";
    fidLockPath = fidPath + ".lock";
    pathBuf.fill(0);
    fidBuf.fill(0);
    queryBuf.fill(0);
    constructTime = time(nullptr);
    statements_ = std::make_unique<kddc::Statements>();
    subtreeWalk_ = std::make_unique<kddc::SubtreeWalk>();
  });
}

DCSqliteDB::~DCSqliteDB() {
  FinalizePreCompiledStatements();
}

// A database without its lock file was never closed by us, so it counts as absent.
bool DCSqliteDB::DoesDbExist() {
  const auto usable = [](const std::string& path) {
    return access(path.c_str(), R_OK | W_OK) == 0;
  };
  return usable(dbPath) && usable(dbLockPath) && usable(fidPath) && usable(fidLockPath);
}

void DCSqliteDB::GetDbPaths(std::string* filesPath, std::string* fidsPath) {
  *filesPath = dbPath;
  *fidsPath = fidPath;
}

void DCSqliteDB::SetDevt(unsigned long long volumeDevt) {
  devt = volumeDevt;
}
void DCSqliteDB::LookForStubsDuringInsert() {
  lookForStubsDuringInsert = true;
}
void DCSqliteDB::LookForStubsDuringUpdate() {
  lookForStubsDuringUpdate = true;
}

void DCSqliteDB::CreateDb() {
  constexpr char kTag[] = "DCSqliteDB :: CreateDb";
  logged(kTag, [&] {
    RemoveDCDb(dbFolder);
    if (access(dbFolder.c_str(), F_OK) == 0)
      throw UDCException(kTag, 1, "Failed to clean up the stale db", 0);
    if (mkdir(dbFolder.c_str(), 0700) != 0)
      throw UDCException(kTag, 0, "Unable to Create the DATACLASS Dir", errno);

    // A page size takes effect only on an empty file, so it is set before the first open.
    const int pageSize = pageSizeOfNewCatalogues(kTag);
    const auto create = [&](std::unique_ptr<UDC_DBMS>& db, const std::string& path,
                            const char* cannotOpen) {
      db = std::make_unique<UDC_DBMS>(path, kFull, 0, false);
      db->SetPageSize(pageSize);
      if (!db->opendb(false)) throw UDCException(kTag, 0, cannotOpen, 0);
    };
    create(filesDb, dbPath, "Unable to Open FilesDb");
    create(fidDb, fidPath, "Unable to open FidDb");

    for (const char* pragma : kPragmas) {
      execute(kTag, filesDb, pragma);
      execute(kTag, fidDb, pragma);
    }
    for (const char* statement : kFilesSchema) execute(kTag, filesDb, statement);
    for (const char* statement : kFidSchema) execute(kTag, fidDb, statement);

    filesDb->closedb(false);
    fidDb->closedb(false);
    filesDb.reset();
    fidDb.reset();
  });
}

bool DCSqliteDB::OpenHandle(bool readOnly, bool openFlag) {
  constexpr char kTag[] = "DCSqliteDB :: OpenHandle";
  const auto opened = [&](const std::string& path) {
    auto db = std::make_unique<UDC_DBMS>(path, kFull, 0, false);
    const bool open = absorbed(
        kTag, [&] { return db->opendb(openFlag); }, false, "Mitigated eRRoR -- ");
    return open ? std::move(db) : nullptr;
  };
  return logged(kTag, [&] {
    if (filesDb) throw UDCException(kTag, 1, dbFolder + " is open already", 0);
    auto files = opened(dbPath);
    if (!files) return false;
    auto fids = opened(fidPath);
    if (!fids) {
      files->closedb(false);
      return false;
    }
    // The mark reaches the disk before any row changes, so that whatever cuts us off from here on
    // is seen at the next start. It stands in one of the two databases for both.
    if (!readOnly) {
      execute(kTag, files, "UPDATE TIME SET GRACEFUL_SHUTDOWN=0");
      files->MakeDurable();
      files->SetSynchronous(kNormal);
      fids->SetSynchronous(kNormal);
    }
    filesDb = std::move(files);
    fidDb = std::move(fids);
    openTime = time(nullptr);
    return true;
  });
}

void DCSqliteDB::CloseHandle(unsigned long refTime, bool keepUngraceful) {
  constexpr char kTag[] = "DCSqliteDB :: CloseHandle";
  logged(kTag, [&] {
    FinalizePreCompiledStatements();  // a database with statements left stays open
    if (!filesDb || !fidDb) return;
    if (refTime != 0) {
      if (refTime > kCloseMargin) refTime -= kCloseMargin;
      std::snprintf(queryBuf.data(), queryBuf.size(), "UPDATE TIME SET TIME=%lu", refTime);
      filesDb->exec_query(queryBuf.data());
    }
    // First the rows, then the mark that vouches for them: a power loss in between leaves a 0.
    if (!keepUngraceful) {
      filesDb->MakeDurable();
      fidDb->MakeDurable();
      if (filesDb->HasLostWork() || fidDb->HasLostWork())
        throw UDCException(kTag, 1,
                           "SQLite gave up a group of changes; the catalogue is incomplete", 0);
      // So that the commit of the mark, which the close makes, reaches the disk by itself.
      filesDb->SetSynchronous(kFull);
      execute(kTag, filesDb, "UPDATE TIME SET GRACEFUL_SHUTDOWN=1");
    }
    filesDb->closedb(false);
    fidDb->closedb(false);
    filesDb.reset();
    fidDb.reset();
  });
}

void DCSqliteDB::Commit() {
  // Identifiers first: a reader that takes its view of FILES first then finds every one it needs.
  constexpr char kTag[] = "DCSqliteDB :: Commit";
  logged(kTag, [&] {
    if (!filesDb || !fidDb) throw UDCException(kTag, 1, dbFolder + " is not open", 0);
    fidDb->Commit();
    filesDb->Commit();
  });
}

bool DCSqliteDB::GetReferenceTime(unsigned long* refTime) {
  constexpr char kTag[] = "DCSqliteDB :: GetReferenceTime";
  return logged(kTag, [&] {
    constexpr char kQuery[] = "SELECT TIME,FULL_SCAN,GRACEFUL_SHUTDOWN FROM TIME";
    if (!filesDb) throw UDCException(kTag, 1, dbFolder + " is not open", 0);
    dbg.DebugLvl(kTag, 3, "Executing : %s ", kQuery);
    filesDb->exec_query_get_table(kQuery);
    if (filesDb->rowCount < 1) throw UDCException(kTag, 1, "DB Inconsistent", 0);

    // The names of the three columns stand before the values.
    const unsigned fullScan = numberIn(filesDb->table[4]);
    const unsigned graceful = numberIn(filesDb->table[5]);
    if (graceful == 1 && fullScan == 1) {
      const char* reference = filesDb->table[3];
      *refTime = reference ? static_cast<unsigned long>(std::atol(reference)) : 0;
      return true;
    }
    dbg.Error(kTag, "FULL_SCAN[%u] GRACEFUL_SHUTDOWN[%u]", fullScan, graceful);
    return false;
  });
}

bool DCSqliteDB::DBVersionCheck() {
  constexpr char kTag[] = "DCSqliteDB :: DBVersionCheck";
  return absorbed(
      kTag,
      [&] {
        if (!filesDb) throw UDCException(kTag, 1, dbFolder + " is not open", 0);
        filesDb->exec_query_get_table("SELECT VERSION FROM TIME");
        const char* version = filesDb->rowCount > 0 ? filesDb->table[1] : nullptr;
        return version && std::strcmp(version, kVersion) == 0;
      },
      false);
}

// Looks only: neither this open nor this close moves the mark of a graceful shutdown. One that is
// refused is closed by its destructor, which has nothing to lose.
bool DCSqliteDB::IsDbGood(std::string dbFolder, std::string volume, FlrDriver* driver,
                          bool& dbInsideVolume, fsf_fid& dbFid, fsf_fid& fidFid) {
  constexpr char kTag[] = "DCSqliteDB :: IsDbGood";
  const auto good = [&] {
    DCSqliteDB db(dbFolder);
    unsigned long refTime = 0;
    if (!db.DoesDbExist()) {
      dbg.Debug(kTag, "DB[%s] for Vol[%s] does not exist", dbFolder.c_str(), volume.c_str());
    } else if (!db.OpenHandle(true, false)) {
      dbg.Debug(kTag, "DbOpen failed on DB[%s] for Vol[%s] ", dbFolder.c_str(), volume.c_str());
    } else if (!db.GetReferenceTime(&refTime)) {
      dbg.Debug(kTag, "Could not obtain RefTime on  DB[%s] for Vol[%s] ", dbFolder.c_str(),
                volume.c_str());
    } else if (!db.DBVersionCheck()) {
      dbg.Debug(kTag, "DBVersionCheck failed on  DB[%s] for Vol[%s] ", dbFolder.c_str(),
                volume.c_str());
    } else {
      // With the slash: /data2/x does not lie inside /data.
      const std::string prefix = volume + "/";
      if (dbFolder.size() > prefix.size() && dbFolder.starts_with(prefix)) dbInsideVolume = true;
      if (dbInsideVolume) {
        std::string filesPath, fidsPath;
        db.GetDbPaths(&filesPath, &fidsPath);
        dbFid = driver->getFID(filesPath, false);
        fidFid = driver->getFID(fidsPath, false);
      }
      db.CloseHandle(0, true);
      return true;
    }
    return false;
  };
  return absorbed(kTag, good, false);
}

unsigned long DCSqliteDB::UpdateTimesForFullScan() {
  constexpr char kTag[] = "DCSqliteDB :: UpdateTimes";
  return logged(kTag, [&] {
    if (!filesDb) throw UDCException(kTag, 1, dbFolder + " is not open", 0);
    const auto now = static_cast<unsigned long>(time(nullptr));
    std::snprintf(queryBuf.data(), queryBuf.size(),
                  "UPDATE TIME SET TIME=%lu,FULL_SCAN=1,DB_CREATION_TIME=%lu", now, now);
    return static_cast<unsigned long>(filesDb->exec_query(queryBuf.data()));
  });
}

unsigned long DCSqliteDB::ClearRescan() {
  static constexpr Sql kClearRescan{
      .tag = "DCSqliteDB :: ClearRescan",
      .text = "UPDATE FIDS SET RESCAN=0",
      .cannotPrepare =
          "Could not prepeare the Check SeqNum query",  // kept: logs are searched for it
  };
  return logged(kClearRescan.tag, [&] {
    return static_cast<unsigned long>(run(statements_->clearRescan, fidDb, kClearRescan).write());
  });
}

void DCSqliteDB::FinalizePreCompiledStatements() {
  *statements_ = {};
}

kddc::Execution DCSqliteDB::run(kddc::Statement& statement, const std::unique_ptr<UDC_DBMS>& db,
                                const Sql& sql) {
  if (!db) throw UDCException(sql.tag, 1, dbFolder + " is not open", 0);
  if (!statement.prepared()) std::snprintf(queryBuf.data(), queryBuf.size(), "%s", sql.text);
  return statement.on(*db, sql, queryBuf.data());
}

int DCSqliteDB::execute(const char* tag, const std::unique_ptr<UDC_DBMS>& db, const char* sql) {
  std::snprintf(queryBuf.data(), queryBuf.size(), "%s", sql);
  dbg.DebugLvl(tag, 3, "Executing : %s ", queryBuf.data());
  return db->exec_query(queryBuf.data());
}
