// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// When pending entries are written, and in which order.
#include <gmock/gmock.h>

#include "tests/support/cumulative_fixture.h"

namespace {

using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// The folder "top" is row 1, identifier T; the files "a" to "d" are rows 2 to 5, identifiers A to
// D.
struct Flushing : kddc::test::CumulativeTest {
  Flushing() {
    insert("top", 'T', kDirectory);
    for (const char fid : {'A', 'B', 'C', 'D'})
      insert(std::string(1, static_cast<char>(fid + 32)), fid, kRegular, 1);
  }
  // What SQLite runs during an operation, by the first words of each statement.
  Rows statementsOf(const std::function<void()>& operation) {
    Rows ran;
    const auto note = [](unsigned, void* context, void* statement, void*) {
      const std::string sql = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
      static_cast<Rows*>(context)->push_back(sql.substr(0, sql.find(' ', 12)));
      return 0;
    };
    for (UDC_DBMS* connection : {db.filesDb.get(), db.fidDb.get()})
      sqlite3_trace_v2(connection->handle, SQLITE_TRACE_STMT, note, &ran);
    operation();
    for (UDC_DBMS* connection : {db.filesDb.get(), db.fidDb.get()})
      sqlite3_trace_v2(connection->handle, 0, nullptr, nullptr);
    return ran;
  }
  unsigned long long flushes() { return JournalPerfStatMap_g[0].FlushJournalCounter; }
  Rows sizes() { return rows("NAME,SIZE"); }
  static FlrJrnRenameRaw rename(char fid, const char* from, const char* to) {
    return {.src_fid = fidOf(fid),
            .src_par_fid = fidOf('T'),
            .src_short_name = from,
            .dst_fid_valid = 0,
            .dst_fid = {},
            .dst_par_fid = fidOf('T'),
            .dst_short_name = to};
  }

  static FlrJrnMkDirRaw folderRecord(const char* name) {
    FlrJrnMkDirRaw r{};
    r.par_fid = fidOf('T');
    r.fid = fidOf('P');
    r.short_name = name;
    r.mode = 040755;
    return r;
  }

