// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/udc_dbms.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "platform/exceptions.h"
#include "platform/lock_file.h"
#include "platform/platform_info.h"
#include "tests/support/database_view.h"
#include "tests/support/temp_folder.h"

namespace {

using kddc::LockFile;
using kddc::test::DatabaseView;
using kddc::test::TempFolder;

constexpr bool kShared = true;
constexpr bool kExclusive = false;
constexpr bool kDiscard = true;

int modeOf(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

struct UdcDbms : testing::Test {
  TempFolder folder;
  std::string path = folder.path() + "/test.db";

  ~UdcDbms() override { setGroups("20000", "1000"); }

  void setGroups(const char* rows, const char* milliseconds) {
    KDPlatformInfo::setDefault("DataClassification", "CommitEveryRows", rows);
    KDPlatformInfo::setDefault("DataClassification", "CommitEveryMilliseconds", milliseconds);
  }
  UDC_DBMS& opened(UDC_DBMS& db) {
    EXPECT_TRUE(db.opendb(kExclusive));
    return db;
  }
  void makeTable() {
    UDC_DBMS db(path, 2, 0, false);
    opened(db).exec_query("CREATE TABLE T (N INTEGER)");
    db.closedb(false);
  }
  std::string committedRows() { return DatabaseView(path).cell("SELECT count(*) FROM T"); }
};

TEST_F(UdcDbms, MakesDatabaseAndLockFileForItsOwnerAlone) {
  umask(0);
  UDC_DBMS db(path, 2, 0, false);
  ASSERT_TRUE(db.opendb(kExclusive));
  db.exec_query("CREATE TABLE T (N INTEGER)");
  db.Commit();
  EXPECT_EQ(modeOf(path), 0600);
  EXPECT_EQ(modeOf(path + ".lock"), 0600);
  EXPECT_EQ(modeOf(path + "-wal"), 0600);
  EXPECT_EQ(modeOf(path + "-shm"), 0600);
}

TEST_F(UdcDbms, AnExclusiveOpenerKeepsEveryOtherOut) {
  UDC_DBMS first(path, 2, 0, false), second(path, 2, 0, false);
  ASSERT_TRUE(first.opendb(kExclusive));
  EXPECT_FALSE(second.opendb(kExclusive));
  EXPECT_FALSE(second.opendb(kShared));
  EXPECT_EQ(second.handle, nullptr);
  first.closedb(false);
  EXPECT_TRUE(second.opendb(kExclusive));
}

TEST_F(UdcDbms, SharedOpenersLetEachOtherIn) {
  UDC_DBMS first(path, 2, 0, false), second(path, 2, 0, false), third(path, 2, 0, false);
  ASSERT_TRUE(first.opendb(kShared));
  EXPECT_TRUE(second.opendb(kShared));
  EXPECT_FALSE(third.opendb(kExclusive));
}

TEST_F(UdcDbms, WaitsAsLongAsItWasToldForTheLock) {
  UDC_DBMS holder(path, 2, 0, false), waiter(path, 2, 60, false);
  ASSERT_TRUE(holder.opendb(kExclusive));
  std::thread waiting([&] { EXPECT_TRUE(waiter.opendb(kExclusive)); });
  holder.closedb(false);
  waiting.join();
}

TEST_F(UdcDbms, AReadOnlyConnectionNeitherMakesNorTakesTheLock) {
  makeTable();
  ASSERT_EQ(unlink((path + ".lock").c_str()), 0);
  UDC_DBMS reader(path, 2, 0, true), writer(path, 2, 0, false);
  ASSERT_TRUE(reader.opendb(kExclusive));
  EXPECT_FALSE(exists(path + ".lock"));
  EXPECT_TRUE(writer.opendb(kExclusive));
}

TEST_F(UdcDbms, AReadOnlyConnectionCannotWriteAndMakesNoDatabase) {
  UDC_DBMS nothing(path, 2, 0, true);
  EXPECT_FALSE(nothing.opendb(kExclusive));
  EXPECT_FALSE(exists(path));
  makeTable();
  UDC_DBMS reader(path, 2, 0, true);
  ASSERT_TRUE(reader.opendb(kExclusive));
  EXPECT_THROW(reader.exec_query("INSERT INTO T VALUES (1)"), UDCException);
}

TEST_F(UdcDbms, TheLockFileNamesItsExclusiveHolder) {
  UDC_DBMS db(path, 2, 0, false);
  EXPECT_EQ(LockFile::holderOf(path + ".lock"), std::nullopt);
  ASSERT_TRUE(db.opendb(kExclusive));
  EXPECT_EQ(LockFile::holderOf(path + ".lock"), getpid());
  db.closedb(false);
  EXPECT_EQ(LockFile::holderOf(path + ".lock"), std::nullopt);
}

TEST_F(UdcDbms, ALockFileThatWasRemovedAndMadeAgainIsLockedAnew) {
  UDC_DBMS first(path, 2, 0, false), second(path, 2, 0, false), third(path, 2, 0, false);
  ASSERT_TRUE(first.opendb(kExclusive));
  ASSERT_EQ(unlink((path + ".lock").c_str()), 0);
  EXPECT_TRUE(second.opendb(kExclusive));
  EXPECT_FALSE(third.opendb(kExclusive));
}

TEST_F(UdcDbms, APlantedSymbolicLinkIsNotFollowed) {
  const std::string victim = folder.path() + "/victim";
  ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0);
  EXPECT_FALSE(UDC_DBMS(path, 2, 0, false).opendb(kExclusive));
  ASSERT_EQ(unlink(path.c_str()), 0);
  unlink((path + ".lock").c_str());
  ASSERT_EQ(symlink(victim.c_str(), (path + ".lock").c_str()), 0);
  EXPECT_FALSE(UDC_DBMS(path, 2, 0, false).opendb(kExclusive));
  EXPECT_FALSE(exists(victim));
}

TEST_F(UdcDbms, AFolderMayBeReachedThroughASymbolicLink) {
  const std::string link = folder.path() + "/link";
  ASSERT_EQ(symlink(".", link.c_str()), 0);
  EXPECT_TRUE(UDC_DBMS(link + "/test.db", 2, 0, false).opendb(kExclusive));
}

TEST_F(UdcDbms, WhatIsNoDatabaseIsNotOpened) {
  std::ofstream(path) << std::string(4096, 'x');
  UDC_DBMS db(path, 2, 0, false);
  EXPECT_FALSE(db.opendb(kExclusive));
  EXPECT_EQ(db.handle, nullptr);
  EXPECT_EQ(LockFile::holderOf(path + ".lock"), std::nullopt);
}

TEST_F(UdcDbms, TheHandleIsTheFirstMember) {
  UDC_DBMS db(path, 2, 0, false);
  EXPECT_EQ(static_cast<void*>(&db), static_cast<void*>(&db.handle));
}

TEST_F(UdcDbms, ThePageSizeOfANewDatabaseCanBeChosen) {
  UDC_DBMS db(path, 2, 0, false);
  db.SetPageSize(2048);
  opened(db).exec_query("CREATE TABLE T (N INTEGER)");
  db.closedb(false);
  EXPECT_EQ(DatabaseView(path).cell("PRAGMA page_size"), "2048");
}

TEST_F(UdcDbms, ReadersSeeNothingBeforeTheCommitAndAllOfItAfter) {
  makeTable();
  UDC_DBMS db(path, 2, 0, false);
  opened(db).exec_query("INSERT INTO T VALUES (1),(2)");
  EXPECT_EQ(committedRows(), "0");
  EXPECT_EQ(db.Commit(), 0);
  EXPECT_EQ(committedRows(), "2");
}

TEST_F(UdcDbms, AGroupIsCommittedWhenItHasAsManyRowsAsSet) {
  makeTable();
  setGroups("3", "1000000");
  UDC_DBMS db(path, 2, 0, false);
  opened(db).exec_query("INSERT INTO T VALUES (1)");
  db.exec_query("INSERT INTO T VALUES (2)");
  EXPECT_EQ(committedRows(), "0");
  db.exec_query("INSERT INTO T VALUES (3)");
  EXPECT_EQ(committedRows(), "3");
  db.exec_query("INSERT INTO T VALUES (4)");
  EXPECT_EQ(committedRows(), "3");
}

TEST_F(UdcDbms, AGroupIsCommittedByTheNextWriteOnceItIsOldEnough) {
  makeTable();
  setGroups("1000000", "1");
  UDC_DBMS db(path, 2, 0, false);
  opened(db).exec_query("INSERT INTO T VALUES (1)");
  const auto began = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - began < std::chrono::milliseconds(20)) {
  }
  db.exec_query("INSERT INTO T VALUES (2)");
  EXPECT_EQ(committedRows(), "2");
}

