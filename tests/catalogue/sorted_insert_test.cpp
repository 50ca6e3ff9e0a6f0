// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What is pending, until when, and in what order it is written. Removals and failures have files of
// their own.
#include <gmock/gmock.h>

#include "platform/exceptions.h"
#include "platform/hsm.h"
#include "tests/support/log_capture.h"
#include "tests/support/sorted_catalogue.h"

namespace {

using kddc::test::kPending;
using kddc::test::LogCapture;
using kddc::test::MapSizeSetting;
using kddc::test::OpenSortedCatalogue;
using testing::ElementsAre;

struct SortedInsert : kddc::test::SortedInsertTest {
  static constexpr char kTag[] = "DCSqliteDBSortedInsert :: ";
};

TEST_F(SortedInsert, AFileIsWrittenAtOnceButItsIdentifierIsPending) {
  insert("file", 'F', kRegular, 3);
  EXPECT_EQ(committedFiles("INODE,PINODE,MODE,SIZE,BLOCKSUSED,FILE_TYPE,NAME,FID_ROWID"),
            Rows{"1|3|33188|4096|8|0|file|9223372036854775807"});
  EXPECT_EQ(committedFids("*"), Rows{});
  EXPECT_EQ(db.pending(), "F1");
}

TEST_F(SortedInsert, AFolderIsNeverPending) {
  EXPECT_EQ(insert("top", 'T', kDirectory, 0), 1u);
  insert("file", 'F', kRegular, 1);
  EXPECT_EQ(insert("sub", 'S', kDirectory, 1), 2u);
  EXPECT_EQ(committedFiles("INODE,FID_ROWID,FILE_TYPE,NAME"),
            (Rows{"1|1|1|top", std::string("2|") + kPending + "|0|file", "3|2|1|sub"}));
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN"), (Rows{"1|1|0|0", "2|3|0|0"}));
  EXPECT_EQ(db.pending(), "F2");
}

TEST_F(SortedInsert, AFoldersRowIsCorrectedWhenItsIdentifierGotAnotherNumber) {
  insert("top", 'T', kDirectory, 0);
  // The last number that this connection gave is 40, but the next one follows the largest.
  fidsSql("INSERT INTO FIDS (FIDS_ROWID) VALUES (100)");
  fidsSql("INSERT INTO FIDS (FIDS_ROWID) VALUES (40)");
  EXPECT_EQ(insert("sub", 'S', kDirectory, 1), 101u);
  EXPECT_EQ(committedFiles("FID_ROWID"), (Rows{"1", "101"}));
}

TEST_F(SortedInsert, EveryTypeButAFolderIsHeldBack) {
  const unsigned modes[] = {0100644, 0120777, 020600, 060600, 010600, 0140600, 0170000};
  for (const unsigned mode : modes) insert("x", 'X', mode, 0);
  insert("stub", 'X', kRegular, 0, 8);
  EXPECT_EQ(committedFiles("FILE_TYPE"), (Rows{"0", "2", "3", "4", "5", "6", "7", "8"}));
  EXPECT_EQ(db.sortMap.size(), 8u);
}

TEST_F(SortedInsert, TheTypeThatIsGivenDecidesAndNotTheMode) {
  insert("calledFolder", 'A', kRegular, 0, 1);
  insert("calledFile", 'B', kDirectory, 0, 0);
  EXPECT_EQ(committedFiles("FILE_TYPE"), (Rows{"1", "0"}));
  EXPECT_EQ(db.pending(), "B2");
}

TEST_F(SortedInsert, AStubIsRecognisedWhileItIsInserted) {
  const auto before = RQHSMLowLevelRQFS::SetProbe(
      [](unsigned long long, const fsf_fid& fid) { return fid.data[0] == 'S' ? 1 : 0; });
  db.LookForStubsDuringInsert();
  insert("stub", 'S', kRegular, 0);
  insert("plain", 'P', kRegular, 0);
  RQHSMLowLevelRQFS::SetProbe(before);
  EXPECT_EQ(committedFiles("FILE_TYPE,NAME"), (Rows{"8|stub", "0|plain"}));
  EXPECT_EQ(db.pending(), "P2 S1");
}

TEST_F(SortedInsert, TheOtherInsertHoldsBackAsWell) {
  const StatFidName_s e = entry("file", 'F', kRegular);
  StatFid_s known{e.st, e.fid};
  db.Insert("file", &known, 5);
  EXPECT_EQ(committedFiles("PINODE,NAME"), Rows{"5|file"});
  EXPECT_EQ(db.pending(), "F1");
}

TEST_F(SortedInsert, AFlushWritesByIdentifierAndCorrectsEachFile) {
  insert("c", 'C', kRegular, 0);
  insert("top", 'T', kDirectory, 0);
  insert("a", 'A', kRegular, 2);
  insert("b", 'B', kRegular, 2);
  db.FlushAllFids();
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN"),
            (Rows{"1|2|0|0", "2|3|0|0", "3|4|0|0", "4|1|0|0"}));
  EXPECT_EQ(committedFiles("INODE,FID_ROWID,NAME"), (Rows{"1|4|c", "2|1|top", "3|2|a", "4|3|b"}));
  EXPECT_EQ(db.pending(), "");
}

