// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a pending entry comes to in the rows of a known file: which columns, and which TIME.
#include <gmock/gmock.h>

#include <ctime>

#include "tests/support/cumulative_fixture.h"

namespace {

using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::ElementsAre;

const std::string kCount = "debug 4 CumulativeJournal :: UpdateFileAttribs: Count=1";
const std::string kDetail = "debug 6 CumulativeJournal :: UpdateFileAttribs: ";

// A file with two names, rows 1 and 2 of identifier A, and another file.
struct Updating : kddc::test::CumulativeTest {
  FlrJrnSetAttrRaw r = attributesOf('A');

  Updating() {
    insert("one", 'A');
    insert("two", 'A');
    insert("other", 'B');
    r.mode = 0100600;
    r.uid = 7;
    r.gid = 8;
    r.atime.tv_sec = 41;
    r.mtime.tv_sec = 4242;
    r.ctime.tv_sec = 4343;
    r.size = 44;
    r.blocks = 45;
  }
  // What the flush of the record logs.
  std::vector<std::string> said() {
    db.SetAttr(r, kAt);
    const LogCapture log(9);
    db.FlushAllJournals();
    return log.lines();
  }
  // "now" for a TIME that lies less than a minute back.
  Rows rowsNow() {
    return rows(
        "MODE,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,"
        "IIF(ABS(TIME-CAST(strftime('%s','now') AS INTEGER))<60,'now',TIME)");
  }
  void expectBothNames(const std::string& row) {
    EXPECT_EQ(rowsNow(), (Rows{row, row, "33188|501|20|4096|8|1000|2000|3000|3000"}));
  }
};

TEST_F(Updating, AnAccessTimeAloneLeavesTime) {
  r.atime_valid = 1;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "OnlyAtimeValid"));
  expectBothNames("33188|501|20|4096|8|41|2000|3000|3000");
}

TEST_F(Updating, ARecordWithoutFlagsIsAnAccessTimeOfZero) {
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "OnlyAtimeValid"));
  expectBothNames("33188|501|20|4096|8|0|2000|3000|3000");
}

TEST_F(Updating, EveryAttributeIsWrittenToEveryName) {
  r.mode_valid = r.uid_valid = r.gid_valid = r.atime_valid = r.mtime_valid = r.ctime_valid =
      r.size_valid = r.blocks_valid = 1;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[1] Mtime Changed",
                                  kDetail + "DB Inode[1] Regular Journal"));
  expectBothNames("33152|7|8|44|45|41|4242|4343|4343");
}

TEST_F(Updating, WhatWasNotSentComesFromTheRowOfTheFirstName) {
  filesSql("UPDATE FILES SET NLINK=9,UID=99 WHERE INODE=1");
  r.mtime_valid = 1;
  said();
  EXPECT_EQ(rows("NLINK,UID,MTIME,CTIME,TIME"),
            (Rows{"9|99|4242|3000|4242", "9|99|4242|3000|4242", "1|501|2000|3000|3000"}));
}

TEST_F(Updating, TheFileTypeStays) {
  filesSql("UPDATE FILES SET FILE_TYPE=8");
  r.mode_valid = r.ctime_valid = 1;
  r.mode = 040755;
  said();
  EXPECT_EQ(rows("MODE,FILE_TYPE").at(0), "16877|8");
}

TEST_F(Updating, AttributesThatEqualTheRowAreAnAccessTime) {
  r.mode_valid = r.uid_valid = r.gid_valid = r.atime_valid = r.mtime_valid = r.ctime_valid =
      r.size_valid = r.blocks_valid = 1;
  r.mode = 0100644;
  r.uid = 501;
  r.gid = 20;
  r.mtime.tv_sec = 2000;
  r.ctime.tv_sec = 3000;
  r.size = 4096;
  r.blocks = 8;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[1] AtimeJournal"));
  expectBothNames("33188|501|20|4096|8|41|2000|3000|3000");
}

TEST_F(Updating, AttributesThatEqualTheRowWithoutAnAccessTimeSetItToZero) {
  r.size_valid = 1;
  r.size = 4096;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[1] AtimeJournal"));
  expectBothNames("33188|501|20|4096|8|0|2000|3000|3000");
}

TEST_F(Updating, OneOtherAttributeThatDiffersMarksTheRows) {
  for (unsigned char FlrJrnSetAttrRaw::*flag :
       {&FlrJrnSetAttrRaw::mode_valid, &FlrJrnSetAttrRaw::uid_valid, &FlrJrnSetAttrRaw::gid_valid,
        &FlrJrnSetAttrRaw::size_valid, &FlrJrnSetAttrRaw::blocks_valid}) {
    filesSql("UPDATE FILES SET TIME=3000");
    FlrJrnSetAttrRaw one = r;
    one.*flag = one.ctime_valid = 1;
    db.SetAttr(one, kAt);
    const LogCapture log(6);
    db.FlushAllJournals();
    EXPECT_THAT(log.lines(), ElementsAre(kCount, kDetail + "DB Inode[1] Regular Journal"));
    EXPECT_EQ(rows("TIME"), (Rows{"4343", "4343", "3000"}));
  }
  EXPECT_EQ(rowsNow().at(1), "33152|7|8|44|45|1000|2000|4343|4343");
}

