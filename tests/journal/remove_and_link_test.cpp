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

constexpr char kInconsistent[] = "DB Inconsistent";

// Two folders and a file with three names:
//   1 top T    2 a A in top    3 b A in top    4 other O    5 c A in other
struct Names : kddc::test::JournalTest {
  Names() {
    insert("top", 'T', kDirectory, 0);
    insert("a", 'A', kRegular, 1);
    insert("b", 'A', kRegular, 1);
    insert("other", 'O', kDirectory, 0);
    insert("c", 'A', kRegular, 4);
  }
  Rows rows() { return committedFiles("INODE,NAME,NLINK,CTIME,TIME"); }
  const Rows kUntouched = {"1|top|1|3000|3000", "2|a|1|3000|3000", "3|b|1|3000|3000",
                           "4|other|1|3000|3000", "5|c|1|3000|3000"};
};

TEST_F(Names, RemovingOneOfThreeDropsThatRowAndTellsTheOthers) {
  db.Remove({fidOf('T'), "b", fidOf('A'), 2}, kAt);
  EXPECT_EQ(rows(), (Rows{"1|top|1|3000|3000", "2|a|2|5000|5000", "4|other|1|3000|3000",
                          "5|c|2|5000|5000"}));
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID"), (Rows{"1|1", "2|2", "4|4", "5|5"}));
}

TEST_F(Names, RemovingTheLastDropsTheRowOfTheIdentifierWhateverTheName) {
  insert("single", 'S', kRegular, 1);
  db.Remove({fidOf('X'), "no such name", fidOf('S'), 0}, kAt);
  EXPECT_EQ(rows(), kUntouched);
  EXPECT_EQ(committedFids("FIDS_ROWID"), (Rows{"1", "2", "3", "4", "5"}));
}

TEST_F(Names, RemovingTheLastOfAnIdentifierWithSeveralRowsDropsTheOneReadLast) {
  db.Remove({fidOf('T'), "a", fidOf('A'), 0}, kAt);
  EXPECT_EQ(committedFiles("NAME"), (Rows{"top", "a", "b", "other"}));
}

TEST_F(Names, RemovingTheLastOfAnUnknownIdentifierIsNoFailure) {
  const LogCapture log(9);
  db.Remove({fidOf('T'), "a", fidOf('X'), 0}, kAt);
  EXPECT_EQ(rows(), kUntouched);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Names, RemovingANameThatIsNotThereWhileLinksRemainIsInconsistent) {
  const LogCapture log(0);
  expectFailure(1, 0, kInconsistent, [&] {
    db.Remove({fidOf('T'), "missing", fidOf('A'), 1}, kAt);
  });
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 DCSqliteDB :: Remove: Could not find an entry with Pinode:1 "
                          "and name:missing",
                          "error 0 DCSqliteDB :: Remove: eRRoR -- Function[DCSqliteDB :: Remove] "
                          "Type[1] Error[0] DB Inconsistent"));
  EXPECT_EQ(rows(), kUntouched);
}

TEST_F(Names, RemovingUnderAnUnknownParentLooksUnderInodeZero) {
  const LogCapture log(0);
  expectFailure(1, 0, kInconsistent, [&] { db.Remove({fidOf('X'), "a", fidOf('A'), 1}, kAt); });
  EXPECT_TRUE(log.mentions("Could not find an entry with Pinode:0 and name:a"));
  db.Remove({fidOf('X'), "top", fidOf('T'), 1}, kAt);
  EXPECT_EQ(committedFiles("NAME"), (Rows{"a", "b", "other", "c"}));
}

TEST_F(Names, RemovingFailsHalfWayWithTheNameGoneAndTheFirstRowUpdated) {
  refuseUpdateOf(5);
  const LogCapture log(0);
  expectRefusal([&] { db.Remove({fidOf('T'), "b", fidOf('A'), 2}, kAt); });
  EXPECT_EQ(rows(), (Rows{"1|top|1|3000|3000", "2|a|2|5000|5000", "4|other|1|3000|3000",
                          "5|c|1|3000|3000"}));
  EXPECT_THAT(log.lines(),
              ElementsAre(testing::StartsWith("error 0 DCSqliteDB :: UpdateNlinkCtimeTime: eRRoR"),
                          testing::StartsWith("error 0 DCSqliteDB :: Remove: eRRoR -- ")));
}

