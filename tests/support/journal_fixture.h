// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An open catalogue for tests of journal records, and the words that those use.
//
// insert() of the base gives every row ATIME 1000, MTIME 2000, CTIME 3000 and, here, TIME 3000.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "journal/apply_journal.h"
#include "platform/exceptions.h"
#include "support/journal_stats.h"
#include "tests/support/catalogue.h"
#include "tests/support/udc_failure.h"

namespace kddc::test {

// The identifiers that fidOf makes of 'A' to 'D', as text.
inline constexpr char kFidA[] = "414141414141414141414141414141414141414141414141";
inline constexpr char kFidB[] = "424242424242424242424242424242424242424242424242";
inline constexpr char kFidC[] = "434343434343434343434343434343434343434343434343";
inline constexpr char kFidD[] = "444444444444444444444444444444444444444444444444";

// A record of that command with a payload of zeros.
inline FlrJrnCommandRaw recordOf(unsigned cmd, unsigned time = 1000) {
  FlrJrnCommandRaw record{};
  record.cmd = cmd;
  record.timestamp = time;
  record.seq_num = 9;
  record.devt = 7;
  return record;
}

inline void expectFailure(int type, int number, const std::string& message,
                          const std::function<void()>& operation) {
  const UDCException e = failureOf(operation);
  EXPECT_EQ(e.GetType(), type);
  EXPECT_EQ(e.GetErrorNumber(), number);
  EXPECT_EQ(e.GetMessage(), message);
}

// The failure that a trigger with RAISE(ABORT,'refused') makes.
inline void expectRefusal(const std::function<void()>& operation) {
  const UDCException e = failureOf(operation);
  EXPECT_EQ(e.GetType(), 3);
  EXPECT_NE(e.GetMessage().find("refused"), std::string::npos) << e.what();
}

struct JournalTest : OpenCatalogueTest {
  static constexpr int kAt = 5000;  // the time of records

  // The TIME column, "now" when it lies less than a minute back.
  static constexpr char kStamp[] =
      "IIF(ABS(TIME-CAST(strftime('%s','now') AS INTEGER))<60,'now',TIME)";

  JournalTest() {
    db.openTime = 0;
    JournalPerfStatMap_g.clear();
  }

  void filesSql(const std::string& sql) { db.filesDb->exec_query(sql.c_str()); }
  void fidsSql(const std::string& sql) { db.fidDb->exec_query(sql.c_str()); }
  // From now on a change of that row of FILES fails.
  void refuseUpdateOf(unsigned long long inode) {
    filesSql("CREATE TEMP TRIGGER refuse BEFORE UPDATE ON FILES WHEN OLD.INODE=" +
             std::to_string(inode) + " BEGIN SELECT RAISE(ABORT,'refused'); END");
  }

  // The prepared statement whose text begins so.
  static sqlite3_stmt* prepared(UDC_DBMS& on, const std::string& beginning) {
    for (sqlite3_stmt* s = sqlite3_next_stmt(on.handle, nullptr); s;
         s = sqlite3_next_stmt(on.handle, s))
      if (std::string(sqlite3_sql(s)).starts_with(beginning)) return s;
    throw std::runtime_error("not prepared: " + beginning);
  }
  // Leaves that statement in the middle of an execution, where SQLite lets nothing be bound.
  static void jam(UDC_DBMS& on, const std::string& beginning) {
    sqlite3_step(prepared(on, beginning));
  }
};

}  // namespace kddc::test
