// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/sysmacros.h>

#include <ctime>
#include <functional>

#include "platform/exceptions.h"
#include "tests/support/catalogue.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::ElementsAre;

constexpr char kPlaceholder[] = "9223372036854775807";

// What an operation that must fail threw.
UDCException failureOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const UDCException& e) {
    return e;
  }
  ADD_FAILURE() << "nothing was thrown";
  return {"", 0, "", 0};
}

struct RowOperations : kddc::test::OpenCatalogueTest {};

// Insert

TEST_F(RowOperations, AnInsertWritesAFileAndItsIdentifier) {
  StatFidName_s e = entry("a.txt", 'A', kRegular);
  e.st.st_mtime = kFarAhead;
  EXPECT_EQ(db.Insert(&e, 17, 7), 1U);
  EXPECT_EQ(committedFiles("*"),
            Rows{"1|1|17|33188|1|501|20|4096|8|1000|-294967296|3000|-294967296|0|a.txt"});
  EXPECT_EQ(committedFids("*"),
            Rows{"1|1|0|0|71748523475265|71748523475265|71748523475265|71748523475265"});
}

TEST_F(RowOperations, InodesAreTheCataloguesOwnNumbers) {
  StatFidName_s e = entry("a", 'A', kRegular);
  e.st.st_ino = 123456;
  db.Insert(&e, 0, 7);
  insert("b", 'B', kRegular, 0);
  EXPECT_EQ(committedFiles("INODE,NAME"), (Rows{"1|a", "2|b"}));
}

TEST_F(RowOperations, AFilesSizeIsKnownOnlyAfterASecondStatement) {
  LogCapture log(9);
  int type = 7;
  StatFidName_s e = entry("a", 'A', kRegular);
  std::vector<std::string> seen;
  sqlite3_trace_v2(
      db.filesDb->handle, SQLITE_TRACE_STMT,
      [](unsigned, void* out, void* statement, void*) {
        char* text = sqlite3_expanded_sql(static_cast<sqlite3_stmt*>(statement));
        static_cast<std::vector<std::string>*>(out)->emplace_back(text);
        sqlite3_free(text);
        return 0;
      },
      &seen);
  EXPECT_EQ(db.InsertFile(&e, 0, &type, 5), 0);
  type = 7;
  e.st.st_mode = kDirectory;
  EXPECT_EQ(db.InsertFile(&e, 0, &type, 5), 0);
  ASSERT_EQ(seen.size(), 3U);
  EXPECT_THAT(seen[0], testing::HasSubstr("501,20,9223372036854775807,9223372036854775807,1000"));
  EXPECT_EQ(seen[1], "UPDATE FILES SET SIZE=4096,BLOCKSUSED=8 WHERE INODE=1");
  EXPECT_THAT(seen[2], testing::HasSubstr("501,20,4096,8,1000")) << "a folder's at once";
}

TEST_F(RowOperations, AFoldersSequenceNumberPassesThroughThePlaceholderToo) {
  std::vector<std::string> seen;
  sqlite3_trace_v2(
      db.fidDb->handle, SQLITE_TRACE_STMT,
      [](unsigned, void* out, void* statement, void*) {
        char* text = sqlite3_expanded_sql(static_cast<sqlite3_stmt*>(statement));
        static_cast<std::vector<std::string>*>(out)->emplace_back(text);
        sqlite3_free(text);
        return 0;
      },
      &seen);
  const fsf_fid fid{};
  EXPECT_EQ(db.InsertFid(&fid, 3, 1), 0);
  EXPECT_EQ(db.InsertFid(&fid, 4, 0), 0);
  EXPECT_THAT(seen, ElementsAre("INSERT INTO FIDS (FILES_ROWID,SEQNUM,RESCAN,FID1,FID2,FID3,FID4) "
                                "VALUES (3,9223372036854775807,0,0,0,0,0)",
                                "UPDATE FIDS SET SEQNUM=0 WHERE FIDS_ROWID=1",
                                "INSERT INTO FIDS (FILES_ROWID,SEQNUM,RESCAN,FID1,FID2,FID3,FID4) "
                                "VALUES (4,0,0,0,0,0,0)",
                                "UPDATE FIDS SET SEQNUM=0 WHERE FIDS_ROWID=2"));
}

TEST_F(RowOperations, AnInsertWithoutAKnownIdentifierRowHoldsThePlaceholder) {
  StatFidName_s e = entry("a", 'A', kRegular);
  int type = 7;
  db.InsertFile(&e, 0, &type, 0);
  EXPECT_EQ(type, 0);
  EXPECT_EQ(committedFiles("FID_ROWID"), Rows{kPlaceholder});
}

