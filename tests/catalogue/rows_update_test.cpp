// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What updates and deletions do to the rows that are there.
#include <gmock/gmock.h>

#include <ctime>
#include <list>
#include <string>

#include "platform/exceptions.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_operations.h"
#include "tests/support/udc_failure.h"

namespace {

using kddc::test::failureOf;
using kddc::test::LogCapture;
using kddc::test::RowOperations;

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

}  // namespace
