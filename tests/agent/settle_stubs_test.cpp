// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a record does to the type of a file: stubs come and go, all others keep theirs.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "platform/exceptions.h"
#include "tests/support/settle_attributes_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;

constexpr char kPlain[] = "0", kStubFile[] = "8";

TEST_F(SettleAttributesTest, AKnownFileBecomesAStubAndAPlainFileAgain) {
  EXPECT_EQ(stub('A'), Result::kApplied);
  EXPECT_THAT(types(), ElementsAre(kStubFile));
  EXPECT_EQ(unstub('A'), Result::kApplied);
  EXPECT_THAT(types(), ElementsAre(kPlain));
  EXPECT_EQ(settle.counts().changed, 2u);
}

TEST_F(SettleAttributesTest, AStubThatIsOneAlreadyChangesNothing) {
  stub('A');
  run("UPDATE FILES SET TIME=3500");
  EXPECT_EQ(stub('A'), Result::kNothing);
  EXPECT_THAT(times(), ElementsAre("4000|3500"));
  unstub('A');
  run("UPDATE FILES SET TIME=3500");
  EXPECT_EQ(unstub('A'), Result::kNothing);
  EXPECT_THAT(times(), ElementsAre("4000|3500"));
}

TEST_F(SettleAttributesTest, EveryNameOfAFileBecomesAStub) {
  giveFurtherName();
  stub('A');
  settle.writeHeldBack();
  EXPECT_THAT(types(), ElementsAre(kStubFile, kStubFile));
  unstub('A');
  settle.writeHeldBack();
  EXPECT_THAT(types(), ElementsAre(kPlain, kPlain));
}

// Told with each of a thousand names, it would be looked up in all thousand rows each time.
TEST_F(SettleAttributesTest, WhetherAFileOfSeveralNamesIsAStubIsHeldBack) {
  giveFurtherName();
  EXPECT_EQ(stub('A'), Result::kApplied);
  EXPECT_EQ(unstub('A'), Result::kApplied);
  EXPECT_THAT(types(), ElementsAre(kPlain, kPlain)) << "the last one counts";
  EXPECT_EQ(settle.counts().changed, 0u);
}

TEST_F(SettleAttributesTest, RowsOfWhichOnlySomeAreStubsBecomeEqual) {
  giveFurtherName();
  run("UPDATE FILES SET FILE_TYPE=8 WHERE INODE=3");
  unstub('A');
  settle.writeHeldBack();
  EXPECT_THAT(types(), ElementsAre(kPlain, kPlain));
}

TEST_F(SettleAttributesTest, WhatWasHeldBackIsNotForTheNextFileOfThatIdentifier) {
  giveFurtherName();
  stub('A');
  EXPECT_EQ(linkCount(fidOf('A'), 0), Result::kApplied);
  present('R', "new", 'A');
  settle.writeHeldBack();
  EXPECT_THAT(types(), ElementsAre(kPlain));
}

TEST_F(SettleAttributesTest, APendingFileBecomesAStub) {
  present('R', "b", 'B');
  EXPECT_EQ(stub('B'), Result::kApplied);
  EXPECT_THAT(types(), ElementsAre(kPlain, kStubFile));
}

TEST_F(SettleAttributesTest, APendingFileThatIsNoStubIsNone) {
  present('R', "b", 'B');
  EXPECT_EQ(unstub('B'), Result::kNothing);
  EXPECT_TRUE(db.isPending(fidOf('B'))) << "it need not be written for that";
  EXPECT_THAT(types(), ElementsAre(kPlain, kPlain));
}

TEST_F(SettleAttributesTest, AStubThatIsNotKnownChangesNothing) {
  EXPECT_EQ(stub('X'), Result::kNothing);
  EXPECT_EQ(unstub('X'), Result::kNothing);
  EXPECT_THAT(types(), ElementsAre(kPlain));
}

TEST_F(SettleAttributesTest, AStubKeepsItsRowUnderANewName) {
  stub('A');
  present('R', "b", 'A');
  EXPECT_THAT(written(), ElementsAre("1|0|/volume", "2|1|b"));
  EXPECT_THAT(types(), ElementsAre(kStubFile));
}

TEST_F(SettleAttributesTest, SpecialFilesKeepTheirTypeThoughTheirRecordsAreCoalesced) {
  present('R', "fifo", 'F', {.mode = S_IFIFO | 0600});
  present('R', "chr", 'C', {.mode = S_IFCHR | 0600});
  present('R', "blk", 'B', {.mode = S_IFBLK | 0600});
  present('R', "sock", 'S', {.mode = S_IFSOCK | 0600});
  present('R', "link", 'L', {.mode = S_IFLNK | 0777});
  EXPECT_THAT(written("NAME,FILE_TYPE,MODE"),
              ElementsAre("/volume|1|16877", "a|0|33188", "fifo|5|4480", "chr|3|8576",
                          "blk|4|24960", "sock|6|49536", "link|2|41471"));
}

TEST_F(SettleAttributesTest, AFileOfAnotherTypeUnderTheSameIdentifierIsAnotherFile) {
  folderPresent('R', "a", 'A');
  EXPECT_THAT(written("INODE,NAME,FILE_TYPE"), ElementsAre("1|/volume|1", "2|a|1"));
  EXPECT_THAT(disk.asked, ElementsAre("list A"));
  expectPaired();
}

TEST_F(SettleAttributesTest, AStubOfSeveralNamesThatCannotBeWrittenThrows) {
  giveFurtherName();
  stub('A');
  refuseUpdates();
  EXPECT_THROW(settle.writeHeldBack(), UDCException);
}

}  // namespace
}  // namespace kddc::test