TEST_F(UdcDbms, AGroupMayHaveAsLongAsNumbersReach) {
  makeTable();
  setGroups("9223372036854775807", "9223372036854775807");
  UDC_DBMS db(path, 2, 0, false);
  opened(db).exec_query("INSERT INTO T VALUES (1)");
  EXPECT_EQ(committedRows(), "0");
  db.Commit();
  EXPECT_EQ(committedRows(), "1");
}

TEST_F(UdcDbms, WithoutGroupsOnlyACommitCommits) {
  makeTable();
  setGroups("1", "1000000");
  UDC_DBMS db(path, 2, 0, false);
  opened(db).SetGroupCommit(false);
  db.exec_query("INSERT INTO T VALUES (1)");
  EXPECT_EQ(committedRows(), "0");
  db.Commit();
  EXPECT_EQ(committedRows(), "1");
  db.SetGroupCommit(true);
  db.exec_query("INSERT INTO T VALUES (2)");
  EXPECT_EQ(committedRows(), "2");
}

TEST_F(UdcDbms, ClosingCommitsOrDiscards) {
  makeTable();
  UDC_DBMS db(path, 2, 0, false);
  opened(db).exec_query("INSERT INTO T VALUES (1)");
  EXPECT_TRUE(db.closedb(kDiscard));
  EXPECT_EQ(committedRows(), "0");
  opened(db).exec_query("INSERT INTO T VALUES (1)");
  EXPECT_TRUE(db.closedb(false));
  EXPECT_TRUE(db.closedb(false));
  EXPECT_EQ(committedRows(), "1");
}

