// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The floor of the catalogue's benchmarks: what a program would write that knows nothing but
// SQLite. The same tables, the same settings, the same groups, and no more than the statements
// themselves. A failure ends the program: a benchmark that measures failures measures nothing.
#pragma once

#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "records/fsf_fid.h"

namespace kddc::bench {

// A folder on the disk that the benchmark measures, gone afterwards.
class Folder {
 public:
  Folder() {
    const char* base = std::getenv("KDDC_BENCH_DIR");
    path_ = std::string(base ? base : "/var/tmp") + "/kddc-bench-XXXXXX";
    if (!mkdtemp(path_.data())) std::abort();
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string catalogue() const { return path_ + "/catalogue"; }

 private:
  std::string path_;
};

// One connection, with the settings and the groups of platform/udc_dbms.cpp.
class BareDatabase {
 public:
  explicit BareDatabase(const std::string& path) {
    must(sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr));
    exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=1; PRAGMA cache_size=-65536");
    const auto setCheckpoint = [](void* db, int, char** values, char**) {
      return sqlite3_wal_autocheckpoint(static_cast<sqlite3*>(db), kWalBytes / std::atoi(*values));
    };
    must(sqlite3_exec(db_, "PRAGMA page_size", setCheckpoint, db_, nullptr));
    exec("BEGIN");
  }
  ~BareDatabase() {
    commit();
    sqlite3_close_v2(db_);
  }
  BareDatabase(const BareDatabase&) = delete;
  BareDatabase& operator=(const BareDatabase&) = delete;

  sqlite3* handle() const { return db_; }
  long long lastRow() const { return sqlite3_last_insert_rowid(db_); }
  void exec(const char* sql) { must(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }
  void write(const char* sql) {
    exec(sql);
    wrote();
  }
  void wrote() {
    if (sqlite3_total_changes64(db_) - changesAtBegin_ < kGroup) return;
    commit();
    exec("BEGIN");
    changesAtBegin_ = sqlite3_total_changes64(db_);
  }
  void commit() {
    if (sqlite3_get_autocommit(db_) == 0) exec("COMMIT");
  }
  static void must(int result) {
    if (result != SQLITE_OK) std::abort();
  }

 private:
  static constexpr int kGroup = 20000;
  static constexpr int kWalBytes = 64 * 1024 * 1024;

  sqlite3* db_ = nullptr;
  long long changesAtBegin_ = 0;
};

class BareStatement {
 public:
  BareStatement(BareDatabase& db, const char* sql) : db_(db) {
    BareDatabase::must(sqlite3_prepare_v2(db.handle(), sql, -1, &statement_, nullptr));
  }
  ~BareStatement() { sqlite3_finalize(statement_); }
  BareStatement(const BareStatement&) = delete;
  BareStatement& operator=(const BareStatement&) = delete;

  // Binds ?1, ?2, ...
  template <class... Values>
  BareStatement& bind(const Values&... values) {
    int parameter = 0;
    (put(++parameter, values), ...);
    return *this;
  }
  template <class Value>
  BareStatement& bindAt(int parameter, const Value& value) {
    put(parameter, value);
    return *this;
  }
  // Binds four parameters.
  BareStatement& bindFid(int first, const fsf_fid& fid) {
    unsigned long long pieces[4];
    unsigned long long* out = pieces;
    GetIntForBlob(&fid, &out);
    for (int i = 0; i < 4; ++i) put(first + i, static_cast<long long>(pieces[i]));
    return *this;
  }
  void write() {
    if (sqlite3_step(statement_) != SQLITE_DONE) std::abort();
    sqlite3_reset(statement_);
    db_.wrote();
  }
  template <class Row>
  void read(Row&& row) {
    while (sqlite3_step(statement_) == SQLITE_ROW) row(statement_);
    sqlite3_reset(statement_);
  }
  // False when there is no row.
  template <class Row>
  bool readFirst(Row&& row) {
    const bool found = sqlite3_step(statement_) == SQLITE_ROW;
    if (found) row(statement_);
    sqlite3_reset(statement_);
    return found;
  }

 private:
  void put(int parameter, int value) { sqlite3_bind_int(statement_, parameter, value); }
  void put(int parameter, long long value) { sqlite3_bind_int64(statement_, parameter, value); }
  void put(int parameter, std::string_view text) {
    sqlite3_bind_text(statement_, parameter, text.data(), static_cast<int>(text.size()),
                      SQLITE_STATIC);
  }

