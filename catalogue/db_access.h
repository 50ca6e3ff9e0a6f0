// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The catalogue of one monitored volume: two SQLite databases in a folder of their own.
//
//   <folder>/.db.kd    FILES  one row for each name on the volume
//                      TIME   one row about the catalogue
//   <folder>/.fid.kd   FIDS   one row for each identifier that names a row of FILES
//
// The word inode always means FILES.INODE, the number that SQLite gave the row; the file system's
// own inode numbers are not stored. The two databases are joined by values alone:
// FILES.FID_ROWID = FIDS.FIDS_ROWID and FIDS.FILES_ROWID = FILES.INODE.
//
//   DCSqliteDB ─► CreateDb ─► OpenHandle ─► rows, journal records ─► CloseHandle
//                 (fresh)     GRACEFUL_SHUTDOWN=0                    GRACEFUL_SHUTDOWN=1
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
#include <map>
#include <memory>
#include <string>

#include "platform/export.h"
#include "platform/flr_driver.h"
#include "platform/hsm.h"
#include "platform/udc_dbms.h"
#include "records/fsf_fid.h"
#include "records/journal_record.h"

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

// What stands where:
//   life                   create, open, trust                catalogue/lifecycle.cpp
//   rows, written          one statement each                 catalogue/rows_write.cpp
//   rows, read                                                catalogue/rows_read.cpp
//   subtrees               removal of whole folders           catalogue/tree.cpp
//   journal records        what each does to the rows         journal/
//   times                  stamps that several of them share  journal/
//   single names           for an agent, outside the journal  journal/remove_and_link.cpp
//   comparison             with the disk, reported            verify/
//   end of life            close                              catalogue/lifecycle.cpp
//   full scans             DCSqliteDBSortedInsert, below      catalogue/sorted_insert.cpp
//
// The virtual functions take their slots in the order in which they stand here, and subclasses that
// were built elsewhere rely on it. That is why CloseHandle stands last.
class KDDC_API DCSqliteDB {
 public:
  // Life: create, open, and whether an old catalogue may be trusted. catalogue/lifecycle.cpp

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

  // Journal records: what each one does to the rows. journal/
  //
  // `time` is the record's, in seconds. An identifier that the catalogue does not know is no error
  // unless an operation says so: a parent then counts as inode 0, anything else as no row at all.
  // Where a file has several names (hard links), each has a row, and every one of them is changed.

  // A further name of a file: a row with the stat fields of an existing one, and on every row of
  // the file the new link count, CTIME and TIME = `time`.
  virtual void CreateLink(const FlrJrnLinkRaw& record, int time);
  // Drops the row that the destination replaced, then gives the source row its new parent and name,
  // CTIME and TIME = `time`. All below a folder that moved get the current time as TIME. Throws
  // type 1 "DB Inconsistent" when source or replaced destination is unknown; what the destination
  // lost until then stays lost.
  virtual void Rename(const FlrJrnRenameRaw& record, int time);
  // Changed attributes, by the record's flags, and TIME = the current time. A record of nothing but
  // an access time, or of a modification time put into the past, leaves TIME as it was.
  virtual void SetAttr(const FlrJrnSetAttrRaw& record, int time);
  // An access control list or extended attribute: CTIME and TIME = `time`.
  virtual void SetAdditionalAttr(const fsf_fid* fid, int time);
  // The type becomes 8 and CTIME `time`; or the type becomes 0 again. TIME = the current time.
  virtual void Stub(const FlrJrnStubRaw& record, int time);
  virtual void UnStub(const FlrJrnUnStubRaw& record, int time);
  // A new entry with the record's owner and times; its type follows from the mode.
  virtual void Create(const FlrJrnCreateRaw& record);
  // A name went away. The last one (`nlink` 0) is found by the identifier alone. With names left,
  // the row is found by parent and name, type 1 "DB Inconsistent" when there is none, and the rows
  // left get the record's link count, CTIME and TIME = `time`.
  virtual void Remove(const FlrJrnRemoveRaw& record, unsigned long time);
  // A new folder, as Create.
  void MkDir(const FlrJrnMkDirRaw& record);
  // Drops the folder's own row; what lies below it goes by records of its own.
  void RemoveDir(const FlrJrnRmDirRaw& record, int time);
  // A new symbolic link; all its times are `time`, its size is the length of the target's name.
  void CreateSymLink(const FlrJrnSymLinkRaw& record, int time);