TEST_F(UdcDbms, AConnectionThatIsDestroyedOpenIsLeftAsByACrash) {
  makeTable();
  {
    UDC_DBMS db(path, 2, 0, false);
    opened(db).exec_query("INSERT INTO T VALUES (1)");
  }
  EXPECT_EQ(committedRows(), "0");
}

TEST_F(UdcDbms, ReaderAndWriterDoNotWaitForEachOther) {
  makeTable();
  UDC_DBMS writer(path, 2, 0, false);
  opened(writer).exec_query("INSERT INTO T VALUES (1)");
  writer.Commit();

  DatabaseView reader(path);
  reader.rows("BEGIN");
  EXPECT_EQ(reader.cell("SELECT count(*) FROM T"), "1");
  writer.exec_query("INSERT INTO T VALUES (2)");
  EXPECT_EQ(writer.Commit(), 0);
  EXPECT_EQ(reader.cell("SELECT count(*) FROM T"), "1");
  reader.rows("COMMIT");
  EXPECT_EQ(reader.cell("SELECT count(*) FROM T"), "2");
}

TEST_F(UdcDbms, AFailureCarriesTypeCodeAndMessageOfSqlite) {
  UDC_DBMS db(path, 2, 0, false);
  opened(db);
  try {
    db.exec_query("SELECT * FROM NOWHERE");
    FAIL();
  } catch (const UDCException& e) {
    EXPECT_EQ(e.GetType(), 3);
    EXPECT_EQ(e.GetErrorNumber(), SQLITE_ERROR);
    EXPECT_EQ(e.GetMessage(), "no such table: NOWHERE");
  }
  EXPECT_THROW(db.exec_query_get_table("SELECT * FROM NOWHERE"), UDCException);
  EXPECT_EQ(db.rowCount, 0);
  EXPECT_TRUE(db.table.empty());
}

TEST_F(UdcDbms, AnOperationOnAClosedConnectionIsRefused) {
  UDC_DBMS db(path, 2, 0, false);
  try {
    db.exec_query("SELECT 1");
    FAIL();
  } catch (const UDCException& e) {
    EXPECT_EQ(e.GetType(), 1);
    EXPECT_EQ(e.GetMessage(), path + " is not open");
  }
  EXPECT_EQ(db.LastInsertRowId(), 0U);
}

TEST_F(UdcDbms, ATableHoldsTheColumnNamesAndThenTheCells) {
  UDC_DBMS db(path, 2, 0, false);
  EXPECT_EQ(opened(db).exec_query_get_table("SELECT 7 AS A, NULL AS B UNION ALL SELECT 8, 'x'"), 0);
  EXPECT_EQ(db.rowCount, 2);
  EXPECT_EQ(db.columnCount, 2);
  ASSERT_EQ(db.table.size(), 6U);
  EXPECT_STREQ(db.table[0], "A");
  EXPECT_STREQ(db.table[1], "B");
  EXPECT_STREQ(db.table[2], "7");
  EXPECT_EQ(db.table[3], nullptr);
  EXPECT_STREQ(db.table[5], "x");
}

