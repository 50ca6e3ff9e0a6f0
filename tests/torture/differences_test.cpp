// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Every way in which a catalogue can be wrong is found, each by a line of its own.
#include "tests/torture/differences.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <limits>
#include <string>

#include "tests/support/database_view.h"
#include "tests/support/temp_folder.h"

namespace kddc::torture {
namespace {

using test::DatabaseView;
using test::TempFolder;
using testing::ElementsAre;
using testing::IsEmpty;

// A folder with a folder and two files, on the disk and in a catalogue that is exact.
struct DifferencesTest : testing::Test {
  static constexpr Facts kFolder() { return {1, 040755, 5, 6, 2, 4096, 1000, ""}; }
  static constexpr Facts kFile() { return {0, 0100644, 5, 6, 1, 70, 2000, ""}; }

  Tree disk;
  CatalogueRows rows;

  DifferencesTest() {
    add(1, 0, ".", "/mnt/volume", kFolder());
    add(2, 1, "sub", "sub", kFolder());
    add(3, 2, "sub/a", "a", kFile());
    add(4, 2, "sub/b", "b", kFile());
  }
  void add(std::int64_t inode, std::int64_t parent, const std::string& path,
           const std::string& name, const Facts& facts) {
    const std::string fid = "fid" + std::to_string(inode);
    disk[path] = facts;
    disk[path].fid = fid;
    rows.files.push_back({inode, parent, inode + 10, name, facts});
    rows.fids.push_back({inode + 10, inode, fid});
  }
  FilesRow& a() { return rows.files[2]; }
  FilesRow& b() { return rows.files[3]; }
  Lines found() const { return differences(disk, rows); }
};

TEST_F(DifferencesTest, AnExactCatalogueHasNone) {
  EXPECT_THAT(found(), IsEmpty());
}

TEST_F(DifferencesTest, AMissingEntry) {
  disk["sub/new\n"] = kFile();
  EXPECT_THAT(found(), ElementsAre("missing: sub/new\\x0a"));
}

TEST_F(DifferencesTest, AnEntryThatIsNotThere) {
  disk.erase("sub/b");
  EXPECT_THAT(found(), ElementsAre("extra: sub/b (FILES row 4)"));
}

TEST_F(DifferencesTest, ANameThatHasTwoRows) {
  b().name = "a";
  disk.erase("sub/b");
  EXPECT_THAT(found(), ElementsAre("duplicate: sub/a (FILES row 4)"));
}

TEST_F(DifferencesTest, ATypeThatDiffers) {
  a().facts.type = 8;
  EXPECT_THAT(found(), ElementsAre("different: sub/a: type 0 on the disk, 8 in the catalogue"));
}

TEST_F(DifferencesTest, AModeThatDiffers) {
  a().facts.mode = 0100600;
  EXPECT_THAT(found(),
              ElementsAre("different: sub/a: mode 33188 on the disk, 33152 in the catalogue"));
}

TEST_F(DifferencesTest, AnOwnerThatDiffers) {
  a().facts.uid = 7;
  a().facts.gid = 8;
  EXPECT_THAT(found(), ElementsAre("different: sub/a: uid 5 on the disk, 7 in the catalogue",
                                   "different: sub/a: gid 6 on the disk, 8 in the catalogue"));
}

TEST_F(DifferencesTest, ALinkCountThatDiffers) {
  a().facts.nlink = 2;
  EXPECT_THAT(found(), ElementsAre("different: sub/a: nlink 1 on the disk, 2 in the catalogue"));
}

TEST_F(DifferencesTest, ASizeThatDiffersAFoldersToo) {
  a().facts.size = 71;
  disk["."].size = 12288;
  EXPECT_THAT(found(), ElementsAre("different: .: size 12288 on the disk, 4096 in the catalogue",
                                   "different: sub/a: size 70 on the disk, 71 in the catalogue"));
}

TEST_F(DifferencesTest, AModificationTimeThatDiffers) {
  a().facts.mtime = 2001;
  EXPECT_THAT(found(),
              ElementsAre("different: sub/a: mtime 2000 on the disk, 2001 in the catalogue"));
}

TEST_F(DifferencesTest, AnIdentifierThatDiffers) {
  rows.fids[2].fid = "another";
  EXPECT_THAT(found(),
              ElementsAre("different: sub/a: fid fid3 on the disk, another in the catalogue"));
}

TEST_F(DifferencesTest, ARowWithoutIdentifier) {
  rows.fids.erase(rows.fids.begin() + 2);
  EXPECT_THAT(found(), ElementsAre("without identifier: a (FILES row 3)"));
}

TEST_F(DifferencesTest, AnIdentifierWithoutARow) {
  rows.fids.push_back({50, 51, "lonely"});
  EXPECT_THAT(found(), ElementsAre("identifier without a row: lonely (FIDS row 50)"));
}

TEST_F(DifferencesTest, AnIdentifierThatNamesARowOfAnother) {
  rows.fids[2].filesRow = 4;
  EXPECT_THAT(found(), ElementsAre("without identifier: a (FILES row 3)",
                                   "identifier without a row: fid3 (FIDS row 13)"));
}

TEST_F(DifferencesTest, ARowWithoutParent) {
  a().parent = 99;
  EXPECT_THAT(found(), ElementsAre("without parent: a (FILES row 3)", "missing: sub/a"));
}

TEST_F(DifferencesTest, ARowBelowAFile) {
  a().parent = 4;
  EXPECT_THAT(found(), ElementsAre("below what is no folder: a (FILES row 3)", "missing: sub/a"));
}

TEST_F(DifferencesTest, AFolderBelowItself) {
  a() = {3, 3, 13, "a", kFolder()};
  EXPECT_THAT(found(), ElementsAre("below itself: a (FILES row 3)", "missing: sub/a"));
}

TEST_F(DifferencesTest, ARowThatWaitsForANameThatDoesNotCome) {
  rows.files.push_back({9, std::numeric_limits<std::int64_t>::max(), 19, "", kFile()});
  rows.fids.push_back({19, 9, "fid9"});
  EXPECT_THAT(found(), ElementsAre("parked:  (FILES row 9)"));
}

TEST_F(DifferencesTest, PathsThatAreNotPrintedOrNotThereOrPrintedTwice) {
  EXPECT_THAT(pathDifferences(disk, {".", "sub", "sub/a", "sub/a", "c"}),
              ElementsAre("printed twice: sub/a", "printed, not there: c", "not printed: sub/b"));
}

TEST_F(DifferencesTest, WhatLivedThroughoutKeepsOneOfItsInodes) {
  const Inodes before = {{"x", {1}}, {"y", {2}}, {"links", {3, 4}}, {"gone", {5}}};
  const Inodes after = {{"x", {1}}, {"y", {6}}, {"links", {4, 7}}};
  EXPECT_THAT(inodeDifferences(before, after), ElementsAre("lost: gone", "other inode: y"));
}

struct CheckProgramTest : testing::Test {
  TempFolder temp;
  std::string volume = temp / "volume", catalogue = temp / "catalogue";

