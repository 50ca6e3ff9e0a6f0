// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "tests/support/journal_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::expectRefusal;
using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

const std::string kExecuting = "debug 6 DCSqliteDB :: SetAttr: Executing : ";
const std::string kUtime = "debug 6 DCSqliteDB :: SetAttr: Sent by a call to utime";
const std::string kAuto = "debug 6 DCSqliteDB :: SetAttr: Auto generated Ctime update";

// A file with two names, rows 1 and 2 of identifier A, and another file.
struct SetAttr : kddc::test::JournalTest {
  FlrJrnSetAttrRaw r{};

  SetAttr() {
    insert("one", 'A', kRegular, 0);
    insert("two", 'A', kRegular, 0);
    insert("other", 'B', kRegular, 0);
    r.fid = fidOf('A');
    r.mode = 0100600;
    r.uid = 7;
    r.gid = 8;
    r.atime.tv_sec = 41;
    r.mtime.tv_sec = 42;
    r.ctime.tv_sec = 43;
    r.size = 44;
    r.blocks = 45;
  }
  // What SetAttr logs, at every level, when the record's time is kAt.
  std::vector<std::string> said(int time = kAt) {
    const LogCapture log(9);
    db.SetAttr(r, time);
    return log.lines();
  }
  Rows rows() { return committedFiles(std::string("ATIME,MTIME,CTIME,") + kStamp); }
};

TEST_F(SetAttr, OfAnUnknownIdentifierIsDroppedWithoutAWord) {
  r.fid = fidOf('X');
  r.mode_valid = 1;
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_EQ(rows(), (Rows{"1000|2000|3000|3000", "1000|2000|3000|3000", "1000|2000|3000|3000"}));
}

TEST_F(SetAttr, WithoutAnyFlagIsAnUpdateOfTheAccessTimeOfEveryNameAndLeavesTime) {
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_EQ(rows(), (Rows{"41|2000|3000|3000", "41|2000|3000|3000", "1000|2000|3000|3000"}));
}

TEST_F(SetAttr, OfTheAccessTimeAloneLeavesTime) {
  r.atime_valid = 1;
  EXPECT_THAT(said(), IsEmpty());
  EXPECT_EQ(rows()[0], "41|2000|3000|3000");
}

TEST_F(SetAttr, OfEveryAttributeWritesThemInThisOrder) {
  r.mode_valid = r.uid_valid = r.gid_valid = r.atime_valid = r.mtime_valid = r.ctime_valid =
      r.size_valid = r.blocks_valid = 1;
  const std::string head =
      "UPDATE FILES SET MODE=33152 , UID=7 , GID=8 , ATIME=41 , MTIME=42 , CTIME=43 , SIZE=44 , "
      "BLOCKSUSED=45 ,  TIME=[0-9]+ WHERE INODE=";
  EXPECT_THAT(said(), ElementsAre(MatchesRegex(kExecuting + head + "1 "),
                                  MatchesRegex(kExecuting + head + "2 ")));
  EXPECT_EQ(committedFiles(std::string("MODE,UID,GID,ATIME,MTIME,CTIME,SIZE,BLOCKSUSED,") + kStamp),
            (Rows{"33152|7|8|41|42|43|44|45|now", "33152|7|8|41|42|43|44|45|now",
                  "33188|501|20|1000|2000|3000|4096|8|3000"}));
}

TEST_F(SetAttr, OfNewerAccessAndModificationTimesMarksTheRowAndLeavesCtime) {
  r.atime_valid = r.mtime_valid = 1;
  r.mtime.tv_sec = kAt;
  EXPECT_THAT(said(),
              ElementsAre(MatchesRegex(kExecuting + "UPDATE FILES SET ATIME=41 , MTIME=5000 ,  "
                                                    "TIME=[0-9]+ WHERE INODE=1 "),
                          testing::EndsWith("INODE=2 ")));
  EXPECT_EQ(rows(), (Rows{"41|5000|3000|now", "41|5000|3000|now", "1000|2000|3000|3000"}));
}