TEST_F(RowOperations, AWrongPredictionOfTheIdentifierRowIsCorrected) {
  insert("a", 'A', kRegular, 0);
  insert("b", 'B', kRegular, 0);
  db.DeleteFidGivenRowId(2);  // SQLite now uses row id 2 again, not 3
  EXPECT_EQ(insert("c", 'C', kRegular, 0), 2U);
  EXPECT_EQ(committedFiles("NAME,FID_ROWID"), (Rows{"a|1", "b|2", "c|2"}));
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID"), (Rows{"1|1", "2|3"}));
}

TEST_F(RowOperations, ThePredictionAfterAReopeningIsCorrectedToo) {
  insert("a", 'A', kRegular, 0);
  db.CloseHandle(0, false);
  ASSERT_TRUE(db.OpenHandle(false, false));
  EXPECT_EQ(insert("b", 'B', kRegular, 0), 2U);
  EXPECT_EQ(committedFiles("NAME,FID_ROWID"), (Rows{"a|1", "b|2"}));
}

TEST_F(RowOperations, TheTypeFollowsFromTheModeWhenItIsToBeDerived) {
  const unsigned modes[] = {0100644, 040755, 0120777, 020644, 060644, 010644, 0140644, 0644};
  for (const unsigned mode : modes) insert("x", 'X', mode, 0);
  EXPECT_EQ(committedFiles("FILE_TYPE"), (Rows{"0", "1", "2", "3", "4", "5", "6", "7"}));
}

TEST_F(RowOperations, ATypeThatIsGivenIsKept) {
  StatFidName_s e = entry("stub", 'S', kRegular);
  db.Insert(&e, 0, 8);
  db.Insert(&e, 0, 1);
  EXPECT_EQ(committedFiles("FILE_TYPE"), (Rows{"8", "1"}));
}

TEST_F(RowOperations, TheStampIsTheLaterOfTheTwoChangesButNeverBeforeTheOpening) {
  StatFidName_s e = entry("m", 'M', kRegular);
  e.st.st_mtime = 2000000000;
  e.st.st_ctime = 1999999999;
  db.openTime = 2000000000;
  db.Insert(&e, 0, 7);
  std::swap(e.st.st_mtime, e.st.st_ctime);
  db.Insert(&e, 0, 7);
  EXPECT_EQ(committedFiles("TIME"), (Rows{"2000000000", "2000000000"}));

  const time_t before = time(nullptr);
  db.openTime = 2000000001;
  db.Insert(&e, 0, 7);
  const time_t stamp = std::stol(committedFiles("TIME").back());
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, time(nullptr));
}

TEST_F(RowOperations, SmallNumbersAreBoundAs32BitsAndLargeOnesAs64) {
  StatFidName_s e = entry("big", 'B', kRegular);
  e.st.st_uid = 4294967295U;
  e.st.st_gid = 4294967294U;
  e.st.st_nlink = 2147483648U;
  e.st.st_size = 5000000000;
  e.st.st_blocks = 9765625;
  e.st.st_atime = -1;
  e.st.st_mtime = 4294967296 + 5;
  db.Insert(&e, 1099511627776, 7);
  EXPECT_EQ(committedFiles("PINODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME"),
            Rows{"1099511627776|-2147483648|-1|-2|5000000000|9765625|-1|5"});
}

TEST_F(RowOperations, ANameIsKeptByteForByteWhateverItHolds) {
  insert("it's \"quoted\"; DROP TABLE FILES; --", 'Q', kRegular, 0);
  insert("line\nfeed \xff\xfe end", 'N', kRegular, 0);
  EXPECT_EQ(committedFiles("NAME"),
            (Rows{"it's \"quoted\"; DROP TABLE FILES; --", "line\nfeed \xff\xfe end"}));
}

TEST_F(RowOperations, TheShortFormOfInsertDerivesTheTypeThroughTheVirtualOne) {
  struct Counting : kddc::test::OpenCatalogue {
    using DCSqliteDB::Insert;
    using OpenCatalogue::OpenCatalogue;
    unsigned long long Insert(StatFidName_s* entry, unsigned long long parent, int type) override {
      seen = entry->name + " in " + std::to_string(parent) + " as " + std::to_string(type);
      return 99;
    }
    std::string seen;
  };
  Counting counting(folder);
  StatFid_s e{};
  EXPECT_EQ(counting.Insert("name", &e, 4), 99U);
  EXPECT_EQ(counting.seen, "name in 4 as 7");
}

// Stubs