  const Rows kUntouched = {"top|4096", "a|4096", "b|4096", "c|4096", "d|4096"};
};

TEST_F(Flushing, LooksUpAllKnownFilesThenUpdatesThemThenInsertsTheNewOnes) {
  db.Create(file('N', "new"));
  db.SetAttr(sizeOf('B', 6), kAt);
  db.SetAttr(sizeOf('A', 5), kAt);
  EXPECT_THAT(statementsOf([&] { db.FlushAllJournals(); }),
              ElementsAre("SELECT FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN",
                          "SELECT FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN",
                          "SELECT MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME",
                          "UPDATE FILES",
                          "SELECT MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME",
                          "UPDATE FILES", "INSERT INTO FILES", "UPDATE FILES", "INSERT INTO FIDS",
                          "UPDATE FIDS SET"));
  EXPECT_THAT(db.journalMap, IsEmpty());
  EXPECT_EQ(sizes(), (Rows{"top|4096", "a|5", "b|6", "c|4096", "d|4096", "new|0"}));
}

TEST_F(Flushing, WritesInTheOrderOfTheIdentifiers) {
  for (const char fid : {'Z', 'X', 'Y'}) db.Create(file(fid, fid == 'X' ? "x" : "other"));
  db.SetAttr(sizeOf('D', 5), kAt);
  db.SetAttr(sizeOf('C', 5), kAt);
  const LogCapture log(6);
  db.FlushAllJournals();
  const std::string update = "debug 4 CumulativeJournal :: UpdateFileAttribs: Count=1";
  const std::string detail = "debug 6 CumulativeJournal :: UpdateFileAttribs: DB Inode[";
  const std::string insert = "debug 4 CumulativeJournal :: Insert: Count=1";
  EXPECT_THAT(log.lines(), ElementsAre(update, detail + "4] Regular Journal", update,
                                       detail + "5] Regular Journal", insert, insert, insert));
  EXPECT_EQ(rows("INODE,NAME").at(5), "6|x");
}

TEST_F(Flushing, AnUnknownFileIsLookedUpAndForgotten) {
  db.SetAttr(sizeOf('X', 5), kAt);
  db.FlushAllJournals();
  EXPECT_THAT(db.journalMap, IsEmpty());
  EXPECT_EQ(sizes(), kUntouched);
}

TEST_F(Flushing, ACreatedFileIsInsertedOnceWithAllThatWasMerged) {
  db.Create(file('N', "new"));
  FlrJrnSetAttrRaw r = sizeOf('N', 5);
  r.mode_valid = r.atime_valid = r.ctime_valid = r.blocks_valid = 1;
  r.mode = 0100600;
  r.atime.tv_sec = 60;
  r.ctime.tv_sec = 61;
  r.blocks = 8;
  db.SetAttr(r, kAt);
  db.SetAttr(sizeOf('N', 6), kAt);
  const LogCapture log(4);
  db.FlushAllJournals();
  EXPECT_THAT(log.lines(), ElementsAre("debug 4 CumulativeJournal :: Insert: Count=3"));
  EXPECT_EQ(rows(kAll).at(5), "1|33152|1|7|8|6|8|60|50|61|61|0|new");
  EXPECT_EQ(fids("FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN").at(5), "6|6|0|0");
}

TEST_F(Flushing, ACreatedFileIsAPlainFileWhateverItsMode) {
  FlrJrnCreateRaw fifo = file('N', "new");
  fifo.mode = 010644;
  db.Create(fifo);
  db.FlushAllJournals();
  EXPECT_EQ(rows("MODE,FILE_TYPE").at(5), "4516|0");
}

TEST_F(Flushing, AParentIsTheOneOfTheMomentOfTheCreate) {
  db.Create(file('N', "new", 'P'));
  db.MkDir(folderRecord("late"));
  db.Create(file('M', "newer", 'P'));
  db.FlushAllJournals();
  EXPECT_EQ(rows("INODE,PINODE,NAME").at(6), "7|6|newer");
  EXPECT_EQ(rows("INODE,PINODE,NAME").at(7), "8|0|new");
}

TEST_F(Flushing, ATableThatIsFullIsWrittenBeforeTheNextEntryIsAdded) {
  for (char fid = 'a'; fid < 'j'; ++fid) db.Create(file(fid, "new"));
  db.SetAttr(sizeOf('A', 5), kAt);
  ASSERT_THAT(db.journalMap, SizeIs(10));
  db.SetAttr(sizeOf('A', 6), kAt);
  EXPECT_EQ(sizes(), kUntouched) << "an entry that is there needs no room";
  db.SetAttr(sizeOf('B', 7), kAt);
  EXPECT_THAT(db.journalMap, SizeIs(1));
  EXPECT_THAT(sizes(), SizeIs(14));
  EXPECT_EQ(sizes().at(1), "a|6");
  EXPECT_EQ(sizes().at(2), "b|4096");
}

TEST_F(Flushing, ACreateOfAPendingFileFlushesAFullTableAllTheSame) {
  db.mapLimit = 1;
  db.SetAttr(sizeOf('A', 5), kAt);
  db.Create(file('A', "again"));
  EXPECT_EQ(sizes().at(1), "a|5");
  EXPECT_FALSE(pending('A').sizeValid);
}

TEST_F(Flushing, ALimitThatWasLoweredBelowTheEntriesIsNeverMet) {
  db.SetAttr(sizeOf('A', 5), kAt);
  db.SetAttr(sizeOf('B', 5), kAt);
  db.mapLimit = 1;
  db.SetAttr(sizeOf('C', 5), kAt);
  EXPECT_THAT(db.journalMap, SizeIs(3));
}

TEST_F(Flushing, ARenameIsPrecededByAllEntries) {
  db.Create(file('N', "new"));
  db.SetAttr(sizeOf('A', 5), kAt);
  db.Rename(rename('N', "new", "newer"), kAt);
  EXPECT_THAT(db.journalMap, IsEmpty());
  EXPECT_EQ(sizes(), (Rows{"top|4096", "a|5", "b|4096", "c|4096", "d|4096", "newer|0"}));
}

TEST_F(Flushing, AStubAnUnstubAndALinkArePrecededByTheEntryOfTheirFileAlone) {
  for (const char fid : {'A', 'B', 'C', 'D'}) db.SetAttr(sizeOf(fid, 5), kAt);
  db.Stub({fidOf('A'), ""}, 6000);
  EXPECT_EQ(rows("SIZE,FILE_TYPE,CTIME").at(1), "5|8|6000");
  db.UnStub({fidOf('B')}, 6000);
  EXPECT_EQ(sizes().at(2), "b|5");
  db.CreateLink({fidOf('C'), fidOf('T'), "link"}, 6000);
  EXPECT_EQ(rows("NAME,SIZE,NLINK").at(5), "link|5|2");
  EXPECT_FALSE(isPending('A') || isPending('B') || isPending('C'));
  EXPECT_TRUE(isPending('D'));
  EXPECT_EQ(sizes().at(4), "d|4096");
}

TEST_F(Flushing, ACreatedFileIsInsertedBeforeItIsLinkedOrStubbed) {
  db.Create(file('N', "new"));
  db.CreateLink({fidOf('N'), fidOf('T'), "link"}, 6000);
  db.Create(file('M', "more"));
  db.Stub({fidOf('M'), ""}, 6000);
  db.Create(file('L', "last"));
  db.UnStub({fidOf('L')}, 6000);
  const Rows all = rows("NAME,NLINK,FILE_TYPE");
  EXPECT_EQ(Rows(all.begin() + 5, all.end()),
            (Rows{"new|2|0", "link|2|0", "more|1|8", "last|1|0"}));
}

TEST_F(Flushing, OneEntryIsWrittenAndDropped) {
  db.SetAttr(sizeOf('A', 5), kAt);
  db.Create(file('N', "new"));
  db.FindAndFlushJournal(fidOf('A'));
  EXPECT_EQ(sizes().at(1), "a|5");
  EXPECT_FALSE(isPending('A'));
  db.FindAndFlushJournal(fidOf('N'));
  EXPECT_EQ(sizes().at(5), "new|0");
  EXPECT_THAT(db.journalMap, IsEmpty());
  EXPECT_THAT(statementsOf([&] { db.FindAndFlushJournal(fidOf('A')); }), IsEmpty());
}

TEST_F(Flushing, FoldersSymbolicLinksAndAdditionalAttributesDoNotSeeTheEntries) {
  db.SetAttr(sizeOf('A', 5), kAt);
  db.Create(file('N', "new"));
  db.MkDir(folderRecord("made"));
  db.RemoveDir({fidOf('P'), fidOf('T'), "made"}, kAt);
  db.CreateSymLink({"to", fidOf('T'), "through", fidOf('S'), 1, 2}, kAt);
  static_cast<DCSqliteDB&>(db).CreateSymLink({"to", fidOf('T'), "past", fidOf('R'), 1, 2}, kAt);
  for (const char fid : {'A', 'N'}) {
    const fsf_fid id = fidOf(fid);
    db.SetAdditionalAttr(&id, 6000);
  }
  EXPECT_THAT(db.journalMap, SizeIs(2));
  EXPECT_EQ(rows("NAME,SIZE,CTIME"),
            (Rows{"top|4096|3000", "a|4096|6000", "b|4096|3000", "c|4096|3000", "d|4096|3000",
                  "through|2|5000", "past|2|5000"}));
}

TEST_F(Flushing, ACommitWritesNoEntry) {
  db.SetAttr(sizeOf('A', 5), kAt);
  db.Commit();
  EXPECT_TRUE(isPending('A'));
}

TEST_F(Flushing, ACloseWritesAllEntriesAndThenMarksTheCatalogue) {
  db.SetAttr(sizeOf('A', 5), kAt);
  db.Create(file('N', "new"));
  db.CloseHandle(5000, false);
  EXPECT_EQ(files("NAME,SIZE"), (Rows{"top|4096", "a|5", "b|4096", "c|4096", "d|4096", "new|0"}));
  EXPECT_EQ(kddc::test::DatabaseView(filesPath).cell("SELECT TIME,GRACEFUL_SHUTDOWN FROM TIME"),
            "4400|1");
  EXPECT_THAT(db.journalMap, IsEmpty());
}

TEST_F(Flushing, WhatIsPendingIsLostWithoutAClose) {
  {
    db.CloseHandle(0, false);
    kddc::test::OpenCumulative lost(folder);
    ASSERT_TRUE(lost.OpenHandle(false, false));
    lost.SetAttr(sizeOf('A', 5), kAt);
  }
  EXPECT_EQ(files("NAME,SIZE"), kUntouched);
  EXPECT_EQ(kddc::test::DatabaseView(filesPath).cell("SELECT GRACEFUL_SHUTDOWN FROM TIME"), "0");
}

TEST_F(Flushing, IsCountedForTheCataloguesVolumeAndAnEmptyTableTakesPart) {
  db.SetDevt(7);
  db.FlushAllJournals();
  db.SetAttr(sizeOf('A', 5), kAt);
  db.FlushAllJournals();
  EXPECT_EQ(JournalPerfStatMap_g[7].FlushJournalCounter, 2U);
  EXPECT_GT(JournalPerfStatMap_g[7].FlushJournalTimer, 0U);
  db.SetAttr(sizeOf('A', 6), kAt);
  db.FindAndFlushJournal(fidOf('A'));
  EXPECT_EQ(JournalPerfStatMap_g[7].FlushJournalCounter, 2U) << "one entry is no flush";
}

TEST_F(Flushing, RecordsReachItThroughApplyJournal) {
  FlrJrnCommandRaw record = kddc::test::recordOf(FLR_JRN_CREATE);
  record.u.create = file('N', "new");
  EXPECT_TRUE(ApplyJournal(&db, record));
  record = kddc::test::recordOf(FLR_JRN_SETATTR, 4294967295);
  record.u.setattr = sizeOf('N', 5);
  EXPECT_TRUE(ApplyJournal(&db, record));
  EXPECT_EQ(pending('N').time, -1);
  EXPECT_EQ(pending('N').count, 2);
  record = kddc::test::recordOf(FLR_JRN_REMOVE);
  record.u.remove = removal('N', "new");
  EXPECT_TRUE(ApplyJournal(&db, record));
  EXPECT_THAT(db.journalMap, IsEmpty());
  EXPECT_EQ(sizes(), kUntouched);
}

// With a limit of 0.

struct SwitchedOff : Flushing {
  SwitchedOff() { db.mapLimit = 0; }
};

TEST_F(SwitchedOff, EveryRecordGoesStraightToTheRows) {
  db.Create(file('N', "new"));
  db.SetAttr(sizeOf('N', 5), kAt);
  EXPECT_EQ(rows("NAME,SIZE,CTIME").at(5), "new|5|5000");
  db.CreateLink({fidOf('N'), fidOf('T'), "link"}, kAt);
  db.Stub({fidOf('A'), ""}, kAt);
  db.Stub({fidOf('B'), ""}, kAt);
  db.UnStub({fidOf('B')}, kAt);
  db.Rename(rename('C', "c", "see"), kAt);
  db.Remove(removal('D', "d"), kAt);
  EXPECT_EQ(rows("NAME,NLINK,FILE_TYPE"),
            (Rows{"top|1|1", "a|1|8", "b|1|0", "see|1|0", "new|2|0", "link|2|0"}));
  EXPECT_THAT(db.journalMap, IsEmpty());
  EXPECT_EQ(flushes(), 0U);
}

TEST_F(SwitchedOff, TheTypeOfANewFileFollowsFromItsMode) {
  FlrJrnCreateRaw fifo = file('N', "new");
  fifo.mode = 010644;
  db.Create(fifo);
  EXPECT_EQ(rows("FILE_TYPE").at(5), "5");
}

TEST_F(SwitchedOff, AnEntryIsNeitherWrittenNorDropped) {
  db.AddFidToJournalMap(fidOf('A'), false);
  pending('A').sizeValid = true;
  db.FindAndFlushJournal(fidOf('A'));
  db.FindAndRemoveJournal(fidOf('A'), nullptr);
  db.FlushAllJournals();
  EXPECT_TRUE(isPending('A'));
  EXPECT_EQ(sizes(), kUntouched);
  EXPECT_EQ(flushes(), 0U);
  db.CloseHandle(0, false);
  EXPECT_EQ(files("NAME,SIZE"), kUntouched);
}

}  // namespace
