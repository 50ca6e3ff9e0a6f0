// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "tests/support/journal_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::expectFailure;
using kddc::test::expectRefusal;
using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kRefused[] = "DB Inconsistent";
const std::string kTag = "DCSqliteDB :: Rename: ";
const std::string kAsItself =
    "debug 6 DCSqliteDB :: Rename: A file/folder is being renamed as itself !!. We are applying "
    "this journal so this file/dir will be picked for next incremental";

//   1 top T:    3 a A    4 b B    5 sub S: 6 deep D
//   2 other O:  7 twin L  (and 8 link L in top)
struct Rename : kddc::test::JournalTest {
  Rename() {
    insert("top", 'T', kDirectory, 0);
    insert("other", 'O', kDirectory, 0);
    insert("a", 'A', kRegular, 1);
    insert("b", 'B', kRegular, 1);
    insert("sub", 'S', kDirectory, 1);
    insert("deep", 'D', kRegular, 5);
    insert("twin", 'L', kRegular, 2);
    insert("link", 'L', kRegular, 1);
    db.constructTime = 4444;
  }
  // `src` of `srcParent` to `dst` of `dstParent`; a `replaced` identifier of 0 is none.
  static FlrJrnRenameRaw record(char fid, char srcParent, const char* src, char dstParent,
                                const char* dst, char replaced = 0) {
    return {.src_fid = fidOf(fid),
            .src_par_fid = fidOf(srcParent),
            .src_short_name = src,
            .dst_fid_valid = replaced != 0,
            .dst_fid = fidOf(replaced),
            .dst_par_fid = fidOf(dstParent),
            .dst_short_name = dst};
  }
  std::vector<std::string> said(const FlrJrnRenameRaw& r) {
    const LogCapture log(9);
    db.Rename(r, kAt);
    return log.lines();
  }
  Rows rows() { return committedFiles(std::string("INODE,PINODE,NAME,CTIME,") + kStamp); }
  Rows untouched() const {
    return {"1|0|top|3000|3000", "2|0|other|3000|3000", "3|1|a|3000|3000",    "4|1|b|3000|3000",
            "5|1|sub|3000|3000", "6|5|deep|3000|3000",  "7|2|twin|3000|3000", "8|1|link|3000|3000"};
  }
  Rows with(std::initializer_list<std::pair<std::size_t, std::string>> changes) const {
    Rows rows = untouched();
    for (const auto& [inode, row] : changes) rows[inode - 1] = row;
    std::erase(rows, "");
    return rows;
  }
};

TEST_F(Rename, MovesTheRowAndStampsItWithTheRecordsTime) {
  EXPECT_THAT(said(record('A', 'T', "a", 'O', "z")),
              ElementsAre("debug 6 " + kTag + "Renaming Source. Inode[3]"));
  EXPECT_EQ(rows(), with({{3, "3|2|z|5000|5000"}}));
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID").at(2), "3|3") << "the identifier stays";
}

TEST_F(Rename, TheOldNameOfTheOnlyRowIsNotCompared) {
  db.Rename(record('A', 'X', "something else", 'O', "z"), kAt);
  EXPECT_EQ(rows(), with({{3, "3|2|z|5000|5000"}}));
}

TEST_F(Rename, UnderAnUnknownParentMovesToInodeZero) {
  db.Rename(record('A', 'T', "a", 'X', "z"), kAt);
  EXPECT_EQ(rows(), with({{3, "3|0|z|5000|5000"}}));
}

TEST_F(Rename, OverAnotherFileDropsItsRowsFirst) {
  EXPECT_THAT(said(record('A', 'T', "a", 'T', "b", 'B')),
              ElementsAre("debug 6 " + kTag + "Deleting destination. Inode[4] FidRowId[4]",
                          "debug 6 " + kTag + "Renaming Source. Inode[3]"));
  EXPECT_EQ(rows(), with({{3, "3|1|b|5000|5000"}, {4, ""}}));
  EXPECT_EQ(committedFids("FIDS_ROWID"), (Rows{"1", "2", "3", "5", "6", "7", "8"}));
}

TEST_F(Rename, TheOnlyRowOfAReplacedIdentifierIsDroppedWhateverItsName) {
  db.Rename(record('A', 'T', "a", 'O', "z", 'B'), kAt);
  EXPECT_EQ(rows(), with({{3, "3|2|z|5000|5000"}, {4, ""}}));
}

TEST_F(Rename, AReplacedFolderLosesOnlyItsOwnRow) {
  db.Rename(record('A', 'T', "a", 'T', "sub", 'S'), kAt);
  EXPECT_EQ(rows(), with({{3, "3|1|sub|5000|5000"}, {5, ""}}));
}