struct Stubs : RowOperations {
  int answer = 0;
  std::vector<unsigned long long> asked;
  RQHSMLowLevelRQFS::Probe previous =
      RQHSMLowLevelRQFS::SetProbe([this](unsigned long long devt, const fsf_fid& fid) {
        asked.push_back(devt * 1000 + fid.data[0]);
        return answer;
      });
  ~Stubs() override { RQHSMLowLevelRQFS::SetProbe(previous); }

  void insertOnDevice7(unsigned mode) {
    StatFidName_s e = entry("s", 'S', mode);
    e.st.st_dev = 7;
    db.Insert(&e, 0, 7);
  }
};

TEST_F(Stubs, NobodyIsAskedUnlessToldTo) {
  answer = 1;
  insertOnDevice7(kRegular);
  StatFidName_s e = entry("s", 'S', kRegular);
  db.Update1(1, &e.st, &e.fid);
  EXPECT_TRUE(asked.empty());
  EXPECT_EQ(committedFiles("FILE_TYPE"), Rows{"0"});
}

TEST_F(Stubs, AnInsertedPlainFileMayTurnOutToBeAStub) {
  db.LookForStubsDuringInsert();
  answer = 1;
  insertOnDevice7(kRegular);
  answer = 0;
  insertOnDevice7(kRegular);
  insertOnDevice7(kDirectory);
  EXPECT_THAT(asked, ElementsAre(7083, 7083)) << "a folder is no candidate";
  EXPECT_EQ(committedFiles("FILE_TYPE"), (Rows{"8", "0", "1"}));
}

TEST_F(Stubs, AnUpdatedPlainFileMayTurnOutToBeAStub) {
  insertOnDevice7(kRegular);
  db.LookForStubsDuringUpdate();
  answer = 1;
  StatFidName_s e = entry("s", 'S', kRegular);
  e.st.st_dev = 9;
  EXPECT_EQ(db.Update1(1, &e.st, &e.fid), 0);
  EXPECT_THAT(asked, ElementsAre(9083));
  EXPECT_EQ(committedFiles("FILE_TYPE"), Rows{"8"});
  EXPECT_EQ(db.Update(1, &e.st, 5), 0);
  EXPECT_EQ(asked.size(), 1U) << "the update without a type column asks nobody";
}

TEST_F(Stubs, AFailedQuestionEndsTheInsert) {
  db.LookForStubsDuringInsert();
  answer = -116;
  const LogCapture log(0);
  const UDCException e = failureOf([&] { insertOnDevice7(kRegular); });
  EXPECT_EQ(e.GetType(), 1);
  EXPECT_EQ(e.GetErrorNumber(), 0);
  EXPECT_EQ(e.GetMessage(), "isStub failed");
  ASSERT_EQ(log.lines().size(), 3U);
  EXPECT_EQ(log.lines()[0], "error 0 DCSqliteDB :: InsertFile: eRRoR -- isStub failed.error[-116]");
  EXPECT_THAT(log.lines()[1], testing::StartsWith("error 0 DCSqliteDB :: InsertFile: eRRoR -- "));
  EXPECT_THAT(log.lines()[2], testing::StartsWith("error 0 DCSqliteDB :: Insert: eRRoR -- "));
  EXPECT_TRUE(committedFiles("*").empty());
}

// Updates

TEST_F(RowOperations, AnUpdateReplacesTheStatFieldsAndStampsTheRow) {
  insert("a", 'A', kRegular, 0);
  StatFidName_s e = entry("", 'A', 0100600);
  e.st.st_nlink = 3;
  e.st.st_uid = 7;
  e.st.st_gid = 8;
  e.st.st_size = 9;
  e.st.st_blocks = 10;
  e.st.st_atime = 11;
  e.st.st_mtime = 12;
  e.st.st_ctime = 13;
  EXPECT_EQ(db.Update(1, &e.st, 14), 0);
  EXPECT_EQ(committedFiles("*"), Rows{"1|1|0|33152|3|7|8|9|10|11|12|13|14|0|a"});

  const time_t before = time(nullptr);
  db.Update(1, &e.st, 0);
  EXPECT_GE(std::stol(committedFiles("TIME")[0]), before);
}

TEST_F(RowOperations, TheOtherUpdateAlsoSetsTheTypeAndStampsWithNow) {
  insert("a", 'A', kRegular, 0);
  StatFidName_s e = entry("", 'A', 0120777);
  const time_t before = time(nullptr);
  EXPECT_EQ(db.Update1(1, &e.st, &e.fid), 0);
  EXPECT_EQ(committedFiles("MODE,FILE_TYPE,CTIME"), Rows{"41471|2|3000"});
  EXPECT_GE(std::stol(committedFiles("TIME")[0]), before);
}

