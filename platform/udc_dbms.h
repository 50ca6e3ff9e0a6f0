// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One SQLite connection over a database file with a ".lock" file beside it.
//
// A read-write connection holds an advisory lock on the ".lock" file while it is open, so a
// database has one writer, and always has one transaction open. Writes are committed in groups:
// after "CommitEveryRows" changed rows (section "DataClassification", default 20000), when the
// first of them is "CommitEveryMilliseconds" old (default 1000; looked at when a call writes), at
// Commit and at closedb. The database is kept in write-ahead mode: readers on other connections see
// the last commit, never block the writer and are never blocked by it.
//
// A read-only connection neither makes nor takes the lock and has no open transaction of its own.
//
// Threads: one thread at a time per object. Failures: every call answers SQLite's code 0 or throws
// UDCException of type 3 with SQLite's code and message; type 0 with errno for the lock file.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>

#include "platform/export.h"

struct sqlite3;
struct sqlite3_stmt;
namespace kddc {
class LockFile;
}

class KDDC_API UDC_DBMS {
 public:
  // The open connection, null while closed. For preparing statements; owned by this object.
  sqlite3* handle = nullptr;

  // The result of the last exec_query_get_table: the number of data rows and of columns, and the
  // cells, row by row, behind the column names. A cell that is SQL NULL is a null pointer. A query
  // without a row has no column names either. Valid until the next exec_query_get_table or closedb.
  int rowCount = 0;
  int columnCount = 0;
  std::span<const char* const> table;

  // `synchronous` is SQLite's level (0 OFF, 1 NORMAL, 2 FULL), `busySeconds` how long to wait for a
  // lock. Opens nothing; reads the two settings, so it throws KdException when they are no numbers.
  UDC_DBMS(std::string path, int synchronous, int busySeconds, bool readOnly);
  // Closes without committing, as a crash would.
  ~UDC_DBMS();
  UDC_DBMS(const UDC_DBMS&) = delete;
  UDC_DBMS& operator=(const UDC_DBMS&) = delete;

  // Opens the database, creating an empty one (0600) unless read-only, and takes the lock: shared
  // or exclusive, told apart within one process too. False when another opener holds the lock or
  // the file cannot be opened as a database; the reason is logged. The path's last part is not
  // followed when it is a symbolic link.
  bool opendb(bool shared);
  // Commits, or with `discard` rolls back, closes and gives the lock back; true. Idempotent. When
  // the commit fails, the connection is closed all the same and the failure thrown.
  bool closedb(bool discard);
  // Takes effect only before the first opendb of an empty file.
  void SetPageSize(int bytes) { pageSize_ = bytes; }

  // Runs one SQL text of any number of statements; rows are dropped.
  int exec_query(const char* sql);
  // The same; fills rowCount, columnCount and table.
  int exec_query_get_table(const char* sql);
  // Calls `row` for each row. When it answers non-zero the query ends and the call answers 4.
  int exec_query_with_callback(const char* sql, int (*row)(void*, int, char**, char**), void* ctx);
  // Steps a prepared statement of this connection to its end and resets it, also when it fails.
  int exec_prepared_query(sqlite3_stmt* statement);
  // The row id of the last insert on this connection, 0 when there was none.
  unsigned long long LastInsertRowId();

  // Ends the open transaction, as durably as the synchronous level says, and starts the next.
  int Commit();
  // Whether work is committed in groups by itself; if not, Commit and closedb alone do it.
  void SetGroupCommit(bool on) { groupCommit_ = on; }
  // Changes the synchronous level. Commits first: SQLite refuses the change within a transaction.
  void SetSynchronous(int level);
  // Commits and forces everything committed so far to the disk, whatever the synchronous level was.
  void MakeDurable();
  // True once SQLite gave up a transaction that held work (a full disk, an input/output error):
  // what the group had written until then is gone.
  bool HasLostWork();

  // Removes a closed database, its ".lock" file and the side files that SQLite keeps beside it.
  // Failures are ignored.
  static void RemoveFiles(const std::string& path);

 private:
  struct FreeTable {
    void operator()(char** cells) const;
  };

  int run(const char* function, const char* sql);
  int check(const char* function, int result);
  void requireOpen(const char* function) const;
  void openConnection();
  void configure();
  void begin();
  void endTransaction(const char* sql);
  void keepTransaction();
  void noteWrite();
  void releaseConnection();

  std::string path_;
  int synchronous_;
  int busySeconds_;
  bool readOnly_;
  int pageSize_ = 0;
  std::unique_ptr<kddc::LockFile> lock_;

  // The group under way: what was in force when it began, so that its size and age can be told.
  long long commitEveryRows_;
  std::chrono::milliseconds commitEvery_;
  bool groupCommit_ = true;
  bool inTransaction_ = false;
  bool groupHasWork_ = false;
  bool lostWork_ = false;
  long long changesAtBegin_ = 0;
  std::chrono::nanoseconds groupBegan_{};

  std::unique_ptr<char*, FreeTable> cells_;
};
