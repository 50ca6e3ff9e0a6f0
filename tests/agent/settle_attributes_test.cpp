// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a record about a file does to its rows: attributes, link counts, stubs.
#include <gmock/gmock.h>

#include <ctime>

#include "platform/exceptions.h"
#include "tests/support/live_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// File A is "a" in the root, row 2, and its TIME is 3500.
struct SettleAttributesTest : SettleTest {
  SettleAttributesTest() {
    present('R', "a", 'A');
    written();
    attributesOf('A', {});  // what this said would still count as part of the file's coming
    run("UPDATE FILES SET TIME=3500 WHERE INODE=2");
  }

  // SQL on the writer's own connection.
  void run(const std::string& sql) const { db.filesDb->exec_query(sql.c_str()); }
  // Row 3 is a further name of A.
  void giveFurtherName() {
    present('R', "b", 'A', {.links = 2});
    written();
    run("UPDATE FILES SET TIME=3500 WHERE INODE IN (2,3)");
  }
  // "now" for a TIME that lies less than a minute back.
  Rows times() {
    written();
    return DatabaseView(filesPath).rows(
        "SELECT CTIME,IIF(ABS(TIME-CAST(strftime('%s','now') AS INTEGER))<60,'now',TIME) FROM "
        "FILES WHERE INODE>1 ORDER BY INODE");
  }
  Rows everything() {
    written();
    return DatabaseView(filesPath).rows(
        "SELECT MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME FROM FILES WHERE INODE>1 "
        "ORDER BY INODE");
  }
  Rows links() {
    return DatabaseView(filesPath).rows("SELECT NLINK FROM FILES WHERE INODE>1 ORDER BY INODE");
  }
  Rows types() {
    written();
    return DatabaseView(filesPath).rows("SELECT FILE_TYPE FROM FILES WHERE INODE>1 ORDER BY INODE");
  }
  Result linkCount(const fsf_fid& file, unsigned count) {
    FlrJrnCommandRaw record = headed(FLR_JRN_REMOVE, {.links = count, .ctime = 4000});
    record.u.remove = {{}, "", file, count};
    return settle.take(record);
  }
  Result stub(char file) {
    FlrJrnCommandRaw record = headed(FLR_JRN_STUB, {.ctime = 4000});
    record.u.stub = {fidOf(file), ""};
    return settle.take(record);
  }
  Result unstub(char file) {
    FlrJrnCommandRaw record = headed(FLR_JRN_UNSTUB, {.ctime = 4000});
    record.u.unstub = {fidOf(file)};
    return settle.take(record);
  }
  // From now on no row can be updated.
  void refuseUpdates() {
    run("CREATE TEMP TRIGGER refuse BEFORE UPDATE ON FILES BEGIN SELECT RAISE(ABORT,'refused'); "
        "END");
  }
};

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

// Stubs and types. --------------------------------------------------------------------------------

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

TEST_F(SettleAttributesTest, AStubOfSeveralNamesThatCannotBeWrittenThrows) {
  giveFurtherName();
  stub('A');
  refuseUpdates();
  EXPECT_THROW(settle.writeHeldBack(), UDCException);
}

// Observers. --------------------------------------------------------------------------------------

struct SettleObserverTest : SettleAttributesTest {
  std::vector<std::string> told;

  SettleObserverTest() {
    settle.observe([this](const CatalogueChange& change) {
      static constexpr const char* kWords[] = {"added", "changed", "moved", "removed"};
      told.push_back(std::string(kWords[static_cast<int>(change.kind)]) + " " +
                     std::to_string(change.folder) + "/" + change.name);
    });
  }
};

TEST_F(SettleObserverTest, AnEntryIsAddedOnceWhateverTheNextRecordsSayOfIt) {
  present('R', "p", 'P', {.mode = S_IFIFO | 0600});
  folderPresent('R', "d", 'D');
  EXPECT_THAT(told, ElementsAre("added 1/p", "added 1/d"));
  attributesOf('D', {.mode = kDirectory, .links = 2, .size = 4097, .ctime = 4000});
  written();
  EXPECT_THAT(told, ElementsAre("added 1/p", "added 1/d"));
  attributesOf('D', {.mode = kDirectory, .links = 2, .size = 4098, .ctime = 4000});
  EXPECT_THAT(told, ElementsAre("added 1/p", "added 1/d", "changed 1/d"));
}

TEST_F(SettleObserverTest, AChangeIsToldOfEveryName) {
  giveFurtherName();
  attributesOf('A', {.links = 2});
  told.clear();
  attributesOf('A', {.links = 2, .ctime = 4000});
  EXPECT_THAT(told, ElementsAre("changed 1/a", "changed 1/b"));
}

TEST_F(SettleObserverTest, AMoveIsToldOfTheNewName) {
  renamed('A', 'R', "a", 'R', "b");
  present('R', "c", 'A');
  EXPECT_THAT(told, ElementsAre("moved 1/b", "moved 1/c"));
}

TEST_F(SettleObserverTest, ANameThatGoesIsToldOnce) {
  absent('R', "a", 'A');
  absent('R', "a", 'A');
  EXPECT_THAT(told, ElementsAre("removed 1/a"));
}

TEST_F(SettleObserverTest, NothingIsToldOfWhatChangesNothing) {
  present('R', "a", 'A');
  attributesOf('A', {.atime = 1500});
  attributesOf('X', {});
  EXPECT_THAT(told, IsEmpty());
}

}  // namespace
}  // namespace kddc::test