TEST_F(RowOperations, SingleColumnsAreUpdatedAlone) {
  for (const char* name : {"a", "b", "c"}) insert(name, *name, kRegular, 0);
  std::list<unsigned long long> inodes{1, 3};
  EXPECT_EQ(db.UpdateAtime(inodes, 77), 0);
  EXPECT_EQ(db.UpdateSizeAndBlocks(2, 5000000000ULL, 6), 0);
  EXPECT_EQ(db.UpdateFidRowIdInFilesDB(3, 4294967299ULL), 0);
  EXPECT_EQ(db.UpdateSeqNum(2, 42), 0);
  EXPECT_EQ(db.MarkForSelectiveRescan(3), 0);
  EXPECT_EQ(committedFiles("ATIME,SIZE,BLOCKSUSED,FID_ROWID"),
            (Rows{"77|4096|8|1", "1000|5000000000|6|2", "77|4096|8|4294967299"}));
  EXPECT_EQ(committedFids("SEQNUM,RESCAN"), (Rows{"0|0", "42|0", "0|1"}));
}

TEST_F(RowOperations, AnEmptyListOfInodesIsNoFailure) {
  std::list<unsigned long long> none;
  EXPECT_EQ(db.UpdateAtime(none, 77), 0);
}

TEST_F(RowOperations, ASequenceNumberThatSqliteCannotHoldIsRefused) {
  insert("a", 'A', kRegular, 0);
  EXPECT_EQ(db.UpdateSeqNum(1, 9223372036854775806ULL), 0);
  for (const unsigned long long tooLarge : {9223372036854775807ULL, 18446744073709551615ULL}) {
    const UDCException e = failureOf([&] { db.UpdateSeqNum(1, tooLarge); });
    EXPECT_EQ(e.GetType(), 1);
    EXPECT_EQ(e.GetErrorNumber(), 0);
    EXPECT_EQ(e.GetMessage(), "Sqlite cannot handle this large SeqNo. Wait till it is rolled over");
  }
  EXPECT_EQ(committedFids("SEQNUM"), Rows{"9223372036854775806"});
}

TEST_F(RowOperations, UpdatingASequenceNumberIsLoggedAtLevelSeven) {
  const LogCapture log(7);
  db.UpdateSeqNum(5, 6);
  EXPECT_TRUE(log.has("debug 7 DCSqliteDB :: UpdateSeqNum: RowId[5] SeqNum[6]"));
}

TEST_F(RowOperations, DeletionsTakeOneKindOfRowEach) {
  for (const char* name : {"a", "b", "c"}) insert(name, *name, kRegular, 0);
  EXPECT_EQ(db.DeleteInode(1), 0);
  EXPECT_EQ(db.DeleteFidGivenRowId(2), 0);
  EXPECT_EQ(db.DeleteFid(3), 0);
  EXPECT_EQ(db.DeleteInode(99), 0) << "a row that is not there is no failure";
  EXPECT_EQ(committedFiles("NAME"), (Rows{"b", "c"}));
  EXPECT_EQ(committedFids("FILES_ROWID"), Rows{"1"});
}

TEST_F(RowOperations, AnEntryIsDeletedWithItsIdentifier) {
  insert("a", 'A', kRegular, 0);
  const LogCapture log(5);
  EXPECT_EQ(db.DeleteEntry(1, 1), 0);
  EXPECT_TRUE(log.has("debug 5 DCSqliteDB :: DeleteEntry: Inode[1] FidRowId[1]"));
  EXPECT_TRUE(committedFiles("*").empty());
  EXPECT_TRUE(committedFids("*").empty());
}

// Reads

TEST_F(RowOperations, AnIdentifierIsFoundWithAllItsRows) {
  insert("other", 'B', kRegular, 0);
  insert("link1", 'A', kRegular, 0);
  insert("link2", 'A', kRegular, 0);
  db.UpdateSeqNum(3, 12);
  db.MarkForSelectiveRescan(3);

  const fsf_fid fid = fidOf('A');
  std::list<unsigned long long> inodes, rowIds;
  unsigned long long inode = 0, seqNum = 0, rowId = 0;
  bool rescan = false;
  EXPECT_EQ(db.GetFidTuple(&fid, &inodes, &inode, &seqNum, &rescan, &rowId, &rowIds), 2);
  EXPECT_THAT(inodes, ElementsAre(2, 3));
  EXPECT_THAT(rowIds, ElementsAre(2, 3));
  EXPECT_EQ(inode, 3U) << "scalars hold the last row";
  EXPECT_EQ(seqNum, 12U);
  EXPECT_TRUE(rescan);
  EXPECT_EQ(rowId, 3U);
  EXPECT_EQ(db.GetFidTuple(&fid, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), 2);
}