TEST_F(SortedInsert, AFlushWritesTheFourColumnsOfAnIdentifier) {
  insert("a", 'A', kRegular, 0);
  db.FlushAllFids();
  EXPECT_EQ(committedFids("FID1,FID2,FID3,FID4"),
            Rows{"71748523475265|71748523475265|71748523475265|71748523475265"});
}

TEST_F(SortedInsert, IdentifiersAreOrderedByTheirWordsNotByTheirBytes) {
  StatFidName_s late = entry("late", 0, kRegular), early = entry("early", 0, kRegular);
  late.fid.data[7] = 1;    // the heaviest byte of the first word
  early.fid.data[0] = 99;  // the lightest
  db.Insert(&late, 0, 7);
  db.Insert(&early, 0, 7);
  db.FlushAllFids();
  EXPECT_EQ(committedFids("FILES_ROWID"), (Rows{"2", "1"}));
}

TEST_F(SortedInsert, FilesAreCorrectedInTheOrderOfTheirRows) {
  for (const char fid : {'C', 'A', 'B'}) insert({fid}, fid, kRegular, 0);
  filesSql("CREATE TEMP TABLE SEEN (INODE)");
  filesSql(
      "CREATE TEMP TRIGGER watch AFTER UPDATE OF FID_ROWID ON FILES BEGIN "
      "INSERT INTO SEEN VALUES (NEW.INODE); END");
  db.FlushAllFids();
  db.filesDb->exec_query_get_table("SELECT group_concat(INODE) FROM SEEN");
  EXPECT_STREQ(db.filesDb->table[1], "1,2,3");
}

TEST_F(SortedInsert, TwoNamesOfOneFileGetARowEachInTheOrderOfTheirInsertion) {
  insert("one", 'L', kRegular, 0);
  insert("other", 'A', kRegular, 0);
  insert("two", 'L', kRegular, 0);
  EXPECT_EQ(db.pending(), "A2 L1 L3");
  db.FlushAllFids();
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID"), (Rows{"1|2", "2|1", "3|3"}));
  EXPECT_EQ(committedFiles("FID_ROWID"), (Rows{"2", "1", "3"}));
}

TEST_F(SortedInsert, AFlushTellsHowManyAndHowLong) {
  insert("a", 'A', kRegular, 0);
  insert("b", 'B', kRegular, 0);
  const LogCapture log(1);
  db.FlushAllFids();
  EXPECT_THAT(log.lines(),
              ElementsAre(std::string("debug 1 ") + kTag + "FlushAllFids: SortMap_m Size[2]",
                          std::string("debug 1 ") + kTag + "FlushAllFids: Sorted inserts took[0]"));
}

TEST_F(SortedInsert, AFlushOfNothingWritesNothing) {
  const LogCapture log(7);
  db.FlushAllFids();
  EXPECT_THAT(log.lines(),
              ElementsAre(std::string("debug 1 ") + kTag + "FlushAllFids: SortMap_m Size[0]",
                          std::string("debug 1 ") + kTag + "FlushAllFids: Sorted inserts took[0]"));
  EXPECT_EQ(committedFids("*"), Rows{});
}

TEST_F(SortedInsert, AFlushGoesOnBehindWhatEarlierOnesWrote) {
  insert("z", 'Z', kRegular, 0);
  db.FlushAllFids();
  insert("a", 'A', kRegular, 0);
  db.FlushAllFids();
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID"), (Rows{"1|1", "2|2"}));
  EXPECT_EQ(committedFiles("FID_ROWID"), (Rows{"1", "2"}));
}

