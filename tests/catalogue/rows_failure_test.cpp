// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What each operation on rows says when SQLite fails it, and that it can be tried again.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <functional>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "platform/exceptions.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_operations.h"
#include "tests/support/udc_failure.h"

namespace {

using kddc::test::failureOf;
using kddc::test::LogCapture;
using kddc::test::RowOperations;

struct Refused {
  const char* tag;
  const char* cannotPrepare;
  std::function<void(DCSqliteDB&)> operation;
};

const fsf_fid kFid{};

std::vector<Refused> filesOperations() {
  return {
      {"InsertFile", "Could not prepeare the Insert Files query",
       [](DCSqliteDB& db) {
         StatFidName_s e{};
         int type = 0;
         db.InsertFile(&e, 0, &type, 0);
       }},
      {"Update1", "Could not prepeare the Update Files query",
       [](DCSqliteDB& db) {
         struct stat st {};
         fsf_fid fid{};
         db.Update1(1, &st, &fid);
       }},
      {"Update", "Could not prepeare the Update Files query",
       [](DCSqliteDB& db) {
         struct stat st {};
         db.Update(1, &st, 1);
       }},
      {"UpdateSizeAndBlocks", "Could not prepeare the Size and blocks upate query",
       [](DCSqliteDB& db) { db.UpdateSizeAndBlocks(1, 1, 1); }},
      {"UpdateAtime", "Could not prepeare the Atime update query",
       [](DCSqliteDB& db) {
         std::list<unsigned long long> one{1};
         db.UpdateAtime(one, 1);
       }},
      {"UpdateFidRowIdInFilesDB", "Could not prepeare the query to update FidRowIdInFilesDB",
       [](DCSqliteDB& db) { db.UpdateFidRowIdInFilesDB(1, 1); }},
      {"DeleteInode", "Could not prepeare the Remove Inode query",
       [](DCSqliteDB& db) { db.DeleteInode(1); }},
      {"GetRowIdAndFileType", "Could not prepeare the GetRowId query",
       [](DCSqliteDB& db) { db.GetRowIdAndFileType(1, "a", nullptr, nullptr, nullptr); }},
      {"CheckDBToSeeIfThisIsAFolder", "Could not prepeare the Get File Type query",
       [](DCSqliteDB& db) { db.CheckDBToSeeIfThisIsAFolder(1, nullptr); }},
      {"GetNameFileTypePInodeAndFidRowId", "Could not prepeare the Get Name File Type query",
       [](DCSqliteDB& db) {
         db.GetNameFileTypePInodeAndFidRowId(1, nullptr, nullptr, nullptr, nullptr);
       }},
      {"GetStatInfo", "Could not prepeare the Get Stat Info query",
       [](DCSqliteDB& db) { db.GetStatInfo(1, nullptr, nullptr); }},
  };
}

std::vector<Refused> fidsOperations() {
  return {
      {"InsertFid", "Could not prepeare the Insert Fid query",
       [](DCSqliteDB& db) { db.InsertFid(&kFid, 1, 0); }},
      {"UpdateSeqNum", "Could not prepeare the Update SeqNum query",
       [](DCSqliteDB& db) { db.UpdateSeqNum(1, 1); }},
      {"MarkForSelectiveRescan", "Could not prepeare the Get MarkRescan query",
       [](DCSqliteDB& db) { db.MarkForSelectiveRescan(1); }},
      {"DeleteFidGivenRowId", "Could not prepeare the Remove Row query",
       [](DCSqliteDB& db) { db.DeleteFidGivenRowId(1); }},
      {"DeleteFid", "Could not prepeare the Remove Row query",
       [](DCSqliteDB& db) { db.DeleteFid(1); }},
      {"ClearRescan", "Could not prepeare the Check SeqNum query",
       [](DCSqliteDB& db) { db.ClearRescan(); }},
      {"GetFidTuple", "Could not prepeare the GetFid query",
       [](DCSqliteDB& db) {
         db.GetFidTuple(&kFid, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
       }},
      {"GetFidAndFilesRowId", "Could not prepeare the GetFidAndFilesRowId  query",
       [](DCSqliteDB& db) { db.GetFidAndFilesRowId(1, nullptr, nullptr); }},
      {"GetFidGivenFidsRowId", "Could not prepeare the Get Rescan query",
       [](DCSqliteDB& db) { db.GetFidGivenFidsRowId(1, nullptr); }},
      {"GetRescanList", "Could not prepeare the Get Rescan query",
       [](DCSqliteDB& db) { db.GetRescanList(nullptr); }},
  };
}

TEST_F(RowOperations, EachOperationSaysThatItsStatementCannotBePrepared) {
  db.filesDb->exec_query("DROP TABLE FILES");
  db.fidDb->exec_query("DROP TABLE FIDS");
  auto operations = filesOperations();
  for (Refused& more : fidsOperations()) operations.push_back(std::move(more));
  for (const Refused& refused : operations) {
    const LogCapture log(0);
    const UDCException e = failureOf([&] { refused.operation(db); });
    EXPECT_EQ(e.GetType(), 3) << refused.tag;
    EXPECT_EQ(e.GetErrorNumber(), SQLITE_ERROR) << refused.tag;
    EXPECT_EQ(e.GetMessage(), refused.cannotPrepare);
    EXPECT_TRUE(log.has(std::string("error 0 DCSqliteDB :: ") + refused.tag + ": eRRoR -- " +
                        e.GetErrorMsg()))
        << refused.tag;
  }
}

TEST_F(RowOperations, AStatementThatCouldNotBePreparedIsTriedAgain) {
  db.filesDb->exec_query("ALTER TABLE FILES RENAME TO AWAY");
  EXPECT_THROW(db.DeleteInode(1), UDCException);
  db.filesDb->exec_query("ALTER TABLE AWAY RENAME TO FILES");
  EXPECT_EQ(db.DeleteInode(1), 0);
}

TEST_F(RowOperations, AReadThatFailsHalfWaySaysSoAndCanBeTriedAgain) {
  insert("a", 'A', kRegular, 0);
  EXPECT_TRUE(db.GetStatInfo(1, nullptr, nullptr));
  db.filesDb->exec_query("ALTER TABLE FILES RENAME TO AWAY");
  const UDCException e = failureOf([&] { db.GetStatInfo(1, nullptr, nullptr); });
  EXPECT_EQ(e.GetType(), 3);
  EXPECT_EQ(e.GetMessage(), "Could not execute prepeared query");
  EXPECT_EQ(e.GetErrorNumber(), SQLITE_ERROR);
  db.filesDb->exec_query("ALTER TABLE AWAY RENAME TO FILES");
  EXPECT_TRUE(db.GetStatInfo(1, nullptr, nullptr));
}

TEST_F(RowOperations, AnUpdateThatFailsHalfWayCanBeTriedAgain) {
  insert("a", 'A', kRegular, 0);
  db.DeleteInode(99);
  db.filesDb->exec_query("ALTER TABLE FILES RENAME TO AWAY");
  EXPECT_THROW(db.DeleteInode(1), UDCException);
  db.filesDb->exec_query("ALTER TABLE AWAY RENAME TO FILES");
  EXPECT_EQ(db.DeleteInode(1), 0);
  EXPECT_TRUE(committedFiles("*").empty());
}

TEST_F(RowOperations, AValueThatSqliteCannotBindIsNamed) {
  const auto refusedWith = [&](const char* message, const std::function<void()>& operation) {
    const UDCException e = failureOf(operation);
    EXPECT_EQ(e.GetType(), 3);
    EXPECT_EQ(e.GetErrorNumber(), SQLITE_TOOBIG);
    EXPECT_EQ(e.GetMessage(), message);
  };
  sqlite3_limit(db.filesDb->handle, SQLITE_LIMIT_LENGTH, 1000);
  const std::string tooLong(2000, 'n');
  refusedWith("NAME Bind failed", [&] { insert(tooLong, 'A', kRegular, 0); });
  refusedWith("NAME Bind failed",
              [&] { db.GetRowIdAndFileType(1, tooLong.c_str(), nullptr, nullptr, nullptr); });
}

TEST_F(RowOperations, StatementsArePreparedOnceAndGoneAfterFinalizing) {
  insert("a", 'A', kRegular, 0);
  int prepared = 0;
  for (sqlite3_stmt* s = sqlite3_next_stmt(db.filesDb->handle, nullptr); s;
       s = sqlite3_next_stmt(db.filesDb->handle, s))
    ++prepared;
  EXPECT_EQ(prepared, 2);
  insert("b", 'B', kRegular, 0);
  db.FinalizePreCompiledStatements();
  EXPECT_EQ(sqlite3_next_stmt(db.filesDb->handle, nullptr), nullptr);
  insert("c", 'C', kRegular, 0);
  EXPECT_EQ(committedFiles("NAME"), (Rows{"a", "b", "c"}));
}

}  // namespace
