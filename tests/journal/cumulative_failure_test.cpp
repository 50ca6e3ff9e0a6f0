// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What is left in the rows and in the table of pending entries when SQLite refuses a write, and
// what the log says.
#include <gmock/gmock.h>

#include "tests/support/cumulative_fixture.h"

namespace {

using kddc::test::expectFailure;
using kddc::test::expectRefusal;
using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::IsEmpty;
using testing::SizeIs;

// The files "a", "b" and "c" are rows 1 to 3, identifiers A to C. Pending are a new size of each,
// and two new files, "m" and "n".
struct Failing : kddc::test::CumulativeTest {
  Failing() {
    for (const char fid : {'A', 'B', 'C'}) {
      insert(std::string(1, static_cast<char>(fid + 32)), fid);
      db.SetAttr(sizeOf(fid, 5), kAt);
    }
    db.Create(file('M', "m"));
    db.Create(file('N', "n"));
  }
  Rows sizes() { return rows("NAME,SIZE"); }
  static bool logged(const LogCapture& log, const std::string& operation) {
    return log.mentions("error 0 CumulativeJournal :: " + operation + ": eRRoR -- ");
  }
  // A flush that is refused keeps the table and says so.
  void expectRefusedFlush() {
    const LogCapture log(0);
    expectRefusal([&] { db.FlushAllJournals(); });
    EXPECT_TRUE(logged(log, "FlushAllJournals"));
    EXPECT_THAT(db.journalMap, SizeIs(5));
    EXPECT_THAT(JournalPerfStatMap_g, IsEmpty()) << "it is not counted";
  }
  const Rows kUntouched = {"a|4096", "b|4096", "c|4096"};
  const Rows kAllWritten = {"a|5", "b|5", "c|5", "m|0", "n|0"};
};

TEST_F(Failing, ALookupLeavesEveryRowAndEveryEntry) {
  fidsSql("ALTER TABLE FIDS RENAME TO ELSEWHERE");
  const LogCapture log(0);
  kddc::test::failureOf([&] { db.FlushAllJournals(); });
  EXPECT_TRUE(logged(log, "FlushAllJournals"));
  fidsSql("ALTER TABLE ELSEWHERE RENAME TO FIDS");
  EXPECT_EQ(sizes(), kUntouched);
  EXPECT_THAT(db.journalMap, SizeIs(5));
  db.FlushAllJournals();
  EXPECT_EQ(sizes(), kAllWritten);
}

TEST_F(Failing, AnUpdateKeepsThoseBeforeItAndInsertsNothing) {
  refuseUpdateOf(2);
  expectRefusedFlush();
  EXPECT_EQ(sizes(), (Rows{"a|5", "b|4096", "c|4096"}));
  allow();
  db.FlushAllJournals();
  EXPECT_EQ(sizes(), kAllWritten);
  EXPECT_THAT(db.journalMap, IsEmpty());
}

TEST_F(Failing, TheRowOfAFileCannotBeRead) {
  filesSql("ALTER TABLE FILES RENAME COLUMN BLOCKSUSED TO ELSEWHERE");
  const LogCapture log(0);
  expectFailure(3, SQLITE_ERROR, "Could not prepeare the Get Stat Info query",
                [&] { db.FlushAllJournals(); });
  EXPECT_TRUE(logged(log, "UpdateFileAttribs"));
  EXPECT_TRUE(logged(log, "FlushAllJournals"));
  filesSql("ALTER TABLE FILES RENAME COLUMN ELSEWHERE TO BLOCKSUSED");
  EXPECT_EQ(sizes(), kUntouched);
}

TEST_F(Failing, AnInsertKeepsWhatWasWrittenAndTheNextFlushWritesItAgain) {
  refuseInsertOf("n");
  expectRefusedFlush();
  EXPECT_EQ(sizes(), (Rows{"a|5", "b|5", "c|5", "m|0"}));
  allow();
  db.FlushAllJournals();
  EXPECT_EQ(sizes(), (Rows{"a|5", "b|5", "c|5", "m|0", "m|0", "n|0"}));
}

TEST_F(Failing, AnInsertOfAnIdentifierKeepsTheRowOfTheFile) {
  fidsSql(
      "CREATE TEMP TRIGGER refuse BEFORE INSERT ON FIDS BEGIN SELECT RAISE(ABORT,'refused'); END");
  const LogCapture log(0);
  expectRefusal([&] { db.FindAndFlushJournal(fidOf('N')); });
  EXPECT_TRUE(logged(log, "Insert"));
  EXPECT_TRUE(logged(log, "FindAndFlushJournal"));
  EXPECT_TRUE(isPending('N'));
  EXPECT_EQ(sizes(), (Rows{"a|4096", "b|4096", "c|4096", "n|0"}));
}

TEST_F(Failing, TheFlushOfOneEntryKeepsIt) {
  refuseUpdateOf(1);
  const LogCapture log(0);
  expectRefusal([&] { db.FindAndFlushJournal(fidOf('A')); });
  EXPECT_TRUE(logged(log, "UpdateFileAttribs"));
  EXPECT_TRUE(logged(log, "FindAndFlushJournal"));
  EXPECT_TRUE(isPending('A'));
  allow();
  db.FindAndFlushJournal(fidOf('A'));
  EXPECT_FALSE(isPending('A'));
  EXPECT_EQ(sizes().at(0), "a|5");
}

TEST_F(Failing, ARecordIsNotAppliedWhoseFlushFails) {
  refuseUpdateOf(1);
  const struct {
    const char* tag;
    std::function<void()> call;
  } kOperations[] = {
      {"Stub",
       [&] {
         db.Stub({fidOf('A'), ""}, kAt);
       }},
      {"UnStub", [&] { db.UnStub({fidOf('A')}, kAt); }},
      {"CreateLink",
       [&] {
         db.CreateLink({fidOf('A'), fidOf('T'), "link"}, kAt);
       }},
      {"Rename",
       [&] {
         db.Rename({fidOf('B'), fidOf('T'), "b", 0, {}, fidOf('T'), "be"}, kAt);
       }},
      {"CloseHandle", [&] { db.CloseHandle(0, false); }},
  };
  for (const auto& [tag, call] : kOperations) {
    const LogCapture log(0);
    expectRefusal(call);
    EXPECT_TRUE(logged(log, tag)) << tag;
    EXPECT_THAT(db.journalMap, SizeIs(5)) << tag;
  }
  EXPECT_EQ(rows("NAME,FILE_TYPE"), (Rows{"a|0", "b|0", "c|0"}));
  EXPECT_EQ(kddc::test::DatabaseView(filesPath).cell("SELECT GRACEFUL_SHUTDOWN FROM TIME"), "0");
  allow();
  db.CloseHandle(0, false);
  EXPECT_EQ(files("NAME,SIZE"), kAllWritten);
}

TEST_F(Failing, ATableThatCannotBeFlushedTakesNoFurtherEntry) {
  db.mapLimit = 5;
  refuseUpdateOf(1);
  const LogCapture log(0);
  expectRefusal([&] { db.SetAttr(sizeOf('X', 5), kAt); });
  expectRefusal([&] { db.Create(file('Y', "y")); });
  for (const char* tag : {"FlushAllJournals", "AddFidToJournalMap", "SetAttr", "Create"})
    EXPECT_TRUE(logged(log, tag)) << tag;
  EXPECT_FALSE(isPending('X') || isPending('Y'));
  db.SetAttr(sizeOf('A', 6), kAt);
  EXPECT_EQ(pending('A').st.st_size, 6) << "what is there still merges";
}

TEST_F(Failing, ACreateWhoseParentCannotBeLookedUpStaysPendingButUncounted) {
  fidsSql("ALTER TABLE FIDS RENAME TO ELSEWHERE");
  const LogCapture log(0);
  kddc::test::failureOf([&] { db.Create(file('Y', "y")); });
  EXPECT_TRUE(logged(log, "Create"));
  EXPECT_TRUE(pending('Y').created);
  EXPECT_EQ(pending('Y').count, 0);
}

TEST_F(Failing, ARemoveIsLoggedAsAnUnstubAndItsEntryIsGone) {
  const LogCapture log(0);
  expectFailure(1, 0, "DB Inconsistent", [&] { db.Remove(removal('A', "elsewhere", 1), kAt); });
  EXPECT_TRUE(logged(log, "UnStub"));
  EXPECT_FALSE(log.mentions("CumulativeJournal :: Remove"));
  EXPECT_FALSE(isPending('A'));
}

TEST_F(Failing, ASymbolicLinkIsLoggedUnderTheNamesOfBothClasses) {
  refuseInsertOf("link");
  const LogCapture log(0);
  expectRefusal([&] { db.CreateSymLink({"to", fidOf('T'), "link", fidOf('S'), 1, 2}, kAt); });
  EXPECT_TRUE(log.mentions("error 0 DCSqliteDB :: CreateSymLink: eRRoR -- "));
  EXPECT_TRUE(logged(log, "CreateSymLink"));
}

TEST_F(Failing, RowsThatMovedSinceARefusedFlushAreLookedUpAgain) {
  refuseUpdateOf(3);
  expectRefusedFlush();
  // The last row goes, and a file of another identifier takes its number.
  db.DeleteEntry(3, 3);
  allow();
  insert("stranger", 'S');
  db.FlushAllJournals();
  EXPECT_EQ(sizes().at(2), "stranger|4096");
}

TEST_F(Failing, AClosedCatalogueIsRefusedByNameAndKeepsTheEntries) {
  const LogCapture quiet(0);
  db.CloseHandle(0, false);
  db.SetAttr(sizeOf('A', 7), kAt);
  expectFailure(1, 0, folder + " is not open", [&] { db.FlushAllJournals(); });
  EXPECT_TRUE(isPending('A'));
}

}  // namespace
