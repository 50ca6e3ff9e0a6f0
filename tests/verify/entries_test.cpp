// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One entry against its rows: every kind of difference, every kind of damage, and which of them
// leave the entry unmarked.
#include <fcntl.h>

#include <utility>

#include "platform/exceptions.h"
#include "tests/support/verified_volume.h"

namespace {

using kddc::test::VerifiedVolume;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kOfFolder = "debug 1 DCSqliteDB :: VerifyFolder: ";
const std::string kOfFile = "debug 1 DCSqliteDB :: VerifyFile: ";

// Inode 1 is the root, 2 the folder "d", 3 the file "f" in the root.
struct VerifyEntry : VerifiedVolume {
  void SetUp() override {
    begin("tmpfs");
    if (IsSkipped()) return;
    folder("d");
    file("f");
    files("UPDATE FILES SET GID=0");
  }
  // Which inodes and FIDS rows are marked as seen.
  Lines marks() {
    Lines marks = cells(*db->filesDb, "SELECT 'files '||INODE FROM FILES WHERE GID=1");
    for (std::string& fid : cells(*db->fidDb, "SELECT 'fids '||FIDS_ROWID FROM FIDS WHERE RESCAN"))
      marks.push_back(std::move(fid));
    return marks;
  }
  // A time that does not depend on the clock, on the disk and in the row.
  void stamp(const std::string& name, time_t mtime) {
    const timespec times[] = {{.tv_sec = 1, .tv_nsec = 0}, {.tv_sec = mtime, .tv_nsec = 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
};

TEST_F(VerifyEntry, AFolderThatAgreesIsMarkedInBothDatabases) {
  EXPECT_THAT(verifyFolder("d"), ElementsAre("true 2"));
  EXPECT_THAT(marks(), ElementsAre("files 2", "fids 2"));
}

TEST_F(VerifyEntry, AFolderThatDiffersIsMarkedAllTheSame) {
  files("UPDATE FILES SET PINODE=9,FILE_TYPE=8,NAME='D' WHERE INODE=2");
  EXPECT_THAT(verifyFolder("d"),
              ElementsAre(kOfFolder + "[V/d] Pinode differs. DB has[9]. Current[1]",
                          kOfFolder + "[V/d] is a Folder, But DB thinks it is not [8]",
                          kOfFolder + "[V/d] Name in DB[D] Name on Disk[d]", "true 2"));
  EXPECT_THAT(marks(), ElementsAre("files 2", "fids 2"));
}

TEST_F(VerifyEntry, AFolderUnderAnotherParentDiffersByItsWholeNumber) {
  files("UPDATE FILES SET PINODE=4294967297 WHERE INODE=2");
  EXPECT_THAT(verifyFolder("d", 9223372036854775807U),
              ElementsAre(kOfFolder + "[V/d] Pinode differs. DB has[4294967297]. "
                                      "Current[9223372036854775807]",
                          "true 2"));
}

TEST_F(VerifyEntry, AFolderWithoutARowOfItsIdentifierHasNoInode) {
  fids("DELETE FROM FIDS WHERE FILES_ROWID=2");
  EXPECT_THAT(
      verifyFolder("d"),
      ElementsAre(kOfFolder + "[V/d] has multiple or no entries [0] in the FIDS DB", "false 77"));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(VerifyEntry, AFolderWithTwoRowsOfItsIdentifierHasTheInodeOfTheLast) {
  fids(
      "INSERT INTO FIDS SELECT NULL,5,SEQNUM,RESCAN,FID1,FID2,FID3,FID4 FROM FIDS "
      "WHERE FILES_ROWID=2");
  EXPECT_THAT(
      verifyFolder("d"),
      ElementsAre(kOfFolder + "[V/d] has multiple or no entries [2] in the FIDS DB", "false 5"));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(VerifyEntry, AFolderIsSeenOnce) {
  verifyFolder("d");
  EXPECT_THAT(verifyFolder("d"),
              ElementsAre(kOfFolder + "Fid for [V/d] has already been visited", "false 2"));
}

TEST_F(VerifyEntry, AFolderWithoutAFilesRowIsNotMarked) {
  files("DELETE FROM FILES WHERE INODE=2");
  EXPECT_THAT(
      verifyFolder("d"),
      ElementsAre(kOfFolder + "[V/d] has multiple or no entries [0] in the FILES DB", "false 2"));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(VerifyEntry, AFolderWithANullIsNotMarked) {
  for (const std::string column : {"PINODE", "FILE_TYPE", "NAME"}) {
    files("SAVEPOINT before");
    files("UPDATE FILES SET " + column + "=NULL WHERE INODE=2");
    EXPECT_THAT(verifyFolder("d"),
                ElementsAre(kOfFolder + "[V/d] Pinode/FileType/Name is NULL", "false 2"))
        << column;
    EXPECT_THAT(marks(), IsEmpty());
    files("ROLLBACK TO before");
    files("RELEASE before");
  }
}

TEST_F(VerifyEntry, AFileThatAgreesIsMarkedInBothDatabases) {
  EXPECT_THAT(verifyFile("f"), IsEmpty());
  EXPECT_THAT(marks(), ElementsAre("files 3", "fids 3"));
}

TEST_F(VerifyEntry, AFileThatDiffersInEverythingIsMarkedAllTheSame) {
  stamp("f", 300);
  const std::string ctime = std::to_string(status("f").st_ctime);
  files(
      "UPDATE FILES SET PINODE=9,NLINK=2,SIZE=5000000000,ATIME=7,MTIME=7,CTIME=7,FILE_TYPE=1,"
      "NAME='F' WHERE INODE=3");
  EXPECT_THAT(verifyFile("f"),
              ElementsAre(kOfFile + "[V/f] Pinode differs. DB has[9]. Current[1]",
                          kOfFile + "[V/f] Nlink Differs. DB has[2]. Current[1]",
                          kOfFile + "[V/f] Size differs.DB has[5000000000]. Current[4]",
                          kOfFile + "[V/f] Mtime differs.DB has[7]. Current[300]",
                          kOfFile + "[V/f] Ctime differs.DB has[7]. Current[" + ctime + "]",
                          kOfFile + "[V/f] FileType differs.DB [ Folder] . Current [ File]",
                          kOfFile + "[V/f] ShortName differs. DB[F] . Current[f]"));
  EXPECT_THAT(marks(), ElementsAre("files 3", "fids 3"));
}

TEST_F(VerifyEntry, OfTypesOnlyAFolderInThePlaceOfAFileIsADifference) {
  for (const std::string type : {"0", "2", "6", "7", "8", "10"}) {
    files("UPDATE FILES SET GID=0,FILE_TYPE=" + type);
    fids("UPDATE FIDS SET RESCAN=0");
    EXPECT_THAT(verifyFile("f"), IsEmpty()) << type;
  }
}

TEST_F(VerifyEntry, TimesAreComparedAsTheCatalogueKeepsThem) {
  for (const time_t mtime : {4000000000L, 2147483648L, -5L}) {
    stamp("f", mtime);
    struct stat st = status("f");
    if (st.st_mtime != mtime) GTEST_SKIP() << "no such times here";
    db->Update(3, &st, 5);
    files("UPDATE FILES SET GID=0");
    fids("UPDATE FIDS SET RESCAN=0");
    EXPECT_THAT(verifyFile("f"), IsEmpty()) << mtime;
  }
}

TEST_F(VerifyEntry, ADamagedNumberCountsAsZero) {
  files("UPDATE FILES SET SIZE='many',NLINK=x'00' WHERE INODE=3");
  EXPECT_THAT(verifyFile("f"), ElementsAre(kOfFile + "[V/f] Nlink Differs. DB has[0]. Current[1]",
                                           kOfFile + "[V/f] Size differs.DB has[0]. Current[4]"));
}

TEST_F(VerifyEntry, AFileWithoutARowOfItsIdentifierIsNotMarked) {
  fids("DELETE FROM FIDS WHERE FILES_ROWID=3");
  EXPECT_THAT(verifyFile("f"),
              ElementsAre(kOfFile + "[V/f] has no corresponding entry in the FIDS DB"));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(VerifyEntry, AFileIsSeenOnce) {
  verifyFile("f");
  EXPECT_THAT(verifyFile("f"), ElementsAre(kOfFile + "[V/f] This FID has already been visited"));
}

TEST_F(VerifyEntry, AFileWhoseRescanIsNullIsNotMarked) {
  fids("UPDATE FIDS SET RESCAN=NULL WHERE FILES_ROWID=3");
  EXPECT_THAT(verifyFile("f"), ElementsAre(kOfFile + "[V/f] FIDS_ROWID[3] lookup failed"));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(VerifyEntry, AFileWithoutAFilesRowIsNotMarked) {
  files("DELETE FROM FILES WHERE INODE=3");
  EXPECT_THAT(verifyFile("f"),
              ElementsAre(kOfFile + "[V/f] has one/more[0] entries in the FILES DB"));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(VerifyEntry, AFileWithANullIsNotMarked) {
  for (const std::string column :
       {"PINODE", "GID", "NLINK", "SIZE", "ATIME", "MTIME", "CTIME", "FILE_TYPE", "NAME"}) {
    files("SAVEPOINT before");
    files("UPDATE FILES SET " + column + "=NULL WHERE INODE=3");
    EXPECT_THAT(
        verifyFile("f"),
        ElementsAre(kOfFile +
                    "[V/f]  PINODE/GID/NLINK/SIZE/ATIME/MTIME/CTIME/FILE_TYPE/NAME is NULL"))
        << column;
    EXPECT_THAT(marks(), IsEmpty());
    files("ROLLBACK TO before");
    files("RELEASE before");
  }
}

TEST_F(VerifyEntry, ARowThatAnotherIdentifierClaimedIsNotMarkedAgain) {
  files("UPDATE FILES SET GID=2 WHERE INODE=3");
  EXPECT_THAT(verifyFile("f"), ElementsAre(kOfFile + "[V/f] This INODE has already been visited"));
  EXPECT_THAT(marks(), IsEmpty());
}

// A file with two names: inode 3 is "f", inode 4 "it's", FIDS rows 3 and 4 have one identifier.
struct VerifyLinks : VerifyEntry {
  void SetUp() override {
    VerifyEntry::SetUp();
    if (IsSkipped()) return;
    link("f", "it's", 3);
    files("UPDATE FILES SET GID=0");
  }
};

TEST_F(VerifyLinks, EachNameIsMarkedByItsOwnRows) {
  EXPECT_THAT(verifyFile("it's"), IsEmpty());
  EXPECT_THAT(marks(), ElementsAre("files 4", "fids 4"));
  EXPECT_THAT(verifyFile("f"), IsEmpty());
  EXPECT_THAT(marks(), ElementsAre("files 3", "files 4", "fids 3", "fids 4"));
}

TEST_F(VerifyLinks, ANameIsSeenOnce) {
  verifyFile("it's");
  EXPECT_THAT(verifyFile("it's"),
              ElementsAre(kOfFile + "[V/it's] This FID has already been visited"));
}

TEST_F(VerifyLinks, ASecondNameWithoutRowsOfItsOwnFindsThoseOfTheFirst) {
  fids("DELETE FROM FIDS WHERE FILES_ROWID=4");
  EXPECT_THAT(verifyFile("f"), IsEmpty());
  EXPECT_THAT(verifyFile("it's"),
              ElementsAre(kOfFile + "[V/it's] This FID has already been visited"));
}

TEST_F(VerifyLinks, ANameThatIsNotInTheFolderIsReportedWithTheQuery) {
  files("UPDATE FILES SET NAME='other' WHERE INODE=4");
  EXPECT_THAT(verifyFile("it's"),
              ElementsAre(kOfFile + "Query[SELECT INODE FROM FILES WHERE PINODE=1 AND "
                                    "NAME='it''s']",
                          kOfFile + "[V/it's] has multiple entries in the FILES DB[0] "));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(VerifyLinks, ANameThatIsTwiceInTheFolderIsReportedWithTheQuery) {
  files("INSERT INTO FILES (PINODE,NAME) VALUES (1,'f')");
  EXPECT_THAT(verifyFile("f"),
              ElementsAre(kOfFile + "Query[SELECT INODE FROM FILES WHERE PINODE=1 AND NAME='f']",
                          kOfFile + "[V/f] has multiple entries in the FILES DB[2] "));
}

TEST_F(VerifyLinks, ARowThatNoRowOfTheIdentifierNamesIsReported) {
  fids("UPDATE FIDS SET FILES_ROWID=50 WHERE FIDS_ROWID=4");
  EXPECT_THAT(verifyFile("it's"),
              ElementsAre(kOfFile + "[V/it's] RowId mis match between FIDS[4] and FILES[4] DB"));
  fids("UPDATE FIDS SET FILES_ROWID=51 WHERE FIDS_ROWID=3");
  EXPECT_THAT(verifyFile("f"),
              ElementsAre(kOfFile + "[V/f] RowId mis match between FIDS[4] and FILES[3] DB"));
  EXPECT_THAT(marks(), IsEmpty());
}

TEST_F(VerifyLinks, TheLongestNameOfQuotesFitsIntoTheQuery) {
  const std::string name(255, '\'');
  link("f", name, 3);
  files("UPDATE FILES SET GID=0");
  struct stat st = status("f");
  db->Update(4, &st, 5);
  files("UPDATE FILES SET GID=0");
  EXPECT_THAT(verifyFile(name), IsEmpty());
}

TEST_F(VerifyLinks, ANameThatNoDiskHasIsTooLongForTheQuery) {
  struct stat st = status("f");
  EXPECT_THAT(said([&] {
                EXPECT_THROW(db->VerifyFile(path("f"), 1, std::string(1000, 'x').c_str(), st),
                             std::length_error);
              }),
              ElementsAre("error 0 DCSqliteDB :: VerifyFile: eRRoR -- "
                          "SQL text is longer than its buffer"));
}

}  // namespace
