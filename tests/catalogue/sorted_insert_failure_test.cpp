// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A write that SQLite refuses, at each step of an insert and of a flush: what was written stays,
// what is pending stays pending until all FIDS rows stand, and the failure carries every name that
// it passed.
#include <gmock/gmock.h>
#include <sqlite3.h>

#include "platform/exceptions.h"
#include "tests/support/log_capture.h"
#include "tests/support/sorted_catalogue.h"

namespace {

using kddc::test::LogCapture;
using testing::ElementsAre;

constexpr char kEntered[] = "DCSqliteDBSortedInsert :: ";

struct SortedFailure : kddc::test::SortedInsertTest {
  // From now on SQLite refuses `event` of a row that `when` tells.
  static std::string refusing(const std::string& event, const std::string& when) {
    return "CREATE TEMP TRIGGER refuse BEFORE " + event + " WHEN " + when +
           " BEGIN SELECT RAISE(ABORT,'refused'); END";
  }
  void insertThree() {
    for (const char fid : {'C', 'A', 'B'}) insert({fid}, fid, kRegular, 0);
  }
  // `functions` are those that the failure left, innermost first.
  template <class Operation>
  static void expectRefusal(const std::string& functions, Operation&& operation) {
    try {
      operation();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const UDCException& e) {
      EXPECT_EQ(e.GetType(), 3);
      EXPECT_EQ(e.GetErrorNumber(), SQLITE_CONSTRAINT);
      EXPECT_EQ(e.GetMessage(), "refused");
      EXPECT_THAT(e.GetErrorMsg(), testing::StartsWith("Function[" + functions + "] "));
    }
  }
  static std::vector<std::string> tags(const LogCapture& log) {
    std::vector<std::string> tags;
    for (const std::string& line : log.lines())
      if (line.starts_with("error 0 "))
        tags.push_back(line.substr(8, line.find(": eRRoR -- ") - 8));
    return tags;
  }
};

constexpr char kStep[] = "UDC_DBMS :: exec_prepared_query";

TEST_F(SortedFailure, ARefusedIdentifierLeavesTheRowsBeforeItAndTheWholeMap) {
  insertThree();
  fidsSql(refusing("INSERT ON FIDS", "NEW.FILES_ROWID=3"));  // B, the second in order
  const LogCapture log(0);
  expectRefusal(std::string(kStep) + " <- DCSqliteDB :: InsertFid <- " + kEntered + "FlushAllFids",
                [&] { db.FlushAllFids(); });
  EXPECT_THAT(tags(log),
              ElementsAre("DCSqliteDB :: InsertFid", std::string(kEntered) + "FlushAllFids"));
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID"), Rows{"1|2"});
  EXPECT_EQ(db.pending(), "A2 B3 C1");
  EXPECT_EQ(committedFiles("FID_ROWID"), Rows(3, kddc::test::kPending));
}

TEST_F(SortedFailure, ARefusedSequenceNumberDoesTheSame) {
  insertThree();
  fidsSql(refusing("UPDATE OF SEQNUM ON FIDS", "NEW.FILES_ROWID=3"));
  const LogCapture log(0);
  expectRefusal(std::string(kStep) +
                    " <- DCSqliteDB :: UpdateSeqNum <- DCSqliteDB :: InsertFid <- " + kEntered +
                    "FlushAllFids",
                [&] { db.FlushAllFids(); });
  EXPECT_THAT(tags(log), ElementsAre("DCSqliteDB :: UpdateSeqNum", "DCSqliteDB :: InsertFid",
                                     std::string(kEntered) + "FlushAllFids"));
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID"), (Rows{"1|2", "2|3"}));
  EXPECT_EQ(db.pending(), "A2 B3 C1");
}

TEST_F(SortedFailure, ARefusedCorrectionComesWhenTheMapIsEmptyAlready) {
  insertThree();
  filesSql(refusing("UPDATE OF FID_ROWID ON FILES", "NEW.INODE=2"));
  const LogCapture log(0);
  expectRefusal(std::string(kStep) + " <- DCSqliteDB :: UpdateFidRowIdInFilesDB <- " + kEntered +
                    "FlushAllFids",
                [&] { db.FlushAllFids(); });
  EXPECT_THAT(tags(log), ElementsAre("DCSqliteDB :: UpdateFidRowIdInFilesDB",
                                     std::string(kEntered) + "FlushAllFids"));
  EXPECT_EQ(committedFids("FILES_ROWID"), (Rows{"2", "3", "1"}));
  EXPECT_EQ(committedFiles("FID_ROWID"), (Rows{"3", kddc::test::kPending, kddc::test::kPending}));
  EXPECT_EQ(db.pending(), "");
}

TEST_F(SortedFailure, AFlushThatFailedMayBeTriedAgainAndWritesEveryEntryAnew) {
  insertThree();
  fidsSql(refusing("INSERT ON FIDS", "NEW.FILES_ROWID=3"));
  {
    const LogCapture log(0);
    EXPECT_THROW(db.FlushAllFids(), UDCException);
  }
  fidsSql("DROP TRIGGER refuse");
  db.FlushAllFids();
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID"), (Rows{"1|2", "2|2", "3|3", "4|1"}));
  EXPECT_EQ(committedFiles("FID_ROWID"), (Rows{"4", "2", "3"}));
}

TEST_F(SortedFailure, AnInsertThatFillsTheMapFailsWithTheFlush) {
  db.mapLimit = 2;
  insert("a", 'A', kRegular, 0);
  fidsSql(refusing("INSERT ON FIDS", "1"));
  const LogCapture log(0);
  expectRefusal(std::string(kStep) + " <- DCSqliteDB :: InsertFid <- " + kEntered +
                    "FlushAllFids <- " + kEntered + "Insert",
                [&] { insert("b", 'B', kRegular, 0); });
  EXPECT_THAT(tags(log),
              ElementsAre("DCSqliteDB :: InsertFid", std::string(kEntered) + "FlushAllFids",
                          std::string(kEntered) + "Insert"));
  EXPECT_EQ(db.pending(), "A1 B2");
}

TEST_F(SortedFailure, AFileThatIsNotWrittenIsNotPending) {
  filesSql(refusing("INSERT ON FILES", "1"));
  const LogCapture log(0);
  expectRefusal(std::string(kStep) + " <- DCSqliteDB :: InsertFile <- " + kEntered + "Insert",
                [&] { insert("a", 'A', kRegular, 0); });
  EXPECT_THAT(tags(log), ElementsAre("DCSqliteDB :: InsertFile", std::string(kEntered) + "Insert"));
  EXPECT_EQ(db.pending(), "");
}

TEST_F(SortedFailure, ACloseWhoseFlushFailsClosesAndMarksNothing) {
  insertThree();
  fidsSql(refusing("INSERT ON FIDS", "1"));
  const LogCapture log(0);
  expectRefusal(std::string(kStep) + " <- DCSqliteDB :: InsertFid <- " + kEntered +
                    "FlushAllFids <- " + kEntered + "CloseHandle",
                [&] { db.CloseHandle(5000, false); });
  EXPECT_EQ(tags(log).back(), std::string(kEntered) + "CloseHandle");
  EXPECT_EQ(db.pending(), "A2 B3 C1");
  ASSERT_TRUE(db.filesDb && db.fidDb);
  db.Commit();
  EXPECT_EQ(kddc::test::DatabaseView(filesPath).cell("SELECT TIME,GRACEFUL_SHUTDOWN FROM TIME"),
            "0|0");
}

TEST_F(SortedFailure, ARemovalThatIsRefusedIsLoggedUnderBothNames) {
  insert("top", 'T', kDirectory, 0);
  filesSql(refusing("DELETE ON FILES", "1"));
  const LogCapture log(0);
  expectRefusal(std::string(kStep) +
                    " <- DCSqliteDB :: DeleteInode <- DCSqliteDB :: DeleteEntry <- " + kEntered +
                    "RemoveFolderGivenInode",
                [&] { db.RemoveFolderGivenInode(1, 1); });
  EXPECT_EQ(tags(log).back(), std::string(kEntered) + "RemoveFolderGivenInode");
}

TEST_F(SortedFailure, ADuplicateWhoseRowCannotBeRemovedIsForgottenAllTheSame) {
  insert("a", 'D', kRegular, 0);
  filesSql(refusing("DELETE ON FILES", "1"));
  const fsf_fid fid = kddc::test::fidOf('D');
  const LogCapture log(0);
  EXPECT_THROW(db.RemoveDuplicateFid(&fid), UDCException);
  EXPECT_EQ(tags(log).back(), std::string(kEntered) + "RemoveDuplicateFid");
  EXPECT_EQ(db.pending(), "");
}

TEST_F(SortedFailure, AClosedCatalogueIsRefusedByName) {
  db.CloseHandle(0, false);
  const std::string notOpen = folder + " is not open";
  const LogCapture log(0);
  for (const unsigned mode : {kRegular, kDirectory}) {
    try {
      insert("a", 'A', mode, 0);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const UDCException& e) {
      EXPECT_EQ(e.GetType(), 1);
      EXPECT_EQ(e.GetMessage(), notOpen);
    }
  }
  EXPECT_THROW(db.RemoveFolderGivenInode(1, 1), UDCException);
  EXPECT_NO_THROW(db.FlushAllFids()) << "nothing is pending";
}

}  // namespace