TEST_F(SetAttr, OfAModificationTimeInThePastIsAUtimeAndSetsCtimeInsteadOfTime) {
  r.atime_valid = r.mtime_valid = 1;
  r.mtime.tv_sec = kAt - 1;
  const std::string head =
      kExecuting + "UPDATE FILES SET ATIME=41 , MTIME=4999 ,  CTIME=5000 WHERE INODE=";
  EXPECT_THAT(said(), ElementsAre(kUtime, head + "1 ", head + "2 "));
  EXPECT_EQ(rows(), (Rows{"41|4999|5000|3000", "41|4999|5000|3000", "1000|2000|3000|3000"}));
}

TEST_F(SetAttr, OfAUtimeThatBringsItsChangeTimeEndsInAnAssignmentOfNothing) {
  r.mtime_valid = r.ctime_valid = 1;
  const std::string head =
      kExecuting + "UPDATE FILES SET MTIME=42 , CTIME=43 ,  NLINK=NLINK WHERE INODE=";
  EXPECT_THAT(said(), ElementsAre(kUtime, head + "1 ", head + "2 "));
  EXPECT_EQ(rows(), (Rows{"1000|42|43|3000", "1000|42|43|3000", "1000|2000|3000|3000"}));
}

TEST_F(SetAttr, OfAnOldModificationTimeBesideAnotherAttributeIsNoUtime) {
  for (unsigned char FlrJrnSetAttrRaw::*flag :
       {&FlrJrnSetAttrRaw::mode_valid, &FlrJrnSetAttrRaw::uid_valid, &FlrJrnSetAttrRaw::gid_valid,
        &FlrJrnSetAttrRaw::size_valid, &FlrJrnSetAttrRaw::blocks_valid}) {
    FlrJrnSetAttrRaw record = r;
    record.mtime_valid = record.*flag = 1;
    const LogCapture log(6);
    db.SetAttr(record, kAt);
    EXPECT_EQ(log.lines()[0], kAuto);
    EXPECT_FALSE(log.mentions("utime"));
    EXPECT_EQ(rows()[0], "1000|42|5000|now");
  }
}

TEST_F(SetAttr, OfTheModeAloneTakesTheRecordsTimeAsCtime) {
  r.mode_valid = 1;
  const std::string text =
      kExecuting + "UPDATE FILES SET MODE=33152 , CTIME=5000 ,  TIME=[0-9]+ WHERE INODE=";
  EXPECT_THAT(said(), ElementsAre(kAuto, MatchesRegex(text + "1 "), MatchesRegex(text + "2 ")));
  EXPECT_EQ(rows()[1], "1000|2000|5000|now");
}

TEST_F(SetAttr, OfTheChangeTimeAloneMarksTheRow) {
  r.ctime_valid = 1;
  EXPECT_THAT(said(), ElementsAre(MatchesRegex(kExecuting + "UPDATE FILES SET CTIME=43 ,  "
                                                            "TIME=[0-9]+ WHERE INODE=1 "),
                                  testing::_));
  EXPECT_EQ(rows()[0], "1000|2000|43|now");
}

TEST_F(SetAttr, AFlagOfTwoIsMoreThanAnAccessTimeButWritesNothing) {
  r.mode_valid = r.mtime_valid = r.ctime_valid = 2;
  r.atime_valid = 255;
  EXPECT_THAT(said(), ElementsAre(MatchesRegex(kExecuting + "UPDATE FILES SET  TIME=[0-9]+ WHERE "
                                                            "INODE=1 "),
                                  testing::_));
  EXPECT_EQ(rows()[0], "1000|2000|3000|now");
}

TEST_F(SetAttr, OfAUtimeIsNotHiddenByFlagsOfTwo) {
  r.mtime_valid = 1;
  r.size_valid = r.ctime_valid = 2;
  EXPECT_EQ(said()[0], kUtime);
  EXPECT_EQ(rows()[0], "1000|42|5000|3000");
}

TEST_F(SetAttr, TimesAreComparedAsSignedNumbers) {
  r.mtime_valid = 1;
  r.mtime.tv_sec = -1;
  EXPECT_EQ(said(0)[0], kUtime);
  r.mtime.tv_sec = 1500000000;
  EXPECT_THAT(said(-294967296)[0], testing::HasSubstr(" TIME="))
      << "a record of the year 2096 has a negative time";
}