  BareDatabase& db_;
  sqlite3_stmt* statement_ = nullptr;
};

// Inserts and lookups.
class BareCatalogue {
 public:
  explicit BareCatalogue(const std::string& folder)
      : files_(folder + "/.db.kd"), fids_(folder + "/.fid.kd") {}

  void commit() {
    files_.commit();
    fids_.commit();
  }

  // `type` 1 is a folder, whose size is known at once.
  void insert(const struct stat& st, const fsf_fid& fid, std::string_view name, long long parent,
              int type) {
    const long long predicted = fids_.lastRow() + 1;
    const long long inode = insertFile(st, name, parent, type, predicted);
    const long long actual = insertFid(fid, inode, type);
    if (actual != predicted) updateFidRowId(inode, actual);
  }

  // 0 when there is none.
  long long inodeOf(const fsf_fid& fid) { return rowsOf(fid).inode; }
  long long inodeOf(long long parent, std::string_view name) { return rowAt(parent, name).inode; }

 protected:
  struct Row {
    long long inode = 0, fidRowId = 0;
  };

  static constexpr long long kUnknown = INT64_MAX;

  // Each answers the number of the row.
  long long insertFile(const struct stat& st, std::string_view name, long long parent, int type,
                       long long fidRowId) {
    const bool folder = type == 1;
    const auto int32 = [](auto value) { return static_cast<int>(static_cast<unsigned>(value)); };
    const long long size = st.st_size, blocks = st.st_blocks;
    insertFile_
        .bind(parent, int32(st.st_mode), int32(st.st_nlink), int32(st.st_uid), int32(st.st_gid),
              folder ? size : kUnknown, folder ? blocks : kUnknown, int32(st.st_atime),
              int32(st.st_mtime), int32(st.st_ctime), int32(st.st_ctime), type, name, fidRowId)
        .write();
    const long long inode = files_.lastRow();
    if (!folder) updateSize_.bind(size, blocks, inode).write();
    return inode;
  }
  long long insertFid(const fsf_fid& fid, long long inode, int type) {
    insertFid_.bind(inode).bindFid(2, fid).bindAt(6, type == 1 ? kUnknown : 0).write();
    const long long row = fids_.lastRow();
    updateSeq_.bind(0LL, row).write();
    return row;
  }
  void updateFidRowId(long long inode, long long fidRowId) {
    updateFidRowId_.bind(fidRowId, inode).write();
  }

  // The last row of an identifier; the inodes of all its rows are in inodes_ then.
  Row rowsOf(const fsf_fid& fid) {
    Row last;
    inodes_.clear();
    getFid_.bindFid(1, fid).read([&](sqlite3_stmt* row) {
      last = {sqlite3_column_int64(row, 1), sqlite3_column_int64(row, 0)};
      inodes_.push_back(last.inode);
    });
    return last;
  }
  Row rowAt(long long parent, std::string_view name) {
    Row found;
    getRow_.bind(parent, name).readFirst([&](sqlite3_stmt* row) {
      found = {sqlite3_column_int64(row, 0), sqlite3_column_int64(row, 2)};
    });
    return found;
  }

  BareDatabase files_, fids_;
  std::vector<long long> inodes_;

 private:
  BareStatement insertFile_{files_,
                            "INSERT INTO FILES (PINODE,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,"
                            "MTIME,CTIME,TIME,FILE_TYPE,NAME,FID_ROWID) VALUES ( "
                            "?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14)"};
  BareStatement updateSize_{files_, "UPDATE FILES SET SIZE=?1,BLOCKSUSED=?2 WHERE INODE=?3"};
  BareStatement insertFid_{fids_,
                           "INSERT INTO FIDS (FILES_ROWID,SEQNUM,RESCAN,FID1,FID2,FID3,FID4) "
                           "VALUES (?1,?6,0,?2,?3,?4,?5)"};
  BareStatement updateFidRowId_{files_, "UPDATE FILES SET FID_ROWID=?1 WHERE INODE=?2"};
  BareStatement updateSeq_{fids_, "UPDATE FIDS SET SEQNUM=?1 WHERE FIDS_ROWID=?2"};
  BareStatement getFid_{fids_,
                        "SELECT FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN FROM FIDS WHERE FID1=?1 AND "
                        "FID2=?2 AND FID3=?3 AND FID4=?4"};
  BareStatement getRow_{files_,
                        "SELECT INODE,FILE_TYPE,FID_ROWID FROM FILES WHERE PINODE=?1 AND NAME=?2"};
};

}  // namespace kddc::bench
