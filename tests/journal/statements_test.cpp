// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the prepared statements of the journal's operations say when SQLite refuses them. In each
// case a column that only the statement in question needs is renamed, or the statement is caught in
// the middle of an execution.
#include <gmock/gmock.h>

#include "tests/support/journal_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::expectFailure;
using kddc::test::fidOf;
using kddc::test::LogCapture;

struct Operation {
  const char* tag;
  const char* sql;     // as it begins
  const char* column;  // without which it cannot be prepared
  const char* cannotPrepare;
  const char* cannotBindFirst;
  std::function<void(DCSqliteDB&)> call;
};

const Operation kOperations[] = {
    {"DCSqliteDb :: Stub", "UPDATE FILES SET FILE_TYPE=?1,CTIME=?2", "FILE_TYPE",
     "Could not prepeare the Stub query", "FILE_TYPE  Bind failed",
     [](DCSqliteDB& db) {
       db.Stub({fidOf('A'), ""}, 5000);
     }},
    {"DCSqliteDB :: UnStub", "UPDATE FILES SET FILE_TYPE=?1,TIME=?3", "FILE_TYPE",
     "Could not prepeare the Stub query", "FILE_TYPE  Bind failed",
     [](DCSqliteDB& db) { db.UnStub({fidOf('A')}, 5000); }},
    {"DCSqliteDB :: UpdateNlinkCtimeTime", "UPDATE FILES SET NLINK=?1", "NLINK",
     "Could not prepeare the Remove query", "NLINK Bind failed",
     [](DCSqliteDB& db) { db.UpdateNlinkCtimeTime(1, 5000, 2); }},
    {"DCSqliteDB :: UpdateCtimeTime", "UPDATE FILES SET CTIME=?1", "CTIME",
     "Could not prepeare the UpdateCtimeTime query", "CTIME Bind failed",
     [](DCSqliteDB& db) { db.UpdateCtimeTime(1, 5000); }},
    {"DCSqliteDB :: PopulateSubFolderList", "SELECT INODE FROM FILES", "FILE_TYPE",
     "Could not prepeare the GetSubFolder query", "PINODE Bind failed",
     [](DCSqliteDB& db) { db.PopulateSubFolderList(1); }},
    {"DCSqliteDB :: UpdateTimeFieldRecursively", "UPDATE FILES SET TIME=?1", "TIME",
     "Could not prepeare the UpdateTimeField query", "TIME Bind failed",
     [](DCSqliteDB& db) { db.UpdateTimeFieldRecursively(1); }},
    {"DCSqliteDB :: Rename", "UPDATE FILES SET PINODE=?1", "NAME",
     "Could not prepeare the Rename query", "PINODE Bind failed",
     [](DCSqliteDB& db) {
       db.Rename({.src_fid = fidOf('A'),
                  .src_par_fid = {},
                  .src_short_name = "a",
                  .dst_fid_valid = 0,
                  .dst_fid = {},
                  .dst_par_fid = {},
                  .dst_short_name = "b"},
                 5000);
     }},
};

struct JournalStatements : kddc::test::JournalTest {
  JournalStatements() {
    insert("top", 'T', kDirectory, 0);
    insert("a", 'A', kRegular, 1);
  }
};

TEST_F(JournalStatements, OneThatCannotBePreparedSaysSoAndIsTriedAgainNextTime) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.tag);
    const LogCapture log(0);
    const std::string column = operation.column;
    filesSql("ALTER TABLE FILES RENAME COLUMN " + column + " TO ELSEWHERE");
    const auto call = [&] { operation.call(db); };
    expectFailure(3, SQLITE_ERROR, operation.cannotPrepare, call);
    EXPECT_TRUE(log.mentions(std::string("error 0 ") + operation.tag + ": eRRoR -- "));
    filesSql("ALTER TABLE FILES RENAME COLUMN ELSEWHERE TO " + column);
    EXPECT_NO_THROW(call());
  }
}

TEST_F(JournalStatements, OneThatIsBusyNamesTheFirstValueThatCannotBeBound) {
  for (const Operation& operation : kOperations) {
    SCOPED_TRACE(operation.tag);
    operation.call(db);
    jam(*db.filesDb, operation.sql);
    const auto call = [&] { operation.call(db); };
    expectFailure(3, SQLITE_MISUSE, operation.cannotBindFirst, call);
    EXPECT_NO_THROW(call()) << "a failed execution leaves the statement ready";
  }
}