TEST_F(SetAttr, NumbersAreWrittenUnsigned) {
  r.mode_valid = r.uid_valid = 1;
  r.mode = 4294967295;
  r.uid = 18446744073709551615ULL;
  const LogCapture log(6);
  db.SetAttr(r, -1);
  EXPECT_TRUE(log.mentions("SET MODE=4294967295 , UID=18446744073709551615 , CTIME=4294967295 , "));
}

TEST_F(SetAttr, FailingHalfWayKeepsTheNamesBeforeAndLeavesThoseBehind) {
  insert("three", 'A', kRegular, 0);
  refuseUpdateOf(2);
  r.mode_valid = r.ctime_valid = 1;
  const LogCapture log(0);
  expectRefusal([&] { db.SetAttr(r, kAt); });
  EXPECT_THAT(log.lines(),
              testing::Contains(testing::StartsWith("error 0 DCSqliteDB :: SetAttr: eRRoR -- ")));
  EXPECT_EQ(committedFiles("INODE,MODE,CTIME"),
            (Rows{"1|33152|43", "2|33188|3000", "3|33188|3000", "4|33188|3000"}));
}

TEST_F(SetAttr, FindsItsRowsAlsoWithoutTheIndex) {
  fidsSql("DROP INDEX IN_FID");
  r.ctime_valid = 1;
  db.SetAttr(r, kAt);
  EXPECT_EQ(rows()[0], "1000|2000|43|now");
}

struct Marks : SetAttr {
  Rows rows() { return committedFiles(std::string("FILE_TYPE,CTIME,") + kStamp); }
};

TEST_F(Marks, AnAdditionalAttributeStampsEveryNameWithTheRecordsTime) {
  const fsf_fid a = fidOf('A');
  db.SetAdditionalAttr(&a, kAt);
  EXPECT_EQ(rows(), (Rows{"0|5000|5000", "0|5000|5000", "0|3000|3000"}));
}

TEST_F(Marks, AStubGetsItsTypeTheRecordsTimeAsCtimeAndIsMarkedNow) {
  db.Stub({fidOf('A'), "meta"}, kAt);
  EXPECT_EQ(rows(), (Rows{"8|5000|now", "8|5000|now", "0|3000|3000"}));
}

TEST_F(Marks, AnUnstubTakesTheTypeBackAndLeavesCtime) {
  db.Stub({fidOf('A'), "meta"}, kAt);
  filesSql("UPDATE FILES SET TIME=3000");
  db.UnStub({fidOf('A')}, 6000);
  EXPECT_EQ(rows(), (Rows{"0|5000|now", "0|5000|now", "0|3000|3000"}));
}

TEST_F(Marks, AnUnknownIdentifierChangesNothingAndIsNoFailure) {
  const fsf_fid unknown = fidOf('X');
  const LogCapture log(9);
  db.SetAdditionalAttr(&unknown, kAt);
  db.Stub({unknown, ""}, kAt);
  db.UnStub({unknown}, kAt);
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_EQ(rows(), (Rows{"0|3000|3000", "0|3000|3000", "0|3000|3000"}));
}

TEST_F(Marks, FailingHalfWayKeepTheNamesBeforeAndLeaveThoseBehind) {
  const fsf_fid a = fidOf('A');
  refuseUpdateOf(2);
  const LogCapture log(0);
  expectRefusal([&] { db.Stub({a, ""}, kAt); });
  expectRefusal([&] { db.SetAdditionalAttr(&a, 6000); });
  EXPECT_EQ(rows(), (Rows{"8|6000|6000", "0|3000|3000", "0|3000|3000"}));
  expectRefusal([&] { db.UnStub({a}, kAt); });
  EXPECT_EQ(rows()[0], "0|6000|now");
  for (const char* tag : {"DCSqliteDb :: Stub", "DCSqliteDB :: SetAdditionalAttr",
                          "DCSqliteDB :: UpdateCtimeTime", "DCSqliteDB :: UnStub"})
    EXPECT_TRUE(log.mentions(std::string("error 0 ") + tag + ": eRRoR -- ")) << tag;
}

}  // namespace
