// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The catalogue of one monitored volume: two SQLite databases in a folder of their own.
//
//   <folder>/.db.kd    FILES  one row for each name on the volume, TIME  one row about the
//   catalogue <folder>/.fid.kd   FIDS   one row for each identifier that names a row of FILES
//
// The word inode always means FILES.INODE, the number that SQLite gave the row; the file system's
// own inode numbers are not stored. The two databases are joined by values alone:
// FILES.FID_ROWID = FIDS.FIDS_ROWID and FIDS.FILES_ROWID = FILES.INODE.
//
//   DCSqliteDB ─► CreateDb ─► OpenHandle ─► row operations ─► CloseHandle
//                 (fresh)     GRACEFUL_SHUTDOWN=0             GRACEFUL_SHUTDOWN=1
//
// Crash rule: from the moment OpenHandle returns until CloseHandle has made everything durable the
// catalogue is marked as not gracefully closed, and IsDbGood refuses it.
//
// Threads: one thread at a time per object; operations share buffers and statements.
// Failures: UDCException, logged under "DCSqliteDB :: <operation>" and rethrown, unless an
// operation says otherwise. An operation that throws leaves the rows it had already written.
#pragma once

#include <sys/stat.h>

#include <array>
#include <ctime>
#include <list>
#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/flr_driver.h"
#include "platform/hsm.h"
#include "platform/udc_dbms.h"
#include "records/fsf_fid.h"

namespace kddc {
struct Sql;          // the fixed texts of one operation
class Statement;     // one prepared statement
class Execution;     // one execution of it
struct Statements;   // the prepared statements of an open catalogue
struct SubtreeWalk;  // a removal of folders that is under way
}  // namespace kddc

// What a full scan or a journal record knows of an entry: its name is in the local encoding.
struct StatFidName_s {
  struct stat st;
  fsf_fid fid;
  std::string name;
};

struct StatFid_s {
  struct stat st;
  fsf_fid fid;
};

class KDDC_API DCSqliteDB {
 public:
  // Life: create, open, close, and whether an old catalogue may be trusted. catalogue/lifecycle.cpp

  // Binds the object to a catalogue folder; touches nothing.
  explicit DCSqliteDB(std::string dbFolder);
  // Finalizes the statements. A catalogue that is still open is left as a crash would leave it.
  virtual ~DCSqliteDB();
  DCSqliteDB(const DCSqliteDB&) = delete;
  DCSqliteDB& operator=(const DCSqliteDB&) = delete;

  // True when both databases and both lock files can be read and written.
  bool DoesDbExist();
  // The paths of the files database and of the fid database.
  void GetDbPaths(std::string* filesPath, std::string* fidsPath);
  // The device of the volume that this catalogue belongs to.
  void SetDevt(unsigned long long devt);
  // From now on inserts (updates through Update1) ask whether a plain file is a stub.
  void LookForStubsDuringInsert();
  void LookForStubsDuringUpdate();

  // Removes what is in the folder of an old catalogue and builds an empty one, closed.
  void CreateDb();
  // Opens both databases. Unless `readOnly`, the catalogue is durably marked as not gracefully
  // closed before the call returns. `openFlag` true takes the shared lock, false the exclusive one.
  // False, without an exception, when a database is locked or cannot be opened.
  bool OpenHandle(bool readOnly, bool openFlag);
  // Writes the reference time (seconds; 600 earlier when it is greater than that, nothing when it
  // is 0), makes both databases durable, marks the catalogue gracefully closed unless
  // `keepUngraceful`, and closes.
  virtual void CloseHandle(unsigned long refTime, bool keepUngraceful);
  // Commits both databases: what was written so far is visible to readers.
  void Commit();

  // Stores the reference time and returns true when the catalogue holds a finished full scan and
  // was closed gracefully.
  bool GetReferenceTime(unsigned long* refTime);
  // True when the schema version is ours; a failure is logged and counts as false.
  bool DBVersionCheck();
  // Whether the catalogue in `dbFolder` may be used again for `volume`. Sets `dbInsideVolume` when
  // the folder lies inside the volume, and then the identifiers of the two database files, so that
  // records about them can be told apart. Never throws and never changes the catalogue.
  static bool IsDbGood(std::string dbFolder, std::string volume, FlrDriver* driver,
                       bool& dbInsideVolume, fsf_fid& dbFid, fsf_fid& fidFid);
  // Marks the full scan as finished now; the result of the statement.
  unsigned long UpdateTimesForFullScan();
  // Takes every row off the list of those to be scanned again.
  unsigned long ClearRescan();
  // Drops the prepared statements; failures are logged and end there.
  void FinalizePreCompiledStatements();

  // Rows, written: one statement each, answering SQLite's result. catalogue/rows_write.cpp

  // Writes a FILES row and its FIDS row; returns the FIDS row id. `fileType` 7 derives it from the
  // mode.
  virtual unsigned long long Insert(StatFidName_s* entry, unsigned long long parentInode,
                                    int fileType);
  unsigned long long Insert(const char* name, StatFid_s* entry, unsigned long long parentInode);
  // `*fileType` is replaced by the type found. `fidRowId` 0 stands for a row id not yet known.
  int InsertFile(StatFidName_s* entry, unsigned long long parentInode, int* fileType,
                 unsigned long long fidRowId);
  int InsertFid(const fsf_fid* fid, unsigned long long filesRowId, int fileType);
  // All stat fields and the type; the change stamp becomes the current time.
  int Update1(unsigned long long inode, struct stat* st, fsf_fid* fid);
  // All stat fields; the change stamp becomes `stamp`, or the current time when that is 0.
  int Update(unsigned long long inode, struct stat* st, unsigned long stamp);
  // Refuses numbers of 2^63 - 1 and above, which SQLite cannot hold.
  int UpdateSeqNum(unsigned long long fidsRowId, unsigned long long seqNum);
  int UpdateSizeAndBlocks(unsigned long long inode, unsigned long long size,
                          unsigned long long blocks);
  int UpdateAtime(std::list<unsigned long long>& inodes, unsigned long atime);
  int UpdateFidRowIdInFilesDB(unsigned long long inode, unsigned long long fidRowId);
  int MarkForSelectiveRescan(unsigned long long fidsRowId);
  int DeleteInode(unsigned long long inode);
  int DeleteFidGivenRowId(unsigned long long fidsRowId);
  int DeleteFid(unsigned long long filesRowId);