TEST_F(JournalStatements, ANameThatSqliteCannotHoldIsNamed) {
  const std::string tooLong(2000, 'n');
  sqlite3_limit(db.filesDb->handle, SQLITE_LIMIT_LENGTH, 1000);
  const FlrJrnRenameRaw r{.src_fid = fidOf('A'),
                          .src_par_fid = fidOf('T'),
                          .src_short_name = "a",
                          .dst_fid_valid = 0,
                          .dst_fid = {},
                          .dst_par_fid = fidOf('T'),
                          .dst_short_name = tooLong.c_str()};
  expectFailure(3, SQLITE_TOOBIG, "NAME Bind failed", [&] { db.Rename(r, kAt); });
  EXPECT_EQ(committedFiles("NAME,CTIME"), (Rows{"top|3000", "a|3000"}));
}

TEST_F(JournalStatements, AStubStatementIsPreparedBeforeTheIdentifierIsLookedUp) {
  filesSql("DROP TABLE FILES");
  expectFailure(3, SQLITE_ERROR, "Could not prepeare the Stub query", [&] {
    db.Stub({fidOf('X'), ""}, kAt);
  });
  expectFailure(3, SQLITE_ERROR, "Could not prepeare the Stub query",
                [&] { db.UnStub({fidOf('X')}, kAt); });
}

TEST_F(JournalStatements, ATextThatIsNotPreparedFailsWithSqlitesWords) {
  filesSql("ALTER TABLE FILES RENAME COLUMN MODE TO ELSEWHERE");
  FlrJrnSetAttrRaw r{};
  r.fid = fidOf('A');
  r.mode_valid = 1;
  const LogCapture log(0);
  expectFailure(3, SQLITE_ERROR, "no such column: MODE", [&] { db.SetAttr(r, kAt); });
  EXPECT_TRUE(log.mentions("error 0 DCSqliteDB :: SetAttr: eRRoR -- "));
}

TEST_F(JournalStatements, AWalkThatFindsItsFolderUnboundSaysSo) {
  db.UpdateTimeFieldRecursively(1);
  insert("sub", 'S', kDirectory, 1);
  // When the walk looks for sub-folders, its own statement is caught in an execution.
  const auto jamOnSelect = [](unsigned, void* files, void* statement, void*) {
    if (std::string(sqlite3_sql(static_cast<sqlite3_stmt*>(statement))).starts_with("SELECT INODE"))
      jam(*static_cast<UDC_DBMS*>(files), "UPDATE FILES SET TIME=?1");
    return 0;
  };
  sqlite3_trace_v2(db.filesDb->handle, SQLITE_TRACE_STMT, jamOnSelect, db.filesDb.get());
  expectFailure(3, SQLITE_MISUSE, "PINODE Bind failed", [&] { db.UpdateTimeFieldRecursively(1); });
  sqlite3_trace_v2(db.filesDb->handle, 0, nullptr, nullptr);
}

TEST_F(JournalStatements, AWalkWhoseQueryFailsSaysSo) {
  db.PopulateSubFolderList(1);
  filesSql("ALTER TABLE FILES RENAME COLUMN FILE_TYPE TO ELSEWHERE");
  const LogCapture log(0);
  expectFailure(3, SQLITE_ERROR, "Could not execute prepeared query",
                [&] { db.UpdateTimeFieldRecursively(1); });
  EXPECT_TRUE(log.mentions("error 0 DCSqliteDB :: PopulateSubFolderList: eRRoR -- "));
}

TEST_F(JournalStatements, AClosedCatalogueIsRefusedByName) {
  db.CloseHandle(0, true);
  const std::string notOpen = folder + " is not open";
  FlrJrnSetAttrRaw r{};
  expectFailure(1, 0, notOpen, [&] { db.SetAttr(r, kAt); });
  for (const Operation& operation : kOperations)
    expectFailure(1, 0, notOpen, [&] { operation.call(db); });
}

TEST_F(JournalStatements, AreFinalizedWithTheOthersAndPreparedAgainAfterTheNextOpen) {
  for (const Operation& operation : kOperations) operation.call(db);
  db.CloseHandle(0, false);
  ASSERT_TRUE(db.OpenHandle(false, false));
  for (const Operation& operation : kOperations) EXPECT_NO_THROW(operation.call(db));
}

}  // namespace
