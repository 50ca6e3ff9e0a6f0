// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a record of attributes or of a link count does to the rows of its file.
#include <gmock/gmock.h>

#include "platform/exceptions.h"
#include "tests/support/settle_attributes_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(SettleAttributesTest, ARecordThatSaysWhatTheRowSaysChangesNothing) {
  const auto before = settle.counts().unchanged;
  EXPECT_EQ(attributesOf('A', {}), Result::kNothing);
  EXPECT_THAT(everything(), ElementsAre("33188|1|501|20|10|8|1000|2000|3000|3500"));
  EXPECT_EQ(settle.counts().unchanged, before + 1);
  EXPECT_EQ(settle.counts().changed, 0u);
}

TEST_F(SettleAttributesTest, TimesAreComparedAsTheyAreStoredIn32Bits) {
  constexpr long kEra = 1L << 32;
  EXPECT_EQ(attributesOf('A', {.mtime = 2000 + kEra, .ctime = 3000 + kEra, .atime = 1000 + kEra}),
            Result::kNothing);
  EXPECT_THAT(everything(), ElementsAre("33188|1|501|20|10|8|1000|2000|3000|3500"));
}

TEST_F(SettleAttributesTest, AnAccessTimeAloneIsWrittenAndLeavesTime) {
  EXPECT_EQ(attributesOf('A', {.atime = 1500}), Result::kApplied);
  EXPECT_THAT(everything(), ElementsAre("33188|1|501|20|10|8|1500|2000|3000|3500"));
  EXPECT_EQ(settle.counts().changed, 0u);
}

TEST_F(SettleAttributesTest, BlocksAloneAreWrittenAndLeaveTime) {
  EXPECT_EQ(attributesOf('A', {.blocks = 16}), Result::kApplied);
  EXPECT_THAT(everything(), ElementsAre("33188|1|501|20|10|16|1000|2000|3000|3500"));
  EXPECT_EQ(settle.counts().changed, 0u);
}

TEST_F(SettleAttributesTest, EachOtherAttributeIsAChangeOfThatTime) {
  attributesOf('A', {.mode = 0100600, .ctime = 4001});
  EXPECT_THAT(everything(), ElementsAre("33152|1|501|20|10|8|1000|2000|4001|4001"));
  attributesOf('A', {.mode = 0100600, .ctime = 4002, .uid = 7});
  EXPECT_THAT(everything(), ElementsAre("33152|1|7|20|10|8|1000|2000|4002|4002"));
  attributesOf('A', {.mode = 0100600, .ctime = 4003, .uid = 7, .gid = 8});
  EXPECT_THAT(everything(), ElementsAre("33152|1|7|8|10|8|1000|2000|4003|4003"));
  attributesOf('A', {.mode = 0100600, .size = 11, .ctime = 4004, .uid = 7, .gid = 8});
  EXPECT_THAT(everything(), ElementsAre("33152|1|7|8|11|8|1000|2000|4004|4004"));
  attributesOf('A', {.mode = 0100600, .size = 11, .mtime = 1, .ctime = 4005, .uid = 7, .gid = 8});
  EXPECT_THAT(everything(), ElementsAre("33152|1|7|8|11|8|1000|1|4005|4005"));
  EXPECT_EQ(settle.counts().changed, 5u);
}

TEST_F(SettleAttributesTest, AChangeTimeAloneRaisesTimeToIt) {
  EXPECT_EQ(attributesOf('A', {.ctime = 4000}), Result::kApplied);
  EXPECT_THAT(everything(), ElementsAre("33188|1|501|20|10|8|1000|2000|4000|4000"));
  EXPECT_EQ(settle.counts().changed, 1u);
}

TEST_F(SettleAttributesTest, AChangeTimeBeforeTimeRaisesTimeAllTheSame) {
  EXPECT_EQ(attributesOf('A', {.ctime = 3400}), Result::kApplied);
  EXPECT_THAT(times(), ElementsAre("3400|now"));
}

