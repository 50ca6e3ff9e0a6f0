// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "tests/support/journal_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::fidOf;
using kddc::test::LogCapture;

constexpr char kAll[] =
    "PINODE,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME,FILE_TYPE,NAME";

// The folder "top" is row 1, identifier T.
struct NewEntries : kddc::test::JournalTest {
  NewEntries() { insert("top", 'T', kDirectory, 0); }

  static FlrJrnCreateRaw file(char parent) {
    return {.par_fid = fidOf(parent),
            .fid = fidOf('A'),
            .short_name = "file",
            .mode = 0100640,
            .uid = 501,
            .gid = 20,
            .atime = {40, 1},
            .mtime = {50, 2},
            .rdev = 99};
  }
  static FlrJrnMkDirRaw folderRecord(char parent, unsigned mode) {
    return {.par_fid = fidOf(parent),
            .fid = fidOf('A'),
            .short_name = "dir",
            .mode = mode,
            .uid = 501,
            .gid = 20,
            .atime = {40, 1},
            .mtime = {50, 2}};
  }
  std::string newRow() { return committedFiles(kAll).at(1); }
};

TEST_F(NewEntries, AFileGetsOneLinkNoSizeAndItsModificationTimeAsChangeTime) {
  db.Create(file('T'));
  EXPECT_EQ(newRow(), "1|33184|1|501|20|0|0|40|50|50|50|0|file");
  EXPECT_EQ(committedFids("FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN,FID1").at(1),
            "2|2|0|0|71748523475265");
}

TEST_F(NewEntries, TheTypeOfAFileFollowsFromItsMode) {
  FlrJrnCreateRaw fifo = file('T');
  fifo.mode = 010644;
  db.Create(fifo);
  EXPECT_EQ(committedFiles("FILE_TYPE").at(1), "5");
}

TEST_F(NewEntries, AFolderGetsTwoLinksAndIsAFolderWhateverItsMode) {
  db.MkDir(folderRecord('T', kDirectory));
  EXPECT_EQ(newRow(), "1|16877|2|501|20|0|0|40|50|50|50|1|dir");
  db.MkDir(folderRecord('T', 0));
  EXPECT_EQ(committedFiles("MODE,FILE_TYPE").at(2), "0|1");
}

TEST_F(NewEntries, ASymbolicLinkHasTheRecordsTimesAndTheLengthOfItsTarget) {
  db.CreateSymLink({"a/b", fidOf('T'), "pointer", fidOf('A'), 501, 20}, kAt);
  EXPECT_EQ(newRow(), "1|41471|1|501|20|3|0|5000|5000|5000|5000|2|pointer");
}

TEST_F(NewEntries, AnUnknownParentCountsAsInodeZero) {
  db.Create(file('X'));
  db.MkDir(folderRecord('X', kDirectory));
  db.CreateSymLink({"a/b", fidOf('X'), "pointer", fidOf('A'), 501, 20}, kAt);
  EXPECT_EQ(committedFiles("PINODE,NAME"), (Rows{"0|top", "0|file", "0|dir", "0|pointer"}));
}

TEST_F(NewEntries, NewIsStampedNotEarlierThanTheCatalogueWasOpened) {
  db.openTime = time(nullptr) - 5;
  db.Create(file('T'));
  EXPECT_EQ(committedFiles(kStamp).at(1), "now");
}

TEST_F(NewEntries, FailingToInsertTheIdentifierKeepsTheFile) {
  fidsSql("DROP TABLE FIDS");
  fidsSql(
      "CREATE TABLE FIDS (FIDS_ROWID INTEGER PRIMARY KEY, FILES_ROWID, SEQNUM, RESCAN, FID1, FID2, "
      "FID3, FID4 CHECK (FID4 IS NULL))");
  const LogCapture log(0);
  kddc::test::failureOf([&] { db.Create(file('X')); });
  kddc::test::failureOf([&] { db.MkDir(folderRecord('X', kDirectory)); });
  kddc::test::failureOf([&] { db.CreateSymLink({"t", fidOf('X'), "s", fidOf('A'), 1, 2}, kAt); });
  EXPECT_EQ(committedFiles("NAME"), (Rows{"top", "file", "dir", "s"}));
  for (const char* tag : {"Create", "MkDir", "CreateSymLink"})
    EXPECT_TRUE(log.mentions(std::string("error 0 DCSqliteDB :: ") + tag + ": eRRoR -- ")) << tag;
}

}  // namespace
