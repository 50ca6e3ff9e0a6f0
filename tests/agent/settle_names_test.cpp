// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a record about a name does to the rows, given what the catalogue holds.
#include <gmock/gmock.h>

#include "tests/support/live_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kRoot[] = "1|0|/volume";

TEST_F(SettleTest, AFileThatIsNotKnownIsCreated) {
  EXPECT_EQ(present('R', "a", 'A'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|a"));
  EXPECT_THAT(disk.asked, IsEmpty());
  expectPaired();
}

TEST_F(SettleTest, TheSameRecordASecondTimeChangesNothing) {
  present('R', "a", 'A');
  EXPECT_EQ(present('R', "a", 'A'), Result::kApplied) << "it merges with what is pending";
  written();
  const Rows before = files("*");
  EXPECT_EQ(present('R', "a", 'A'), Result::kNothing);
  written();
  EXPECT_EQ(files("*"), before);
}

TEST_F(SettleTest, ARecordOfAFolderThatIsNotKnownIsLeftOut) {
  EXPECT_EQ(present('X', "a", 'A'), Result::kNothing);
  EXPECT_EQ(absent('X', "a", 'A'), Result::kNothing);
  EXPECT_THAT(written(), ElementsAre(kRoot));
  EXPECT_EQ(settle.counts().outside, 3u);
}

TEST_F(SettleTest, AFolderThatIsNotKnownIsAskedFor) {
  EXPECT_EQ(folderPresent('R', "d", 'D'), Result::kApplied);
  EXPECT_THAT(disk.asked, ElementsAre("list D"));
}

TEST_F(SettleTest, AFolderThatWasListedIsNotAskedForAgain) {
  folderPresent('R', "d", 'D', true);
  EXPECT_THAT(disk.asked, IsEmpty());
}

TEST_F(SettleTest, AFileWithOneLinkAtANewNameHasMovedAndKeepsItsRow) {
  present('R', "a", 'A');
  written();
  folderPresent('R', "d", 'D');
  present('D', "b", 'A');
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|3|b", "3|1|d"));
  EXPECT_EQ(absent('R', "a", 'A', 1), Result::kNothing) << "the old name has gone with it";
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|3|b", "3|1|d"));
  expectPaired();
}

// A scan that meets a folder and a file again, at the places that they moved to meanwhile, gives
// each two rows.
TEST_F(SettleTest, AFileThatMovedIntoAFolderWithTwoRowsStandsThereOnce) {
  StatFidName_s before = entry("d", 'D', kDirectory), after = entry("e", 'D', kDirectory);
  StatFidName_s left = entry("a", 'A', kRegular), arrived = entry("n", 'A', kRegular);
  db.Insert(&before, 1, 7);
  db.Insert(&after, 1, 7);
  db.Insert(&left, 1, 7);
  db.Insert(&arrived, 3, 7);
  renamed('A', 'R', "a", 'D', "n");
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|d", "3|1|e", "5|3|n"));
  expectPaired();
}

// Records speak of the last row; what the first one held may have gone meanwhile.
TEST_F(SettleTest, OfAFolderWithTwoRowsAllIsAskedForWhenOneGoes) {
  StatFidName_s before = entry("d", 'D', kDirectory), after = entry("e", 'D', kDirectory);
  StatFidName_s inFirst = entry("a", 'A', kRegular), inLast = entry("b", 'B', kRegular);
  db.Insert(&before, 1, 7);
  db.Insert(&after, 1, 7);
  db.Insert(&inFirst, 2, 7);
  db.Insert(&inLast, 3, 7);
  EXPECT_EQ(absent('D', "a", 'A'), Result::kNothing) << "the last row does not hold it";
  folderAbsent('R', "d", 'D', 2);
  EXPECT_THAT(written(), ElementsAre(kRoot, "3|1|e", "4|3|a", "5|3|b"));
  EXPECT_THAT(disk.asked, ElementsAre("look D/a", "look D/b", "list D"));
  EXPECT_EQ(absent('D', "a", 'A'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot, "3|1|e", "5|3|b"));
  expectPaired();
}

TEST_F(SettleTest, AFileWithTwoLinksAtANewNameGetsAFurtherRow) {
  present('R', "a", 'A');
  present('R', "b", 'A', {.links = 2});
  EXPECT_THAT(written("INODE,NAME,NLINK,SIZE"),
              ElementsAre("1|/volume|2|4096", "2|a|2|10", "3|b|2|10"));
  expectPaired();
}

TEST_F(SettleTest, ANameOfSeveralGoesAndTheOthersCountOneLess) {
  present('R', "a", 'A');
  present('R', "b", 'A', {.links = 2});
  EXPECT_EQ(absent('R', "a", 'A', 1), Result::kApplied);
  EXPECT_THAT(written("INODE,NAME,NLINK"), ElementsAre("1|/volume|2", "3|b|1"));
  expectPaired();
}

TEST_F(SettleTest, TheLastNameOfAFileThatIsGoneTakesTheRowWithIt) {
  present('R', "a", 'A');
  written();
  EXPECT_EQ(absent('R', "a", 'A'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot));
  expectPaired();
}

TEST_F(SettleTest, AFileThatIsGoneBeforeItWasWrittenNeverIs) {
  present('R', "a", 'A');
  EXPECT_EQ(absent('R', "a", 'A'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot));
  present('R', "b", 'B');
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|b")) << "row 2 was never used";
}

TEST_F(SettleTest, TheLastNameOfAFileThatLivesLeavesTheRowParked) {
  present('R', "a", 'A');
  EXPECT_EQ(absent('R', "a", 'A', 1), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|9223372036854775807|"));
}

TEST_F(SettleTest, AParkedRowTakesTheNextName) {
  present('R', "a", 'A');
  absent('R', "a", 'A', 1);
  present('R', "b", 'A');
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|b"));
}

TEST_F(SettleTest, AParkedRowGoesWhenTheFileIsGone) {
  present('R', "a", 'A');
  absent('R', "a", 'A', 1);
  EXPECT_EQ(gone('A'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot));
  expectPaired();
}

TEST_F(SettleTest, AFileThatIsGoneLosesAllItsNames) {
  present('R', "a", 'A');
  present('R', "b", 'A', {.links = 2});
  EXPECT_EQ(gone('A'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot));
  expectPaired();
}

TEST_F(SettleTest, AFileThatIsGoneBeforeItWasWrittenLosesItsNameToo) {
  present('R', "a", 'A');
  EXPECT_EQ(gone('A'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot));
  EXPECT_EQ(absent('R', "a", 'A'), Result::kNothing);
}

TEST_F(SettleTest, AFileThatLivesOutsideKeepsTheNamesThatNobodyHasSeenGo) {
  present('R', "a", 'A');
  EXPECT_EQ(gone('A', 1), Result::kNothing);
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|a"));
}

TEST_F(SettleTest, WhatAGoneFolderStillHeldIsAskedAfterFromTheBottom) {
  folderPresent('R', "d", 'D', true);
  folderPresent('D', "e", 'E', true);
  folderPresent('E', "f", 'F', true);
  present('F', "a", 'A');
  written();
  folderAbsent('R', "d", 'D');
  EXPECT_THAT(disk.asked, ElementsAre("look at A", "look at F", "look at E"));
}

TEST_F(SettleTest, WhoeverBearsANameLosesItToTheComer) {
  present('R', "a", 'A');
  written();
  present('R', "a", 'B');
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|9223372036854775807|", "3|1|a"));
  gone('A');
  EXPECT_THAT(written(), ElementsAre(kRoot, "3|1|a"));
  expectPaired();
}

TEST_F(SettleTest, AnAbsentNameIsClearedWhoeverBearsIt) {
  present('R', "a", 'A');
  EXPECT_EQ(absent('R', "a", 'B'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|9223372036854775807|"));
  present('R', "c", 'C');
  EXPECT_EQ(absent('R', "c", 0), Result::kApplied) << "nobody knows who it was";
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|9223372036854775807|", "3|9223372036854775807|"));
}

TEST_F(SettleTest, ARenameMovesTheRow) {
  present('R', "a", 'A');
  folderPresent('R', "d", 'D');
  EXPECT_EQ(renamed('A', 'R', "a", 'D', "b"), Result::kApplied);
  EXPECT_THAT(written("INODE,PINODE,NAME,SIZE"),
              ElementsAre("1|0|/volume|4096", "2|1|d|4096", "3|2|b|10"));
}

TEST_F(SettleTest, ARenameMovesTheOneNameOfSeveral) {
  present('R', "a", 'A');
  present('R', "b", 'A', {.links = 2});
  written();
  renamed('A', 'R', "b", 'R', "c", 2);
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|a", "3|1|c"));
}

TEST_F(SettleTest, WhatARenameReplacedIsParkedUntilItIsKnownToBeGone) {
  present('R', "a", 'A');
  present('R', "b", 'B');
  written();
  renamed('A', 'R', "a", 'R', "b");
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|b", "3|9223372036854775807|"));
  gone('B');
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|b"));
}

TEST_F(SettleTest, AnExchangeKeepsBothRows) {
  present('R', "a", 'A');
  present('R', "b", 'B');
  written();
  renamed('A', 'R', "a", 'R', "b");
  present('R', "a", 'B');
  renamed('B', 'R', "b", 'R', "a");
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|b", "3|1|a"));
}

TEST_F(SettleTest, ARenameOutOfTheVolumeParksTheRow) {
  present('R', "a", 'A');
  EXPECT_EQ(renamed('A', 'R', "a", 'X', "a"), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|9223372036854775807|"));
  gone('A', 1);
  EXPECT_THAT(written(), ElementsAre(kRoot));
}

TEST_F(SettleTest, ARenameIntoTheVolumeAsksWhatItIs) {
  EXPECT_EQ(renamed('A', 'X', "a", 'R', "b"), Result::kNothing);
  EXPECT_THAT(disk.asked, ElementsAre("look R/b"));
  EXPECT_THAT(written(), ElementsAre(kRoot));
}

TEST_F(SettleTest, ARenameOfAParkedRowGivesItItsName) {
  present('R', "a", 'A');
  absent('R', "a", 'A', 1);
  renamed('A', 'R', "b", 'R', "c");
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|c"));
}

TEST_F(SettleTest, AMovedFolderTakesItsContentsAlong) {
  folderPresent('R', "d", 'D');
  present('D', "a", 'A');
  folderPresent('R', "e", 'E');
  written();
  folderAbsent('R', "d", 'D', 2);
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|9223372036854775807|", "3|1|e", "4|2|a"));
  folderPresent('E', "f", 'D');
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|3|f", "3|1|e", "4|2|a"));
  expectPaired();
}

TEST_F(SettleTest, AFolderHasOneName) {
  folderPresent('R', "d", 'D');
  folderPresent('R', "e", 'D');
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|e"));
}

TEST_F(SettleTest, AFolderThatIsGoneLeavesWhatItStillHoldsParked) {
  folderPresent('R', "d", 'D');
  present('D', "a", 'A');
  present('D', "b", 'B');
  EXPECT_EQ(folderAbsent('R', "d", 'D'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot, "3|9223372036854775807|", "4|9223372036854775807|"));
  present('R', "a", 'A');
  gone('B');
  EXPECT_THAT(written(), ElementsAre(kRoot, "3|1|a"));
  expectPaired();
}

TEST_F(SettleTest, AFolderThatLeftTheVolumeGoesWithAllBelowIt) {
  folderPresent('R', "d", 'D');
  folderPresent('D', "e", 'E');
  present('E', "a", 'A');
  folderAbsent('R', "d", 'D', 2);
  EXPECT_EQ(gone('D', 2), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot));
  expectPaired();
  EXPECT_EQ(present('E', "b", 'B'), Result::kNothing) << "nobody knows that folder any more";
}

TEST_F(SettleTest, ANameInAFolderOfManyIsFoundWithoutReadingThemAll) {
  for (int i = 0; i < 300; ++i) {
    const std::string name = "n" + std::to_string(i);
    StatFidName_s e = entry(name, 'A', kRegular);
    e.fid.data[23] = static_cast<unsigned char>(i);
    e.fid.data[22] = static_cast<unsigned char>(i >> 8);
    db.Insert(&e, 1, 7);
  }
  present('R', "n77", 'B');
  written();
  EXPECT_THAT(DatabaseView(filesPath).rows("SELECT COUNT(*) FROM FILES WHERE NAME='n77'"),
              ElementsAre("1"));
  expectPaired();
}

TEST_F(SettleTest, ARowThatHasLostItsIdentifierGetsItBack) {
  present('R', "a", 'A');
  db.CloseHandle(0, false);
  DatabaseView(fidsPath).rows("DELETE FROM FIDS WHERE FILES_ROWID=2");
  ASSERT_TRUE(db.OpenHandle(false, false));
  EXPECT_EQ(present('R', "a", 'A'), Result::kApplied);
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|a"));
  expectPaired();
}

// What was told of a folder that nobody knew was dropped: names may have come and gone.
TEST_F(SettleTest, AFolderThatGetsItsIdentifierBackIsAskedForItsContents) {
  folderPresent('R', "d", 'D');
  present('D', "a", 'A');
  db.CloseHandle(0, false);
  DatabaseView(fidsPath).rows("DELETE FROM FIDS WHERE FILES_ROWID=2");
  ASSERT_TRUE(db.OpenHandle(false, false));
  disk.asked.clear();
  settle.identify(2, fidOf('D'));
  EXPECT_THAT(disk.asked, ElementsAre("look D/a", "list D"));
  settle.identify(2, fidOf('D'));  // it has one
  settle.askForContents(3);        // no folder
  EXPECT_EQ(disk.asked.size(), 2U);
  expectPaired();
}

TEST_F(SettleTest, AnIdentifierWithoutARowIsForgotten) {
  const fsf_fid fid = fidOf('A');
  db.InsertFid(&fid, 77, 0);
  present('R', "a", 'A');
  EXPECT_THAT(written(), ElementsAre(kRoot, "2|1|a"));
  expectPaired();
}

TEST_F(SettleTest, ARecordThatCannotBeAppliedIsCounted) {
  present('R', "a", 'A');
  written();
  db.filesDb->exec_query(
      "CREATE TEMP TRIGGER refuse BEFORE DELETE ON FILES BEGIN SELECT RAISE(ABORT,'refused'); END");
  EXPECT_EQ(absent('R', "a", 'A'), Result::kFailed);
  EXPECT_EQ(settle.counts().failed, 1u);
}

}  // namespace
}  // namespace kddc::test