TEST_F(SettleAttributesTest, AChangeThatIsOlderThanTheWatchIsOneOfNow) {
  db.openTime = 5000;
  EXPECT_EQ(attributesOf('A', {.ctime = 4000}), Result::kApplied);
  EXPECT_THAT(times(), ElementsAre("4000|now"));
  attributesOf('A', {.size = 11, .ctime = 4500});
  EXPECT_THAT(times(), ElementsAre("4500|now"));
}

TEST_F(SettleAttributesTest, AChangeGoesToEveryNameOfTheFile) {
  giveFurtherName();
  attributesOf('A', {.links = 2, .ctime = 4000});
  EXPECT_THAT(times(), ElementsAre("4000|4000", "4000|4000"));
  attributesOf('A', {.links = 2, .ctime = 3900});
  EXPECT_THAT(times(), ElementsAre("3900|now", "3900|now"));
  attributesOf('A', {.links = 2, .ctime = 3900, .blocks = 24});
  written();
  EXPECT_THAT(DatabaseView(filesPath).rows("SELECT BLOCKSUSED FROM FILES WHERE INODE>1"),
              ElementsAre("24", "24"));
}

TEST_F(SettleAttributesTest, AFileThatIsNotKnownIsOutside) {
  EXPECT_EQ(attributesOf('X', {}), Result::kNothing);
  EXPECT_EQ(settle.counts().outside, 1u);
  EXPECT_THAT(everything(), ElementsAre("33188|1|501|20|10|8|1000|2000|3000|3500"));
}