TEST_F(UdcDbms, ACallbackThatAnswersNonZeroEndsTheQueryWithoutAFailure) {
  UDC_DBMS db(path, 2, 0, false);
  opened(db);
  int seen = 0;
  const auto stopAtTwo = [](void* count, int, char**, char**) {
    return ++*static_cast<int*>(count) == 2 ? -1 : 0;
  };
  EXPECT_EQ(db.exec_query_with_callback("SELECT 1 UNION ALL SELECT 2 UNION ALL SELECT 3", stopAtTwo,
                                        &seen),
            4);
  EXPECT_EQ(seen, 2);
  EXPECT_EQ(db.exec_query_with_callback("SELECT 1", stopAtTwo, &seen), 0);
}

TEST_F(UdcDbms, APreparedStatementIsResetAlsoWhenItFails) {
  UDC_DBMS db(path, 2, 0, false);
  opened(db).exec_query("CREATE TABLE U (N INTEGER UNIQUE)");
  sqlite3_stmt* insert = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db.handle, "INSERT INTO U VALUES (1)", -1, &insert, nullptr), 0);
  EXPECT_EQ(db.exec_prepared_query(insert), 0);
  EXPECT_EQ(db.LastInsertRowId(), 1U);
  EXPECT_FALSE(sqlite3_stmt_busy(insert));
  EXPECT_THROW(db.exec_prepared_query(insert), UDCException);
  EXPECT_FALSE(sqlite3_stmt_busy(insert));
  sqlite3_finalize(insert);
  EXPECT_FALSE(db.HasLostWork()) << "a refused row takes only itself back";
}

TEST_F(UdcDbms, WorkThatSqliteGivesUpIsRememberedAndATransactionIsOpenAgain) {
  makeTable();
  UDC_DBMS db(path, 2, 0, false);
  opened(db).exec_query("PRAGMA max_page_count=3");
  db.exec_query("INSERT INTO T VALUES (1)");
  sqlite3_stmt* big = nullptr;
  ASSERT_EQ(
      sqlite3_prepare_v2(db.handle, "INSERT INTO T VALUES (zeroblob(100000))", -1, &big, nullptr),
      0);
  EXPECT_THROW(db.exec_prepared_query(big), UDCException);
  sqlite3_finalize(big);
  EXPECT_TRUE(db.HasLostWork());
  db.exec_query("INSERT INTO T VALUES (2)");
  EXPECT_EQ(committedRows(), "0") << "still in the open transaction";
  db.closedb(false);
  EXPECT_EQ(DatabaseView(path).rows("SELECT N FROM T"), std::vector<std::string>{"2"});
}

TEST_F(UdcDbms, ATransactionCanBeEndedAndBegunByHand) {
  makeTable();
  UDC_DBMS db(path, 2, 0, false);
  opened(db).exec_query("INSERT INTO T VALUES (1)");
  for (const char* step : {"END TRANSACTION", "VACUUM", "BEGIN EXCLUSIVE"})
    EXPECT_EQ(db.exec_query(step), 0) << step;
  EXPECT_FALSE(db.HasLostWork());
  EXPECT_TRUE(db.closedb(false));
  EXPECT_EQ(committedRows(), "1");
}

TEST_F(UdcDbms, TheSynchronousLevelCanBeChangedWhileItIsOpen) {
  UDC_DBMS db(path, 2, 0, false);
  opened(db).SetSynchronous(1);
  db.exec_query_get_table("PRAGMA synchronous");
  EXPECT_STREQ(db.table[1], "1");
}

TEST_F(UdcDbms, RemovingTakesTheSideFilesAlong) {
  for (const char* suffix : {"", ".lock", "-wal", "-shm", "-journal"})
    std::ofstream(path + suffix) << "x";
  UDC_DBMS::RemoveFiles(path);
  UDC_DBMS::RemoveFiles(path);
  for (const char* suffix : {"", ".lock", "-wal", "-shm", "-journal"})
    EXPECT_FALSE(exists(path + suffix)) << suffix;
}

}  // namespace