TEST_F(Rename, AReplacedHardLinkIsTheOneUnderThatParentAndName) {
  EXPECT_THAT(said(record('A', 'T', "a", 'O', "twin", 'L')).at(0),
              "debug 6 " + kTag + "Deleting destination. Inode[7] FidRowId[7]");
  EXPECT_EQ(rows(), with({{3, "3|2|twin|5000|5000"}, {7, ""}}));
}

TEST_F(Rename, AReplacedHardLinkThatIsNotThereIsInconsistent) {
  const LogCapture log(0);
  expectFailure(1, 0, kRefused,
                [&] { db.Rename(record('A', 'T', "a", 'O', "no twin", 'L'), kAt); });
  EXPECT_TRUE(log.mentions("Could not find an entry with ParentInode[2] ShortName[no twin]"));
  EXPECT_TRUE(log.mentions("error 0 " + kTag + "eRRoR -- "));
  EXPECT_EQ(rows(), untouched());
}

TEST_F(Rename, AnUnknownReplacedIdentifierIsInconsistent) {
  const LogCapture log(0);
  expectFailure(1, 0, kRefused, [&] { db.Rename(record('A', 'T', "a", 'O', "z", 'X'), kAt); });
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 " + kTag +
                              "Could not find an entry with "
                              "dst_fid[585858585858585858585858585858585858585858585858]",
                          "error 0 " + kTag +
                              "eRRoR -- Function[DCSqliteDB :: Rename] Type[1] Error[0] DB "
                              "Inconsistent"));
  EXPECT_EQ(rows(), untouched());
}

TEST_F(Rename, AReplacedIdentifierWithoutARowOfItsOwnIsInconsistent) {
  fidsSql("UPDATE FIDS SET FILES_ROWID=0 WHERE FIDS_ROWID=4");
  const LogCapture log(6);
  expectFailure(1, 0, kRefused, [&] { db.Rename(record('A', 'T', "a", 'T', "b", 'B'), kAt); });
  EXPECT_EQ(log.lines().at(0), "debug 6 " + kTag + "Deleting destination. Inode[0] FidRowId[4]");
  EXPECT_EQ(log.lines().at(1),
            "error 0 " + kTag +
                "Could not find the Inode corresponding to "
                "dst_par_fid[545454545454545454545454545454545454545454545454] dst_short_name[b] "
                "dst_fid[424242424242424242424242424242424242424242424242]");
  EXPECT_EQ(rows(), untouched());
}

TEST_F(Rename, AReplacedHardLinkWithoutAnIdentifierRowIsInconsistent) {
  filesSql("UPDATE FILES SET FID_ROWID=0 WHERE INODE=7");
  expectFailure(1, 0, kRefused, [&] { db.Rename(record('A', 'T', "a", 'O', "twin", 'L'), kAt); });
  EXPECT_EQ(rows(), untouched());
}

TEST_F(Rename, ToItselfDeletesNothingAndStampsTheRow) {
  EXPECT_THAT(said(record('A', 'T', "a", 'T', "a", 'A')),
              ElementsAre(kAsItself, "debug 6 " + kTag + "Renaming Source. Inode[3]"));
  EXPECT_EQ(rows(), with({{3, "3|1|a|5000|5000"}}));
}

TEST_F(Rename, ToItselfWithoutAReplacedIdentifierIsNotRemarkedOn) {
  EXPECT_THAT(said(record('A', 'T', "a", 'T', "a")),
              ElementsAre("debug 6 " + kTag + "Renaming Source. Inode[3]"));
  EXPECT_EQ(rows(), with({{3, "3|1|a|5000|5000"}}));
}

TEST_F(Rename, ToTheSameNameInAnotherFolderIsNotToItself) {
  EXPECT_THAT(said(record('A', 'T', "a", 'O', "a", 'B')),
              testing::Not(testing::Contains(kAsItself)));
  EXPECT_EQ(rows(), with({{3, "3|2|a|5000|5000"}, {4, ""}}));
}

TEST_F(Rename, AnyDestinationFlagButZeroIsTrue) {
  FlrJrnRenameRaw r = record('A', 'T', "a", 'T', "b", 'B');
  r.dst_fid_valid = 256;
  db.Rename(r, kAt);
  EXPECT_EQ(rows(), with({{3, "3|1|b|5000|5000"}, {4, ""}}));
}