  // Times that several records share; the results are SQLite's. journal/

  // CTIME and TIME = `time`, the former with a link count.
  int UpdateNlinkCtimeTime(unsigned long long inode, unsigned long time, int nlink);
  int UpdateCtimeTime(unsigned long long inode, unsigned long time);
  // TIME = constructTime on all that lies below a folder, breadth first, each folder once; the
  // folder's own row stays. False, always.
  bool UpdateTimeFieldRecursively(unsigned long long folderInode);
  // Appends the folders that lie in a folder to subFolderList.
  int PopulateSubFolderList(unsigned long long folderInode);

  // Single names, for an agent, outside the journal. `fid` is not used. journal/remove_and_link.cpp

  // Removes the entry of that name, a folder with all that lies below it; nothing when there is
  // none.
  void DeleteChildIfExists(unsigned long long parentInode, fsf_fid* fid, const char* name);
  // Looks the entry up and answers false in every case: callers want the failures of the lookup.
  bool IfChildExists(unsigned long long parentInode, fsf_fid* fid, const char* name);
  // Whether an identifier is known and marked for a selective rescan.
  bool IsFidFile(const fsf_fid* fid);
  // Removes every row of an identifier, through RemoveDuplicateFid.
  void DeleteDBEntries(const fsf_fid* fid);

  // Comparison with the disk: a diagnostic that logs what differs and corrects nothing. verify/
  //
  // Two columns are borrowed as marks, 1 for what was seen: FILES.GID and FIDS.RESCAN. They keep
  // the marks afterwards, so the owners' groups and the list of files to be scanned again are lost.
  // Besides UDCException as everywhere, what the platform throws comes as type 5; nothing else ends
  // the walk.

  // Walks the mounted volume, breadth first, then lists the rows that nothing on the disk claimed.
  // A folder without rows is not looked into. Differences are debug lines.
  void Verify(std::string volumePath);
  // One folder; its row is expected in the folder `pinode` under `name`. True when it has rows and
  // was not seen before; `inode` receives its inode, also when the rest fails. `st` is not used.
  bool VerifyFolder(std::string path, unsigned long long pinode, const char* name,
                    unsigned long long& inode, const struct stat& st);
  // One entry that is no folder, with what lstat says of it. Access times are compared only while
  // the file /tmp/verifyatime exists.
  void VerifyFile(std::string path, unsigned long long pinode, const char* name,
                  const struct stat& st);

  // End of life. catalogue/lifecycle.cpp

  // Writes the reference time (seconds; 600 earlier when it is greater than that, nothing when it
  // is 0), makes both databases durable, marks the catalogue gracefully closed unless
  // `keepUngraceful`, and closes.
  virtual void CloseHandle(unsigned long refTime, bool keepUngraceful);

 protected:
  // Paths, fixed by the constructor.
  std::string dbPath;
  std::string dbLockPath;
  std::string fidPath;
  std::string fidLockPath;
  std::string dbFolder;

