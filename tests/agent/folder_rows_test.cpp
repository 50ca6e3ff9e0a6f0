// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/folder_rows.h"

#include <gmock/gmock.h>

#include <memory>

#include "tests/support/catalogue.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;

// The root is row 1; below it, in this order, "c", "a", "b" and the folder "d" with "x".
struct FolderRowsTest : OpenCatalogueTest {
  FolderRowsTest() {
    insert("/volume", 'R', kDirectory, 0);
    insert("c", 'C', kRegular, 1);
    insert("a", 'A', kRegular, 1);
    insert("b", 'B', kRegular, 1);
    insert("d", 'D', kDirectory, 1);
    insert("x", 'X', kRegular, 5);
    db.Commit();
  }
  void run(const std::string& sql) {
    db.filesDb->exec_query(sql.c_str());
    db.Commit();
  }
  static std::vector<std::string> names(FolderRows& rows) {
    std::vector<std::string> names;
    for (const FolderRow& row : rows.all()) names.emplace_back(rows.nameOf(row));
    return names;
  }
  static std::int64_t met(FolderRows& rows, std::string_view name) {
    const FolderRow* row = rows.meet(name);
    return row ? row->inode : 0;
  }
};

TEST_F(FolderRowsTest, HasTheRowsOfOneFolderAtATime) {
  FolderRows rows(folder);
  rows.load(1);
  EXPECT_THAT(names(rows), ElementsAre("c", "a", "b", "d"));
  rows.load(5);
  EXPECT_THAT(names(rows), ElementsAre("x"));
  rows.load(77);
  EXPECT_TRUE(rows.all().empty());
  EXPECT_EQ(rows.rows(), 5u);
  EXPECT_EQ(rows.pairs(), 5u);
}

TEST_F(FolderRowsTest, ARowIsAsItStandsInTheCatalogue) {
  FolderRows rows(folder);
  rows.load(5);
  const FolderRow& x = rows.all().front();
  EXPECT_EQ(x.inode, 6);
  EXPECT_EQ(x.fidsRowId, 6);
  EXPECT_EQ(x.size, 4096);
  EXPECT_EQ(x.mode, 0100644u);
  EXPECT_EQ(x.links, 1u);
  EXPECT_EQ(x.uid, 501u);
  EXPECT_EQ(x.gid, 20u);
  EXPECT_EQ(x.mtime, 2000u);
  EXPECT_EQ(x.ctime, 3000u);
  EXPECT_EQ(x.type, 0);
  EXPECT_TRUE(x.knowsFid);
  EXPECT_EQ(x.fid, fidOf('X'));
}

TEST_F(FolderRowsTest, NamesAreMetInAnyOrderAndOnceEach) {
  FolderRows rows(folder);
  rows.load(1);
  EXPECT_EQ(met(rows, "c"), 2);
  EXPECT_EQ(met(rows, "a"), 3);
  EXPECT_EQ(met(rows, "d"), 5);
  EXPECT_EQ(met(rows, "b"), 4);
  EXPECT_EQ(met(rows, "b"), 0);
  EXPECT_EQ(met(rows, "x"), 0) << "that lies in another folder";
  EXPECT_EQ(met(rows, ""), 0);
}

TEST_F(FolderRowsTest, AfterANameThatIsNotThereTheNextIsFound) {
  FolderRows rows(folder);
  rows.load(1);
  EXPECT_EQ(met(rows, "new"), 0);
  EXPECT_EQ(met(rows, "c"), 2);
  EXPECT_EQ(met(rows, "newer"), 0);
  EXPECT_EQ(met(rows, "a"), 3);
}

TEST_F(FolderRowsTest, OfTwoRowsOfOneNameTheSecondIsADuplicateOnceTheFirstIsMet) {
  insert("b", 'E', kRegular, 1);
  db.Commit();
  FolderRows rows(folder);
  rows.load(1);
  EXPECT_FALSE(rows.isDuplicate(rows.all()[2]));
  const std::int64_t first = met(rows, "b");
  const FolderRow& other = rows.all()[first == 4 ? 4 : 2];
  EXPECT_TRUE(rows.isDuplicate(other));
  EXPECT_FALSE(rows.isDuplicate(rows.all()[0]));
}

TEST_F(FolderRowsTest, ARowKnowsItsIdentifierOnlyWhenTheTwoSpeakOfEachOther) {
  run("UPDATE FILES SET FID_ROWID=99 WHERE NAME='a'");
  run("UPDATE FILES SET FID_ROWID=2 WHERE NAME='b'");
  FolderRows rows(folder);
  rows.load(1);
  EXPECT_TRUE(rows.all()[0].knowsFid);
  EXPECT_FALSE(rows.all()[1].knowsFid);
  EXPECT_FALSE(rows.all()[2].knowsFid);
  EXPECT_TRUE(rows.all()[3].knowsFid);
  EXPECT_EQ(rows.pairs(), 2u);
}

TEST_F(FolderRowsTest, IdentifiersFarApartAreFound) {
  for (int i = 0; i < 20; ++i) insert("other" + std::to_string(i), 'O', kRegular, 5);
  insert("late", 'L', kRegular, 1);
  db.Commit();
  FolderRows rows(folder);
  rows.load(1);
  EXPECT_EQ(rows.all().back().fid, fidOf('L'));
  EXPECT_EQ(rows.pairs(), 5u);
}

TEST_F(FolderRowsTest, AFolderIsFoundByItsIdentifierAndAFileIsNone) {
  FolderRows rows(folder);
  EXPECT_EQ(rows.folderOf(fidOf('D')), 5);
  EXPECT_EQ(rows.folderOf(fidOf('R')), 1);
  EXPECT_EQ(rows.folderOf(fidOf('A')), std::nullopt);
  EXPECT_EQ(rows.folderOf(fidOf('Z')), std::nullopt);
}

TEST_F(FolderRowsTest, SeesWhatWasCommittedBeforeItBeganAndMoreAfterARelease) {
  FolderRows rows(folder);
  rows.load(5);
  insert("y", 'Y', kRegular, 5);
  db.Commit();
  rows.load(5);
  EXPECT_THAT(names(rows), ElementsAre("x"));
  rows.release();
  rows.load(5);
  EXPECT_THAT(names(rows), ElementsAre("x", "y"));
}

}  // namespace
}  // namespace kddc::test
