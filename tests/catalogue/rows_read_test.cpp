// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What is read of single rows: by identifier, by name, by number.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <functional>
#include <list>
#include <string>

#include "platform/exceptions.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_operations.h"
#include "tests/support/udc_failure.h"

namespace {

using kddc::test::failureOf;
using kddc::test::fidOf;
using kddc::test::LogCapture;
using kddc::test::RowOperations;
using testing::ElementsAre;

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

}  // namespace