  std::array<char, 512> pathBuf;             // scratch for a path
  std::array<unsigned long long, 4> fidBuf;  // scratch for the column form of an identifier
  time_t constructTime;                      // seconds; the stamp of rows below a moved folder
  FlrDriver driver;
  bool lookForStubsDuringInsert = false;
  bool lookForStubsDuringUpdate = false;
  RQHSMLowLevelRQFS hsm;
  std::array<char, 1024> queryBuf;  // every SQL text passes through here
  time_t openTime = 0;              // seconds; inserts carry no earlier change stamp
  unsigned long long devt = 0;
  std::list<unsigned long long> subFolderList;  // folders that a walk has still to look into
  std::unique_ptr<UDC_DBMS> filesDb;
  std::unique_ptr<UDC_DBMS> fidDb;
  // Rows are inserted as they shall be in the end, instead of with placeholders that the next
  // statement overwrites: for databases that nobody reads before all of them is written, and that
  // are thrown away when that fails.
  bool writesWholeRows = false;

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

// The catalogue while a full scan fills it: the FIDS rows of all that is no folder are held back
// and written in the order of their identifiers, so that the index over identifiers grows in few
// places at a time, however the disk numbers its files.
//
//   Insert ─► FILES row, FID_ROWID = 2^63 - 1 (pending)
//       └───► sortMap ── mapLimit entries, or CloseHandle ──► FIDS rows, by identifier
//                                                             FILES.FID_ROWID, by inode
//
// While entries are pending, only FILES knows them: lookups by identifier do not find them. Folders
// are never pending.
//
// Memory: mapLimit entries, about 80 bytes for each, and 16 more during a flush.
// Failures: as the base, under "DCSqliteDBSortedInsert :: <operation>". A flush that failed has
// written some rows and still holds every entry: the catalogue is to be thrown away and the scan
// repeated.
class KDDC_API DCSqliteDBSortedInsert : public DCSqliteDB {
 public:
  // Reads the key "SortedInsertMapSize" (section "DataClassification", default 1000000). Throws
  // KdException when it is no number.
  explicit DCSqliteDBSortedInsert(std::string dbFolder);
  // Entries that are still pending are lost.
  ~DCSqliteDBSortedInsert() override;

  using DCSqliteDB::Insert;
  // The result means something for folders only: the FIDS row id.
  unsigned long long Insert(StatFidName_s* entry, unsigned long long parentInode,
                            int fileType) override;
  // Pending rows go as well, from FILES and from the map; a folder goes once.
  void RemoveFolderGivenInode(unsigned long long inode, unsigned long long fidsRowId) override;
  void RemoveDuplicateFid(const fsf_fid* fid) override;
  // Writes the rows of all pending entries; of those that share an identifier each gets its own.
  void FlushAllFids();
  // Forgets the first pending entry, in the order of identifiers, that has this inode.
  void DeleteFromMap(unsigned long long inode);
  // Flushes, then closes as the base does. When the flush fails, the catalogue stays open.
  void CloseHandle(unsigned long refTime, bool keepUngraceful) override;

 protected:
  unsigned long long mapLimit;                         // entries; 0 flushes at once, as 1 does
  std::multimap<fsf_fid, unsigned long long> sortMap;  // pending: identifier, inode
};

// The row callback of RemoveFolderGivenInode: `object` is the DCSqliteDB; the columns are INODE,
// FID_ROWID and FILE_TYPE of one child. Removes the child; -1, logged, ends the walk.
KDDC_API int DeleteCallBack(void* object, int columns, char** values, char** names);
// The same for a DCSqliteDBSortedInsert.
KDDC_API int DeleteCallBack1(void* object, int columns, char** values, char** names);

// A row callback for a query whose first column is the inode of a folder: `object` is the
// DCSqliteDB, and all that lies below the folder is stamped (UpdateTimeFieldRecursively). -1,
// logged, ends the query. Never throws.
KDDC_API int UpdateTimeCallBack(void* object, int columns, char** values, char** names);

// The row callbacks of Verify for rows that nothing claimed: the one column is FILES_ROWID, or the
// two are INODE and NAME. One debug line for each row; -1 and an error ends the list at a NULL.
// Never throw.
KDDC_API int StaleFidCallBack(void* object, int columns, char** values, char** names);
KDDC_API int StaleFilesCallBack(void* object, int columns, char** values, char** names);