TEST_F(RowOperations, AnUnknownIdentifierLeavesTheOutputsAlone) {
  const fsf_fid fid = fidOf('Z');
  unsigned long long inode = 5;
  EXPECT_EQ(db.GetFidTuple(&fid, nullptr, &inode, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(inode, 5U);
}

TEST_F(RowOperations, OnlyAHigherSequenceNumberIsNews) {
  insert("a", 'A', kRegular, 0);
  db.UpdateSeqNum(1, 10);
  const fsf_fid fid = fidOf('A');
  int rows = 0;
  EXPECT_TRUE(db.CheckSeqNum(&fid, 11, &rows));
  EXPECT_EQ(rows, 1);
  EXPECT_FALSE(db.CheckSeqNum(&fid, 10, &rows));
  EXPECT_FALSE(db.CheckSeqNum(&fid, 9, nullptr));
  EXPECT_TRUE(db.CheckSeqNum(&fid, 18446744073709551615ULL, nullptr)) << "compared unsigned";
}

TEST_F(RowOperations, ASequenceNumberIsNoNewsUnlessTheIdentifierHasOneRow) {
  const fsf_fid fid = fidOf('A');
  const std::string complaint =
      "error 0 DCSqliteDb :: CheckSeqNum: Db has multiple or no entries with this "
      "fid:414141414141414141414141414141414141414141414141";
  int rows = 9;
  {
    const LogCapture log(0);
    EXPECT_FALSE(db.CheckSeqNum(&fid, 5, &rows));
    EXPECT_THAT(log.lines(), ElementsAre(complaint));
  }
  EXPECT_EQ(rows, 0);
  insert("a", 'A', kRegular, 0);
  insert("b", 'A', kRegular, 0);
  const LogCapture log(0);
  EXPECT_FALSE(db.CheckSeqNum(&fid, 5, &rows));
  EXPECT_EQ(rows, 2);
  EXPECT_THAT(log.lines(), ElementsAre(complaint));
}

TEST_F(RowOperations, AnIdentifierRowGivesItsIdentifierBack) {
  StatFidName_s e = entry("a", 'A', kRegular);
  for (int i = 0; i < 24; ++i) e.fid.data[i] = static_cast<unsigned char>(200 + i);
  db.Insert(&e, 0, 7);
  fsf_fid fid{};
  unsigned long long inode = 0;
  EXPECT_TRUE(db.GetFidGivenFidsRowId(1, &fid));
  EXPECT_EQ(fid, e.fid);
  fid = {};
  EXPECT_TRUE(db.GetFidAndFilesRowId(1, &fid, &inode));
  EXPECT_EQ(fid, e.fid);
  EXPECT_EQ(inode, 1U);
  EXPECT_FALSE(db.GetFidGivenFidsRowId(2, &fid));
  EXPECT_FALSE(db.GetFidAndFilesRowId(2, &fid, &inode));
}

TEST_F(RowOperations, TheRescanListHoldsTheMarkedRowsAndCanBeCleared) {
  for (const char* name : {"a", "b", "c"}) insert(name, *name, kRegular, 0);
  db.MarkForSelectiveRescan(1);
  db.MarkForSelectiveRescan(3);
  std::list<unsigned long long> marked{7};
  EXPECT_EQ(db.GetRescanList(&marked), 2);
  EXPECT_THAT(marked, ElementsAre(7, 1, 3));
  EXPECT_EQ(db.ClearRescan(), 0U);
  EXPECT_EQ(db.GetRescanList(&marked), 0);
}

TEST_F(RowOperations, ANameIsFoundInItsFolder) {
  insert("folder", 'F', kDirectory, 3);
  insert("file", 'A', kRegular, 3);
  db.UpdateFidRowIdInFilesDB(2, 4294967297ULL);  // 2^32 + 1
  unsigned long long inode = 0, fidRowId = 0;
  bool isFile = true;
  EXPECT_TRUE(db.GetRowIdAndFileType(3, "folder", &inode, &isFile, &fidRowId));
  EXPECT_EQ(inode, 1U);
  EXPECT_FALSE(isFile);
  EXPECT_EQ(fidRowId, 1U);
  EXPECT_TRUE(db.GetRowIdAndFileType(3, "file", &inode, &isFile, &fidRowId));
  EXPECT_EQ(inode, 2U);
  EXPECT_TRUE(isFile);
  EXPECT_EQ(fidRowId, 1U) << "row ids beyond 32 bits do not survive this lookup";
  EXPECT_TRUE(db.GetRowIdAndFileType(3, "file", nullptr, nullptr, nullptr));
}

TEST_F(RowOperations, ANameThatIsNotInTheFolderIsNoFailure) {
  insert("File", 'A', kRegular, 3);
  const LogCapture log(0);
  unsigned long long inode = 5;
  EXPECT_FALSE(db.GetRowIdAndFileType(4, "File", &inode, nullptr, nullptr));
  EXPECT_FALSE(db.GetRowIdAndFileType(3, "file", &inode, nullptr, nullptr));
  EXPECT_EQ(inode, 5U);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(RowOperations, AnInodeTellsWhatItIs) {
  insert("folder", 'F', kDirectory, 3);
  insert("link", 'L', 0120777, 1);
  int type = 0;
  EXPECT_TRUE(db.CheckDBToSeeIfThisIsAFolder(1, &type));
  EXPECT_EQ(type, 1);
  EXPECT_FALSE(db.CheckDBToSeeIfThisIsAFolder(2, &type));
  EXPECT_EQ(type, 2);
  EXPECT_TRUE(db.CheckDBToSeeIfThisIsAFolder(1, nullptr));

  std::string name;
  unsigned long long parent = 0, fidRowId = 0;
  db.GetNameFileTypePInodeAndFidRowId(2, &name, &type, &parent, &fidRowId);
  EXPECT_EQ(name, "link");
  EXPECT_EQ(type, 2);
  EXPECT_EQ(parent, 1U);
  EXPECT_EQ(fidRowId, 2U);
}

TEST_F(RowOperations, AnInodeWithoutARowIsAnInconsistency) {
  const auto refused = [&](const std::string& tag, const std::function<void()>& operation) {
    const LogCapture log(0);
    const UDCException e = failureOf(operation);
    EXPECT_EQ(e.GetType(), 1);
    EXPECT_EQ(e.GetErrorNumber(), 0);
    EXPECT_EQ(e.GetMessage(), "DB Inconsistent");
    EXPECT_THAT(log.lines(),
                ElementsAre("error 0 " + tag + ": Could not find an entry with Inode:8",
                            "error 0 " + tag + ": eRRoR -- " + e.GetErrorMsg()));
  };
  refused("DCSqliteDB :: CheckDBToSeeIfThisIsAFolder",
          [&] { db.CheckDBToSeeIfThisIsAFolder(8, nullptr); });
  refused("DCSqliteDB :: GetNameFileTypePInodeAndFidRowId",
          [&] { db.GetNameFileTypePInodeAndFidRowId(8, nullptr, nullptr, nullptr, nullptr); });
}

TEST_F(RowOperations, TheStatFieldsComeBackWithTheStamp) {
  insert("a", 'A', kRegular, 0);
  StatFidName_s e = entry("", 'A', kRegular);
  e.st.st_uid = 4294967295U;
  db.Update(1, &e.st, 2500);
  struct stat st {};
  unsigned long stamp = 0;
  EXPECT_TRUE(db.GetStatInfo(1, &st, &stamp));
  EXPECT_EQ(st.st_mode, 0100644U);
  EXPECT_EQ(st.st_nlink, 1U);
  EXPECT_EQ(st.st_uid, 4294967295U);
  EXPECT_EQ(st.st_gid, 20U);
  EXPECT_EQ(st.st_size, 4096);
  EXPECT_EQ(st.st_blocks, 8);
  EXPECT_EQ(st.st_atime, 1000);
  EXPECT_EQ(st.st_mtime, 2000);
  EXPECT_EQ(st.st_ctime, 3000);
  EXPECT_EQ(stamp, 2500U);
  EXPECT_FALSE(db.GetStatInfo(2, &st, &stamp));
}

TEST_F(RowOperations, OfSeveralNamesTheOneInThatFolderIsFound) {
  insert("a", 'A', kRegular, 5);
  insert("a", 'A', kRegular, 6);
  insert("b", 'A', kRegular, 6);
  std::list<unsigned long long> inodes{1, 3, 2};
  int type = 9;
  unsigned long long fidRowId = 0, inode = 0;
  db.FindWhichInodeCorrespondsToThisParentAndShortName(inodes, 6, "a", &type, &fidRowId, &inode);
  EXPECT_EQ(type, 0);
  EXPECT_EQ(fidRowId, 2U);
  EXPECT_EQ(inode, 2U);
}

TEST_F(RowOperations, ANameThatNoneOfTheInodesBearsIsAnInconsistency) {
  insert("a", 'A', kRegular, 5);
  std::list<unsigned long long> inodes{1};
  const LogCapture log(0);
  const UDCException e = failureOf([&] {
    db.FindWhichInodeCorrespondsToThisParentAndShortName(inodes, 6, "a", nullptr, nullptr, nullptr);
  });
  EXPECT_EQ(e.GetType(), 1);
  EXPECT_EQ(e.GetMessage(), "DB Inconsistent");
  EXPECT_TRUE(
      log.has("error 0 DCSqliteDB :: FindWhichInodeCorrespondsToThisParentAndShortName: "
              "Could not find an entry with ParentInode[6] ShortName[a]"));
}

// Failures of SQLite

struct Refused {
  const char* tag;
  const char* cannotPrepare;
  std::function<void(DCSqliteDB&)> operation;
};

const fsf_fid kFid{};

std::vector<Refused> filesOperations() {
  return {
      {"InsertFile", "Could not prepeare the Insert Files query",
       [](DCSqliteDB& db) {
         StatFidName_s e{};
         int type = 0;
         db.InsertFile(&e, 0, &type, 0);
       }},
      {"Update1", "Could not prepeare the Update Files query",
       [](DCSqliteDB& db) {
         struct stat st {};
         fsf_fid fid{};
         db.Update1(1, &st, &fid);
       }},
      {"Update", "Could not prepeare the Update Files query",
       [](DCSqliteDB& db) {
         struct stat st {};
         db.Update(1, &st, 1);
       }},
      {"UpdateSizeAndBlocks", "Could not prepeare the Size and blocks upate query",
       [](DCSqliteDB& db) { db.UpdateSizeAndBlocks(1, 1, 1); }},
      {"UpdateAtime", "Could not prepeare the Atime update query",
       [](DCSqliteDB& db) {
         std::list<unsigned long long> one{1};
         db.UpdateAtime(one, 1);
       }},
      {"UpdateFidRowIdInFilesDB", "Could not prepeare the query to update FidRowIdInFilesDB",
       [](DCSqliteDB& db) { db.UpdateFidRowIdInFilesDB(1, 1); }},
      {"DeleteInode", "Could not prepeare the Remove Inode query",
       [](DCSqliteDB& db) { db.DeleteInode(1); }},
      {"GetRowIdAndFileType", "Could not prepeare the GetRowId query",
       [](DCSqliteDB& db) { db.GetRowIdAndFileType(1, "a", nullptr, nullptr, nullptr); }},
      {"CheckDBToSeeIfThisIsAFolder", "Could not prepeare the Get File Type query",
       [](DCSqliteDB& db) { db.CheckDBToSeeIfThisIsAFolder(1, nullptr); }},
      {"GetNameFileTypePInodeAndFidRowId", "Could not prepeare the Get Name File Type query",
       [](DCSqliteDB& db) {
         db.GetNameFileTypePInodeAndFidRowId(1, nullptr, nullptr, nullptr, nullptr);
       }},
      {"GetStatInfo", "Could not prepeare the Get Stat Info query",
       [](DCSqliteDB& db) { db.GetStatInfo(1, nullptr, nullptr); }},
  };
}

std::vector<Refused> fidsOperations() {
  return {
      {"InsertFid", "Could not prepeare the Insert Fid query",
       [](DCSqliteDB& db) { db.InsertFid(&kFid, 1, 0); }},
      {"UpdateSeqNum", "Could not prepeare the Update SeqNum query",
       [](DCSqliteDB& db) { db.UpdateSeqNum(1, 1); }},
      {"MarkForSelectiveRescan", "Could not prepeare the Get MarkRescan query",
       [](DCSqliteDB& db) { db.MarkForSelectiveRescan(1); }},
      {"DeleteFidGivenRowId", "Could not prepeare the Remove Row query",
       [](DCSqliteDB& db) { db.DeleteFidGivenRowId(1); }},
      {"DeleteFid", "Could not prepeare the Remove Row query",
       [](DCSqliteDB& db) { db.DeleteFid(1); }},
      {"ClearRescan", "Could not prepeare the Check SeqNum query",
       [](DCSqliteDB& db) { db.ClearRescan(); }},
      {"GetFidTuple", "Could not prepeare the GetFid query",
       [](DCSqliteDB& db) {
         db.GetFidTuple(&kFid, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
       }},
      {"GetFidAndFilesRowId", "Could not prepeare the GetFidAndFilesRowId  query",
       [](DCSqliteDB& db) { db.GetFidAndFilesRowId(1, nullptr, nullptr); }},
      {"GetFidGivenFidsRowId", "Could not prepeare the Get Rescan query",
       [](DCSqliteDB& db) { db.GetFidGivenFidsRowId(1, nullptr); }},
      {"GetRescanList", "Could not prepeare the Get Rescan query",
       [](DCSqliteDB& db) { db.GetRescanList(nullptr); }},
  };
}

TEST_F(RowOperations, EachOperationSaysThatItsStatementCannotBePrepared) {
  db.filesDb->exec_query("DROP TABLE FILES");
  db.fidDb->exec_query("DROP TABLE FIDS");
  auto operations = filesOperations();
  for (Refused& more : fidsOperations()) operations.push_back(std::move(more));
  for (const Refused& refused : operations) {
    const LogCapture log(0);
    const UDCException e = failureOf([&] { refused.operation(db); });
    EXPECT_EQ(e.GetType(), 3) << refused.tag;
    EXPECT_EQ(e.GetErrorNumber(), SQLITE_ERROR) << refused.tag;
    EXPECT_EQ(e.GetMessage(), refused.cannotPrepare);
    EXPECT_TRUE(log.has(std::string("error 0 DCSqliteDB :: ") + refused.tag + ": eRRoR -- " +
                        e.GetErrorMsg()))
        << refused.tag;
  }
}

TEST_F(RowOperations, AStatementThatCouldNotBePreparedIsTriedAgain) {
  db.filesDb->exec_query("ALTER TABLE FILES RENAME TO AWAY");
  EXPECT_THROW(db.DeleteInode(1), UDCException);
  db.filesDb->exec_query("ALTER TABLE AWAY RENAME TO FILES");
  EXPECT_EQ(db.DeleteInode(1), 0);
}

TEST_F(RowOperations, AReadThatFailsHalfWaySaysSoAndCanBeTriedAgain) {
  insert("a", 'A', kRegular, 0);
  EXPECT_TRUE(db.GetStatInfo(1, nullptr, nullptr));
  db.filesDb->exec_query("ALTER TABLE FILES RENAME TO AWAY");
  const UDCException e = failureOf([&] { db.GetStatInfo(1, nullptr, nullptr); });
  EXPECT_EQ(e.GetType(), 3);
  EXPECT_EQ(e.GetMessage(), "Could not execute prepeared query");
  EXPECT_EQ(e.GetErrorNumber(), SQLITE_ERROR);
  db.filesDb->exec_query("ALTER TABLE AWAY RENAME TO FILES");
  EXPECT_TRUE(db.GetStatInfo(1, nullptr, nullptr));
}

TEST_F(RowOperations, AnUpdateThatFailsHalfWayCanBeTriedAgain) {
  insert("a", 'A', kRegular, 0);
  db.DeleteInode(99);
  db.filesDb->exec_query("ALTER TABLE FILES RENAME TO AWAY");
  EXPECT_THROW(db.DeleteInode(1), UDCException);
  db.filesDb->exec_query("ALTER TABLE AWAY RENAME TO FILES");
  EXPECT_EQ(db.DeleteInode(1), 0);
  EXPECT_TRUE(committedFiles("*").empty());
}

TEST_F(RowOperations, AValueThatSqliteCannotBindIsNamed) {
  const auto refusedWith = [&](const char* message, const std::function<void()>& operation) {
    const UDCException e = failureOf(operation);
    EXPECT_EQ(e.GetType(), 3);
    EXPECT_EQ(e.GetErrorNumber(), SQLITE_TOOBIG);
    EXPECT_EQ(e.GetMessage(), message);
  };
  sqlite3_limit(db.filesDb->handle, SQLITE_LIMIT_LENGTH, 1000);
  const std::string tooLong(2000, 'n');
  refusedWith("NAME Bind failed", [&] { insert(tooLong, 'A', kRegular, 0); });
  refusedWith("NAME Bind failed",
              [&] { db.GetRowIdAndFileType(1, tooLong.c_str(), nullptr, nullptr, nullptr); });
}

TEST_F(RowOperations, StatementsArePreparedOnceAndGoneAfterFinalizing) {
  insert("a", 'A', kRegular, 0);
  int prepared = 0;
  for (sqlite3_stmt* s = sqlite3_next_stmt(db.filesDb->handle, nullptr); s;
       s = sqlite3_next_stmt(db.filesDb->handle, s))
    ++prepared;
  EXPECT_EQ(prepared, 2);
  insert("b", 'B', kRegular, 0);
  db.FinalizePreCompiledStatements();
  EXPECT_EQ(sqlite3_next_stmt(db.filesDb->handle, nullptr), nullptr);
  insert("c", 'C', kRegular, 0);
  EXPECT_EQ(committedFiles("NAME"), (Rows{"a", "b", "c"}));
}

}  // namespace