TEST_F(Updating, AChangeTimeAloneKeepsTime) {
  r.ctime_valid = r.atime_valid = 1;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[1] UtimeJournal"));
  expectBothNames("33188|501|20|4096|8|41|2000|4343|3000");
}

TEST_F(Updating, AChangeTimeBesideAnAttributeThatStaysKeepsTime) {
  r.ctime_valid = r.mtime_valid = r.size_valid = 1;
  r.mtime.tv_sec = 2000;
  r.size = 4096;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[1] UtimeJournal"));
  expectBothNames("33188|501|20|4096|8|1000|2000|4343|3000");
}

TEST_F(Updating, TheStampIsTheLaterOneOfTheTwoTimes) {
  r.mtime_valid = r.ctime_valid = 1;
  r.mtime.tv_sec = 4444;
  said();
  expectBothNames("33188|501|20|4096|8|1000|4444|4343|4444");
}

TEST_F(Updating, TimesThatWereNotSentCountAsZero) {
  r.mode_valid = 1;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[1] Regular Journal"));
  expectBothNames("33152|501|20|4096|8|1000|2000|3000|now");
}

TEST_F(Updating, AStampBeforeThatOfTheRowIsNow) {
  filesSql("UPDATE FILES SET TIME=4344 WHERE INODE=1");
  r.mode_valid = r.ctime_valid = 1;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[1] Regular Journal"));
  expectBothNames("33152|501|20|4096|8|1000|2000|4343|now");
}

TEST_F(Updating, AStampEqualToThatOfTheRowIsKept) {
  filesSql("UPDATE FILES SET TIME=4343 WHERE INODE=1");
  r.mode_valid = r.ctime_valid = 1;
  said();
  expectBothNames("33152|501|20|4096|8|1000|2000|4343|4343");
}

TEST_F(Updating, TimesBeforeTheOpenAreStampedNow) {
  db.openTime = 4344;
  r.mode_valid = r.mtime_valid = r.ctime_valid = 1;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[1] Mtime Changed",
                                  kDetail + "DB Inode[1] Journal created before DB was opened"));
  expectBothNames("33152|501|20|4096|8|1000|4242|4343|now");
}

TEST_F(Updating, OneTimeThatIsNotBeforeTheOpenIsEnough) {
  db.openTime = 4343;
  r.mode_valid = r.mtime_valid = r.ctime_valid = 1;
  said();
  expectBothNames("33152|501|20|4096|8|1000|4242|4343|4343");
}

TEST_F(Updating, AModificationTimePutIntoThePastMarksTheRows) {
  r.mtime_valid = r.ctime_valid = 1;
  r.mtime.tv_sec = 1;
  said();
  expectBothNames("33188|501|20|4096|8|1000|1|4343|4343");
}

TEST_F(Updating, AChangeBackAndForthIsNone) {
  r.size_valid = r.atime_valid = 1;
  db.SetAttr(r, kAt);
  r.size = 4096;
  EXPECT_THAT(said(), ElementsAre("debug 4 CumulativeJournal :: UpdateFileAttribs: Count=2",
                                  kDetail + "DB Inode[1] AtimeJournal"));
  expectBothNames("33188|501|20|4096|8|41|2000|3000|3000");
}

TEST_F(Updating, AnUnknownFileIsNoFailure) {
  r.fid = fidOf('X');
  r.mode_valid = 1;
  EXPECT_THAT(said(), ElementsAre(kCount));
}

TEST_F(Updating, ARowThatIsLostIsPassedOverForTheNext) {
  db.DeleteInode(1);
  r.size_valid = r.ctime_valid = 1;
  EXPECT_THAT(said(), ElementsAre(kCount, kDetail + "DB Inode[2] Regular Journal"));
  EXPECT_EQ(rows("UID,SIZE,TIME"), (Rows{"501|44|4343", "501|4096|3000"}));
  db.DeleteInode(2);
  EXPECT_THAT(said(), ElementsAre(kCount));
}

TEST_F(Updating, TheResultTellsNothingOfAFailure) {
  DCJrn entry;
  EXPECT_FALSE(db.UpdateFileAttribs(entry)) << "UpdateAtime's 0";
  entry.sizeValid = true;
  EXPECT_TRUE(db.UpdateFileAttribs(entry)) << "no row";
  entry.inodes = {1};
  EXPECT_TRUE(db.UpdateFileAttribs(entry));
  EXPECT_FALSE(db.UpdateFileAttribs(entry)) << "nothing differs any more";
}

TEST_F(Updating, ASpareFlagWouldKeepItOffTheWayOfAccessTimes) {
  DCJrn entry;
  entry.spareValid = entry.atimeValid = true;
  entry.st.st_atime = 41;
  entry.inodes = {1};
  const LogCapture log(9);
  EXPECT_FALSE(db.UpdateFileAttribs(entry));
  EXPECT_THAT(log.lines(), ElementsAre("debug 4 CumulativeJournal :: UpdateFileAttribs: Count=0",
                                       kDetail + "DB Inode[1] AtimeJournal"));
}

}  // namespace