  CheckProgramTest() {
    std::filesystem::create_directories(volume + "/sub");
    temp.write("volume/sub/a\n\xff", "four");
    std::filesystem::create_hard_link(volume + "/sub/a\n\xff", volume + "/link");
    std::filesystem::create_symlink("text", volume + "/symlink");
    const std::string scan = " --catalogue " + catalogue + " -q scan " + volume;
    EXPECT_EQ(exitOf(KDDC_PROGRAM + scan), 0);
  }
  static int exitOf(const std::string& command) {
    return WEXITSTATUS(std::system((command + " >/dev/null 2>&1").c_str()));
  }
  int exact() const { return exitOf(KDDC_CHECK " exact " + volume + " " + catalogue); }
};

TEST_F(CheckProgramTest, AFreshScanIsExactUntilARowIsChanged) {
  EXPECT_EQ(exact(), 0);
  DatabaseView(catalogue + "/.db.kd").rows("UPDATE FILES SET SIZE=5 WHERE NAME='link'");
  EXPECT_EQ(exact(), 1);
}

TEST_F(CheckProgramTest, AChangeOfAnIdentifierIsFound) {
  DatabaseView(catalogue + "/.fid.kd").rows("UPDATE FIDS SET FID2=FID2+1 WHERE FIDS_ROWID=3");
  EXPECT_EQ(exact(), 1);
}

TEST_F(CheckProgramTest, AFileThatCameSinceTheScanIsFound) {
  temp.write("volume/new", "");
  EXPECT_EQ(exact(), 1);
}

TEST_F(CheckProgramTest, TheListIsComparedByteForByte) {
  const std::string list =
      KDDC_PROGRAM " --catalogue " + catalogue + " -q list -0 " + volume + " | ";
  const std::string check = KDDC_CHECK " paths " + volume;
  EXPECT_EQ(exitOf(list + check), 0);
  EXPECT_EQ(exitOf(list + "head -z -n 3 | " + check), 1);
}

TEST_F(CheckProgramTest, WithoutACatalogueItCannotTell) {
  std::filesystem::remove(catalogue + "/.fid.kd");
  EXPECT_EQ(exact(), 2);
}

}  // namespace
}  // namespace kddc::torture