TEST_F(Names, RemovingAFolderLeavesItsChildren) {
  const LogCapture log(9);
  db.RemoveDir({fidOf('T'), fidOf('X'), "ignored"}, kAt);
  EXPECT_EQ(committedFiles("PINODE,NAME"), (Rows{"1|a", "1|b", "0|other", "4|c"}));
  EXPECT_EQ(committedFids("FIDS_ROWID"), (Rows{"2", "3", "4", "5"}));
  EXPECT_FALSE(log.mentions("DeleteEntry"));
}

TEST_F(Names, RemovingAnUnknownFolderTouchesNothing) {
  db.RemoveDir({fidOf('X'), fidOf('T'), "a"}, kAt);
  EXPECT_EQ(rows(), kUntouched);
}

TEST_F(Names, RemovingAFolderFailsUnderItsOwnTag) {
  filesSql("DROP TABLE FILES");
  const LogCapture log(0);
  expectFailure(3, SQLITE_ERROR, "Could not prepeare the Remove Inode query", [&] {
    db.RemoveDir({fidOf('T'), fidOf('X'), ""}, kAt);
  });
  EXPECT_TRUE(log.mentions("error 0 DCSqliteDB :: RemoveDir: eRRoR -- "));
}

TEST_F(Names, ALinkCopiesTheStatFieldsAndEveryNameGetsTheNewCount) {
  insert("single", 'S', kRegular, 1);
  filesSql("UPDATE FILES SET SIZE=12,BLOCKSUSED=3,FILE_TYPE=8 WHERE INODE=6");
  db.CreateLink({fidOf('S'), fidOf('O'), "second"}, kAt);
  EXPECT_EQ(committedFiles("PINODE,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME,"
                           "FILE_TYPE,NAME")
                .at(6),
            "4|33188|2|501|20|12|3|1000|2000|5000|5000|0|second");
  EXPECT_EQ(rows().at(5), "6|single|2|5000|5000");
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID,FID1=91617345360723").at(6), "7|7|1");
}

TEST_F(Names, AFourthNameIsCountedOnAllOfThem) {
  db.CreateLink({fidOf('A'), fidOf('T'), "d"}, kAt);
  EXPECT_EQ(rows(), (Rows{"1|top|1|3000|3000", "2|a|4|5000|5000", "3|b|4|5000|5000",
                          "4|other|1|3000|3000", "5|c|4|5000|5000", "6|d|4|5000|5000"}));
}

TEST_F(Names, ALinkOfAnUnknownFileUnderAnUnknownParentIsARowOfItsOwn) {
  db.CreateLink({fidOf('X'), fidOf('Y'), "strange"}, kAt);
  EXPECT_EQ(committedFiles("PINODE,MODE,NLINK,SIZE,ATIME,CTIME,FILE_TYPE,NAME").at(5),
            "0|0|1|0|0|5000|7|strange");
}

TEST_F(Names, ALinkFailsHalfWayWithTheNewRowThere) {
  refuseUpdateOf(3);
  const LogCapture log(0);
  expectRefusal([&] { db.CreateLink({fidOf('A'), fidOf('T'), "d"}, kAt); });
  EXPECT_EQ(rows(), (Rows{"1|top|1|3000|3000", "2|a|4|5000|5000", "3|b|1|3000|3000",
                          "4|other|1|3000|3000", "5|c|1|3000|3000", "6|d|4|5000|5000"}));
  EXPECT_TRUE(log.mentions("error 0 DCSqliteDB :: CreateLink: eRRoR -- "));
}

TEST_F(Names, TimesAreKeptAs32Bits) {
  EXPECT_EQ(db.UpdateNlinkCtimeTime(2, 4000000000, 9), SQLITE_OK);
  EXPECT_EQ(db.UpdateCtimeTime(3, 4000000000), SQLITE_OK);
  EXPECT_EQ(rows().at(1), "2|a|9|-294967296|-294967296");
  EXPECT_EQ(rows().at(2), "3|b|1|-294967296|-294967296");
}

}  // namespace
