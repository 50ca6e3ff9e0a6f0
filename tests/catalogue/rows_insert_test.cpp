// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What an insert writes: a row of a file, one of its identifier, and how they find each other.
#include <gmock/gmock.h>

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/row_operations.h"

namespace {

using kddc::test::LogCapture;
using kddc::test::RowOperations;
using testing::ElementsAre;

constexpr char kPlaceholder[] = "9223372036854775807";

// What the connection runs from now on, with the values bound.
void noteStatements(sqlite3* connection, std::vector<std::string>& seen) {
  sqlite3_trace_v2(
      connection, SQLITE_TRACE_STMT,
      [](unsigned, void* out, void* statement, void*) {
        char* text = sqlite3_expanded_sql(static_cast<sqlite3_stmt*>(statement));
        static_cast<std::vector<std::string>*>(out)->emplace_back(text);
        sqlite3_free(text);
        return 0;
      },
      &seen);
}

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
  noteStatements(db.filesDb->handle, seen);
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
  noteStatements(db.fidDb->handle, seen);
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

}  // namespace