TEST_F(SortedInsert, ClosingWritesWhatIsPendingBeforeItMarksTheCatalogue) {
  db.openTime = 0;
  insert("a", 'A', kRegular, 0);
  db.UpdateTimesForFullScan();
  // Whatever marks the catalogue finds the file corrected already.
  filesSql(
      "CREATE TRIGGER first BEFORE UPDATE ON TIME WHEN EXISTS (SELECT 1 FROM FILES WHERE "
      "FID_ROWID<>1) BEGIN SELECT RAISE(ABORT,'too early'); END");
  const LogCapture log(3);
  db.CloseHandle(5000, false);
  EXPECT_THAT(log.lines(),
              ElementsAre(std::string("debug 1 ") + kTag +
                              "CloseHandle: Flush Remaining FIDS and close the DB Handle",
                          std::string("debug 1 ") + kTag + "FlushAllFids: SortMap_m Size[1]",
                          std::string("debug 1 ") + kTag + "FlushAllFids: Sorted inserts took[0]",
                          "debug 3 DCSqliteDB :: CloseHandle: Executing : UPDATE TIME SET "
                          "GRACEFUL_SHUTDOWN=1 "));
  EXPECT_EQ(files("FID_ROWID"), Rows{"1"});
  EXPECT_EQ(fids("FILES_ROWID"), Rows{"1"});
  EXPECT_EQ(kddc::test::DatabaseView(filesPath).cell("SELECT TIME,GRACEFUL_SHUTDOWN FROM TIME"),
            "4400|1");
}

TEST_F(SortedInsert, ClosingPassesOnThatTheCatalogueStaysUnmarked) {
  db.CloseHandle(0, true);
  EXPECT_EQ(kddc::test::DatabaseView(filesPath).cell("SELECT TIME,GRACEFUL_SHUTDOWN FROM TIME"),
            "0|0");
}

TEST_F(SortedInsert, WhatIsPendingAtDestructionIsLost) {
  {
    OpenSortedCatalogue other(temp / "other");
    other.CreateDb();
    ASSERT_TRUE(other.OpenHandle(false, false));
    StatFidName_s e = entry("a", 'A', kRegular);
    other.Insert(&e, 0, 7);
    other.Commit();
  }
  EXPECT_EQ(kddc::test::DatabaseView(temp / "other/.db.kd").cell("SELECT FID_ROWID FROM FILES"),
            kPending);
  EXPECT_EQ(kddc::test::DatabaseView(temp / "other/.fid.kd").cell("SELECT COUNT(*) FROM FIDS"),
            "0");
}

TEST(SortedInsertMapSize, IsAMillionUnlessTheSettingsSayOtherwise) {
  EXPECT_EQ(OpenSortedCatalogue("/nowhere").mapLimit, 1000000u);
  for (const auto& [text, limit] :
       {std::pair("0", 0ULL), std::pair("1", 1ULL), std::pair("3", 3ULL),
        std::pair("5000000000", 5000000000ULL), std::pair("1000000", 1000000ULL)}) {
    const MapSizeSetting setting(text);
    EXPECT_EQ(OpenSortedCatalogue("/nowhere").mapLimit, limit);
  }
}

TEST(SortedInsertMapSize, ThatIsNoNumberIsRefusedAndLogged) {
  const MapSizeSetting setting("many");
  const LogCapture log(0);
  EXPECT_THROW(OpenSortedCatalogue("/nowhere"), KdException);
  EXPECT_TRUE(log.mentions("error 0 DCSqliteDBSortedInsert :: DCSqliteDBSortedInsert: eRRoR -- "));
  EXPECT_TRUE(log.mentions("SortedInsertMapSize"));
}

// Six entries, of which the third is a folder, and how many were pending after each.
std::vector<std::size_t> pendingAfterEach(SortedInsert& test) {
  std::vector<std::size_t> pending;
  const std::string fids = "FEDCBA";
  for (const char fid : fids) {
    test.insert({fid}, fid, fid == 'D' ? SortedInsert::kDirectory : SortedInsert::kRegular, 0);
    pending.push_back(test.db.sortMap.size());
  }
  return pending;
}

TEST_F(SortedInsert, AMapOfNoneOrOneEntryIsWrittenAtOnce) {
  for (const unsigned long long limit : {0ULL, 1ULL}) {
    db.mapLimit = limit;
    EXPECT_THAT(pendingAfterEach(*this), ElementsAre(0, 0, 0, 0, 0, 0));
  }
  EXPECT_EQ(committedFiles("FID_ROWID"),
            (Rows{"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12"}));
}

TEST_F(SortedInsert, AMapIsWrittenWhenItIsFullAndFoldersDoNotCount) {
  db.mapLimit = 3;
  EXPECT_THAT(pendingAfterEach(*this), ElementsAre(1, 2, 2, 0, 1, 2));
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID"), (Rows{"1|3", "2|4", "3|2", "4|1"}));
}

TEST_F(SortedInsert, AMapOfAMillionHoldsSixEntries) {
  db.mapLimit = 1000000;
  EXPECT_THAT(pendingAfterEach(*this), ElementsAre(1, 2, 2, 3, 4, 5));
}

}  // namespace