TEST_F(Rename, AnUnknownSourceIsInconsistentAndTheDestinationStaysDeleted) {
  const LogCapture log(0);
  expectFailure(1, 0, kRefused, [&] { db.Rename(record('X', 'T', "a", 'T', "b", 'B'), kAt); });
  EXPECT_EQ(log.lines().at(0), "error 0 " + kTag +
                                   "Could not find an entry with "
                                   "src_fid[585858585858585858585858585858585858585858585858]");
  EXPECT_EQ(rows(), with({{4, ""}}));
}

TEST_F(Rename, OfOneOfTwoHardLinksMovesTheOneUnderThatParentAndName) {
  EXPECT_THAT(said(record('L', 'T', "link", 'O', "z")),
              ElementsAre("debug 6 " + kTag + "Renaming Source. Inode[8]"));
  EXPECT_EQ(rows(), with({{8, "8|2|z|5000|5000"}}));
}

TEST_F(Rename, OfAHardLinkThatIsNotThereIsInconsistent) {
  expectFailure(1, 0, kRefused, [&] { db.Rename(record('L', 'X', "link", 'O', "z"), kAt); });
  EXPECT_EQ(rows(), untouched());
}

TEST_F(Rename, ASourceWithoutARowOfItsOwnIsInconsistent) {
  fidsSql("UPDATE FIDS SET FILES_ROWID=0 WHERE FIDS_ROWID=3");
  const LogCapture log(0);
  expectFailure(1, 0, kRefused, [&] { db.Rename(record('A', 'T', "a", 'O', "z"), kAt); });
  EXPECT_TRUE(log.mentions("Could not find an entry with Inode:0"));
}

TEST_F(Rename, OfAHardLinkWhoseRowIsNumberZeroIsInconsistent) {
  filesSql("UPDATE FILES SET INODE=0 WHERE INODE=8");
  fidsSql("UPDATE FIDS SET FILES_ROWID=0 WHERE FIDS_ROWID=8");
  const LogCapture log(6);
  expectFailure(1, 0, kRefused, [&] { db.Rename(record('L', 'T', "link", 'O', "z"), kAt); });
  EXPECT_EQ(log.lines().at(0), "debug 6 " + kTag + "Renaming Source. Inode[0]");
  EXPECT_EQ(log.lines().at(1),
            "error 0 " + kTag +
                "Could not find the Inode corresponding to "
                "src_par_fid[545454545454545454545454545454545454545454545454] "
                "src_short_name[link] src_fid[4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c4c]");
}

TEST_F(Rename, OfAFolderStampsAllBelowItWithTheTimeOfTheMove) {
  db.Rename(record('S', 'T', "sub", 'O', "moved"), kAt);
  EXPECT_EQ(rows(), with({{5, "5|2|moved|5000|5000"}, {6, "6|5|deep|3000|now"}}));
  EXPECT_NE(db.constructTime, 4444) << "the stamp of the move";
}

TEST_F(Rename, OfAFileLeavesTheStampOfMovesAlone) {
  db.Rename(record('A', 'T', "a", 'O', "z"), kAt);
  EXPECT_EQ(db.constructTime, 4444);
}

TEST_F(Rename, OfAFolderThatHasTwoRowsStampsAllBelowTheOneThatMoved) {
  insert("again", 'S', kDirectory, 2);  // row 9
  db.Rename(record('S', 'T', "sub", 'O', "moved"), kAt);
  EXPECT_EQ(rows().at(5), "6|5|deep|3000|now");
}

TEST_F(Rename, IntoAFolderBelowItselfEnds) {
  insert("below", 'W', kDirectory, 5);  // row 9, in sub
  db.Rename(record('S', 'T', "sub", 'W', "loop"), kAt);
  EXPECT_EQ(rows().at(4), "5|9|loop|5000|now") << "it is a child of what lies below it now";
}

TEST_F(Rename, FailingToMoveKeepsTheDestinationDeleted) {
  refuseUpdateOf(3);
  const LogCapture log(0);
  expectRefusal([&] { db.Rename(record('A', 'T', "a", 'T', "b", 'B'), kAt); });
  EXPECT_EQ(rows(), with({{4, ""}}));
  EXPECT_THAT(log.lines(), ElementsAre(testing::StartsWith("error 0 " + kTag + "eRRoR -- ")));
}

TEST_F(Rename, FailingBelowTheFolderKeepsTheMove) {
  refuseUpdateOf(6);
  expectRefusal([&] { db.Rename(record('S', 'T', "sub", 'O', "moved"), kAt); });
  EXPECT_EQ(rows(), with({{5, "5|2|moved|5000|5000"}}));
}

TEST_F(Rename, SaysNothingWhenNobodyReads) {
  const LogCapture log(5);
  db.Rename(record('A', 'T', "a", 'T', "b", 'B'), kAt);
  EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