  // Rows, read. Outputs that may be null are skipped then. catalogue/rows_read.cpp

  // Every row of an identifier: returns their number; scalars hold the last row's values.
  int GetFidTuple(const fsf_fid* fid, std::list<unsigned long long>* filesRowIds,
                  unsigned long long* filesRowId, unsigned long long* seqNum, bool* rescan,
                  unsigned long long* fidsRowId, std::list<unsigned long long>* fidsRowIds);
  // Whether a record with `seqNum` is newer than the one row of `fid`; false, and the number of
  // rows in `rowCount`, when there is not exactly one.
  bool CheckSeqNum(const fsf_fid* fid, unsigned long long seqNum, int* rowCount);
  // These four answer whether there is such a row.
  bool GetFidAndFilesRowId(unsigned long long fidsRowId, fsf_fid* fid,
                           unsigned long long* filesRowId);
  bool GetFidGivenFidsRowId(unsigned long long fidsRowId, fsf_fid* fid);
  bool GetRowIdAndFileType(unsigned long long parentInode, const char* name,
                           unsigned long long* inode, bool* isFile, unsigned long long* fidRowId);
  bool GetStatInfo(unsigned long long inode, struct stat* st, unsigned long* stamp);
  // Appends the FIDS row ids marked for a selective rescan; returns their number.
  int GetRescanList(std::list<unsigned long long>* fidsRowIds);
  // These three throw type 1 "DB Inconsistent" when there is no such row.
  bool CheckDBToSeeIfThisIsAFolder(unsigned long long inode, int* fileType);
  void GetNameFileTypePInodeAndFidRowId(unsigned long long inode, std::string* name, int* fileType,
                                        unsigned long long* parentInode,
                                        unsigned long long* fidRowId);
  // The first of `inodes` that stands in `parentInode` under `name`.
  void FindWhichInodeCorrespondsToThisParentAndShortName(std::list<unsigned long long>& inodes,
                                                         unsigned long long parentInode,
                                                         const char* name, int* fileType,
                                                         unsigned long long* fidRowId,
                                                         unsigned long long* inode);

  // Subtrees. catalogue/tree.cpp

  // Deletes a FILES row and a FIDS row.
  int DeleteEntry(unsigned long long inode, unsigned long long fidsRowId);
  // Removes a folder and everything below it, depth first; a folder among its own descendants is
  // visited once.
  virtual void RemoveFolderGivenInode(unsigned long long inode, unsigned long long fidsRowId);
  // Removes every row of an identifier, with all that lies below those that are folders.
  virtual void RemoveDuplicateFid(const fsf_fid* fid);

 protected:
  // Paths, fixed by the constructor.
  std::string dbPath;
  std::string dbLockPath;
  std::string fidPath;
  std::string fidLockPath;
  std::string dbFolder;

  std::array<char, 512> pathBuf;             // scratch for a path
  std::array<unsigned long long, 4> fidBuf;  // scratch for the column form of an identifier
  time_t constructTime;                      // seconds; the stamp of rows that a move touches
  FlrDriver driver;
  bool lookForStubsDuringInsert = false;
  bool lookForStubsDuringUpdate = false;
  RQHSMLowLevelRQFS hsm;
  std::array<char, 1024> queryBuf;  // every SQL text passes through here
  time_t openTime = 0;              // seconds; inserts carry no earlier change stamp
  unsigned long long devt = 0;
  std::list<unsigned long long> subFolderList;
  std::unique_ptr<UDC_DBMS> filesDb;
  std::unique_ptr<UDC_DBMS> fidDb;

  // Prepares `statement` on first use and begins an execution of it. Throws type 1 when the
  // catalogue is not open.
  kddc::Execution run(kddc::Statement& statement, const std::unique_ptr<UDC_DBMS>& db,
                      const kddc::Sql& sql);
  // Logs and executes a text that is not prepared.
  int execute(const char* tag, const std::unique_ptr<UDC_DBMS>& db, const char* sql);
  // Removes what lies below a folder, row by row through `rowCallback`, and then the folder itself.
  void removeSubtree(unsigned long long inode, unsigned long long fidsRowId,
                     int (*rowCallback)(void*, int, char**, char**));
  // The four columns of an identifier, in fidBuf.
  const std::array<unsigned long long, 4>& columnsOf(const fsf_fid& fid);

 private:
  std::unique_ptr<kddc::Statements> statements_;
  std::unique_ptr<kddc::SubtreeWalk> subtreeWalk_;
};

// The row callback of RemoveFolderGivenInode: `object` is the DCSqliteDB; the columns are INODE,
// FID_ROWID and FILE_TYPE of one child. Removes the child; -1, logged, ends the walk.
KDDC_API int DeleteCallBack(void* object, int columns, char** values, char** names);
