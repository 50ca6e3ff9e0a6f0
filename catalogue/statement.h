// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One prepared statement of the catalogue, and one execution of it.
//
// An operation of the catalogue is its SQL, what it says when SQLite refuses, and its binds; the
// protocol around them stands here once: prepare on first use, bind, step, reset.
#pragma once

#include <sqlite3.h>

#include <array>
#include <limits>
#include <memory>
#include <string>

#include "platform/exceptions.h"
#include "platform/udc_dbms.h"

namespace kddc {

// Stands for a value that is not yet known.
inline constexpr unsigned long long kPlaceholder = std::numeric_limits<long long>::max();

// The fixed texts of one operation: what it runs, and what it says when SQLite refuses.
struct Sql {
  const char* tag;
  const char* text;
  const char* cannotPrepare;
  std::array<const char*, 14> cannotBind{};  // by parameter, ?1 first
};

// One execution of a statement, or several in a row, between which the binds stay. Resets it on the
// way out, whatever happened in between.
class [[nodiscard]] Execution {
 public:
  // All three must outlive the execution.
  Execution(UDC_DBMS& db, sqlite3_stmt* handle, const Sql& sql)
      : db_(db), handle_(handle), sql_(sql) {}
  ~Execution() { sqlite3_reset(handle_); }
  Execution(const Execution&) = delete;
  Execution& operator=(const Execution&) = delete;

  // Binds ?1, ?2, ... An int is bound as 32 bits, an unsigned long long as 64; a string must live
  // until the execution is over.
  template <class... Values>
  Execution& bind(const Values&... values) {
    int parameter = 0;
    ((void)bindAt(++parameter, values), ...);
    return *this;
  }
  template <class Value>
  Execution& bindAt(int parameter, const Value& value) {
    check(put(parameter, value), sql_.cannotBind[static_cast<std::size_t>(parameter - 1)]);
    return *this;
  }

  // Runs a statement that changes rows; it counts towards the group that is committed together.
  int write() { return db_.exec_prepared_query(handle_); }

  // Calls `row` with the statement at each row; returns the number of rows.
  template <class Row>
  int read(Row&& row) {
    int rows = 0;
    for (; step(); ++rows) row(handle_);
    finish();
    return rows;
  }

  // Calls `row` with the statement at the first row only; false when there is none.
  template <class Row>
  bool readFirst(Row&& row) {
    const bool found = step();
    if (found) row(handle_);
    finish();
    return found;
  }

 private:
  int put(int parameter, int value) { return sqlite3_bind_int(handle_, parameter, value); }
  int put(int parameter, unsigned long long value) {
    return sqlite3_bind_int64(handle_, parameter, static_cast<sqlite3_int64>(value));
  }
  int put(int parameter, const std::string& text) {
    return sqlite3_bind_text(handle_, parameter, text.c_str(), static_cast<int>(text.size()),
                             SQLITE_STATIC);
  }

  bool step() {
    const int result = sqlite3_step(handle_);
    if (result != SQLITE_ROW && result != SQLITE_DONE)
      throw UDCException(sql_.tag, 3, "Could not execute prepeared query", result);
    return result == SQLITE_ROW;
  }
  void finish() { check(sqlite3_reset(handle_), "sqlite3_reset failed"); }
  void check(int result, const char* message) const {
    if (result != SQLITE_OK) throw UDCException(sql_.tag, 3, message, result);
  }

  UDC_DBMS& db_;
  sqlite3_stmt* handle_;
  const Sql& sql_;
};

// The handle of one operation. Its owner finalizes it before the connection is closed.
class Statement {
 public:
  // Prepares the text in `query`, a copy of sql.text, on the first call.
  Execution on(UDC_DBMS& db, const Sql& sql, const char* query) {
    if (!handle_) prepare(db, sql, query);
    return {db, handle_.get(), sql};
  }
  bool prepared() const { return handle_ != nullptr; }

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* handle) const { sqlite3_finalize(handle); }
  };

  void prepare(UDC_DBMS& db, const Sql& sql, const char* query) {
    sqlite3_stmt* handle = nullptr;
    const int result = sqlite3_prepare_v2(db.handle, query, -1, &handle, nullptr);
    handle_.reset(handle);
    if (result != SQLITE_OK || !handle) {
      handle_.reset();
      throw UDCException(sql.tag, 3, sql.cannotPrepare, result);
    }
  }

  std::unique_ptr<sqlite3_stmt, Finalize> handle_;
};

// The statements of one open catalogue, one per operation, each prepared on first use.
struct Statements {
  Statement insertFile, insertFid, updateSeqNum;
  Statement deleteInode, deleteFid;
  Statement getFidTuple;
  Statement clearRescan, getRescanList;
  Statement getFidGivenFidsRowId, getStatInfo, getRowIdAndFileType;
  Statement markForSelectiveRescan, getFidAndFilesRowId, deleteFidGivenRowId;
  Statement updateAtime, update, updateFidRowIdInFilesDB, updateSizeAndBlocks, update1;
  Statement checkDBToSeeIfThisIsAFolder, getNameFileTypePInodeAndFidRowId;
  Statement stub, unStub, rename;
  Statement updateNlinkCtimeTime, updateCtimeTime;
  Statement updateTimeFieldRecursively, populateSubFolderList;
};

}  // namespace kddc