TEST_F(SettleAttributesTest, WhatAListingFindsIsOfNowHoweverOldItIs) {
  present('R', "b", 'B', {.listed = true});
  EXPECT_THAT(times(), ElementsAre("3000|3500", "3000|now"));
  attributesOf('B', {.ctime = 2'000'000'000});
  EXPECT_THAT(times(), ElementsAre("3000|3500", "2000000000|2000000000"));
}

// Link counts. ------------------------------------------------------------------------------------

TEST_F(SettleAttributesTest, ALinkCountIsHeldBackAndWrittenOnce) {
  run("CREATE TABLE WRITTEN(NLINK)");
  run("CREATE TRIGGER noteLinks AFTER UPDATE ON FILES BEGIN INSERT INTO WRITTEN "
      "VALUES(NEW.NLINK); END");
  EXPECT_EQ(attributesOf('A', {.links = 2}), Result::kApplied);
  EXPECT_EQ(attributesOf('A', {.links = 5}), Result::kApplied);
  EXPECT_EQ(attributesOf('A', {.links = 5}), Result::kNothing) << "that was said";
  db.Commit();
  EXPECT_THAT(links(), ElementsAre("1"));
  written();
  EXPECT_THAT(links(), ElementsAre("5"));
  EXPECT_THAT(DatabaseView(filesPath).rows("SELECT * FROM WRITTEN"), ElementsAre("5"));
}

TEST_F(SettleAttributesTest, ALinkCountThatIsAsBeforeInTheEndIsNotWritten) {
  run("CREATE TABLE WRITTEN(NLINK)");
  run("CREATE TRIGGER noteLinks AFTER UPDATE ON FILES BEGIN INSERT INTO WRITTEN "
      "VALUES(NEW.NLINK); END");
  attributesOf('A', {.links = 2});
  attributesOf('A', {.links = 1});
  EXPECT_THAT(everything(), ElementsAre("33188|1|501|20|10|8|1000|2000|3000|3500"));
  EXPECT_THAT(DatabaseView(filesPath).rows("SELECT * FROM WRITTEN"), IsEmpty());
}

TEST_F(SettleAttributesTest, AChangeTimeIsNotLostWithALinkCountThatIsAsBeforeInTheEnd) {
  attributesOf('A', {.links = 2, .ctime = 4000});
  attributesOf('A', {.links = 1, .ctime = 4001});
  EXPECT_THAT(everything(), ElementsAre("33188|1|501|20|10|8|1000|2000|4001|4001"));
}

TEST_F(SettleAttributesTest, ALinkCountBringsItsTimeWhichNeverFalls) {
  attributesOf('A', {.links = 2, .ctime = 4000});
  EXPECT_THAT(times(), ElementsAre("4000|4000"));
  attributesOf('A', {.links = 3, .ctime = 3900});
  EXPECT_THAT(times(), ElementsAre("3900|4000"));
  db.openTime = 5000;
  attributesOf('A', {.links = 4, .ctime = 4100});
  EXPECT_THAT(times(), ElementsAre("4100|now"));
}

TEST_F(SettleAttributesTest, AThousandLinkCountsAreNotHeldBackAnyLonger) {
  EXPECT_EQ(linkCount(fidOf('A'), 20'000), Result::kApplied);
  for (int i = 1; i < 1000; ++i) {
    db.Commit();
    ASSERT_THAT(links(), ElementsAre("1")) << i;
    fsf_fid other = fidOf('B');
    other.data[0] = static_cast<unsigned char>(i);
    other.data[1] = static_cast<unsigned char>(i >> 8);
    linkCount(other, 20'000);
  }
  db.Commit();
  EXPECT_THAT(links(), ElementsAre("20000"));
}

TEST_F(SettleAttributesTest, AMaskThatSaysManyLinksWaitsForTheirCount) {
  EXPECT_EQ(attributesOf('A', {.links = 16383}), Result::kNothing);
  written();
  EXPECT_THAT(links(), ElementsAre("1"));
  EXPECT_EQ(linkCount(fidOf('A'), 16383), Result::kApplied);
  written();
  EXPECT_THAT(links(), ElementsAre("16383"));
}

TEST_F(SettleAttributesTest, AMaskThatSaysManyLinksHidesNoOtherChange) {
  linkCount(fidOf('A'), 20'000);
  EXPECT_EQ(attributesOf('A', {.links = 16383, .ctime = 4100}), Result::kApplied);
  EXPECT_THAT(everything(), ElementsAre("33188|20000|501|20|10|8|1000|2000|4100|4100"));
}

TEST_F(SettleAttributesTest, AMaskThatSaysManyLinksOfAPendingFileWaitsForTheirCountToo) {
  present('R', "b", 'B', {.links = 16383});
  written();
  EXPECT_THAT(links(), ElementsAre("1", "1"));
}

TEST_F(SettleAttributesTest, ALinkCountOfAPendingFileWritesIt) {
  present('R', "b", 'B', {.links = 3});
  written();
  EXPECT_THAT(links(), ElementsAre("1", "3"));
}

TEST_F(SettleAttributesTest, ChangeTimesOfAFileThatGainsNamesWaitForItsLinkCount) {
  giveFurtherName();
  present('R', "c", 'A', {.links = 3, .ctime = 4001});
  EXPECT_EQ(attributesOf('A', {.links = 3, .ctime = 4001}), Result::kApplied);
  attributesOf('A', {.links = 3, .ctime = 4002});
  EXPECT_THAT(DatabaseView(filesPath).rows("SELECT CTIME FROM FILES WHERE INODE=2"),
              ElementsAre("3000"));
  settle.writeHeldBack();
  written();
  EXPECT_THAT(DatabaseView(filesPath).rows("SELECT CTIME FROM FILES WHERE INODE>1"),
              ElementsAre("4002", "4002", "4002"));
}

// Failures. ---------------------------------------------------------------------------------------

TEST_F(SettleAttributesTest, AnUpdateThatFailsIsToldAndCounted) {
  refuseUpdates();
  EXPECT_EQ(attributesOf('A', {.ctime = 4000}), Result::kFailed);
  EXPECT_EQ(attributesOf('A', {.blocks = 16}), Result::kFailed);
  EXPECT_EQ(stub('A'), Result::kFailed);
  EXPECT_EQ(settle.counts().failed, 3u);
  run("DROP TRIGGER refuse");
  EXPECT_EQ(attributesOf('A', {.ctime = 4000}), Result::kApplied);
  EXPECT_EQ(settle.counts().failed, 3u);
}

TEST_F(SettleAttributesTest, ALinkCountThatCannotBeWrittenThrows) {
  attributesOf('A', {.links = 2});
  refuseUpdates();
  EXPECT_THROW(settle.writeHeldBack(), UDCException);
}

}  // namespace
}  // namespace kddc::test
