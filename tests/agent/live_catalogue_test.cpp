// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the catalogue knows of identifiers and names, and its row operations for names in doubt.
#include "agent/live/live_catalogue.h"

#include <gmock/gmock.h>

#include "tests/support/live_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// The root is row 1; rows are numbered in the order of their insertion.
struct LiveCatalogueTest : SettleTest {
  unsigned long long insert(const char* name, char file, unsigned long long parent,
                            unsigned mode = kRegular) {
    StatFidName_s e = entry(name, file, mode);
    return db.insertRow(e, parent, S_ISDIR(mode) ? 1 : 0);
  }
  unsigned long long insertFolder(const char* name, char file, unsigned long long parent) {
    return insert(name, file, parent, kDirectory);
  }
  Name row(unsigned long long inode) { return db.rowAt(inode).value_or(Name()); }
  void run(const std::string& sql) const { db.filesDb->exec_query(sql.c_str()); }
  static std::vector<unsigned long long> inodesOf(const std::vector<Name>& names) {
    std::vector<unsigned long long> inodes;
    for (const Name& name : names) inodes.push_back(name.inode);
    return inodes;
  }
  std::string pairs() {
    db.Commit();
    return DatabaseView(fidsPath).cell("SELECT GROUP_CONCAT(FILES_ROWID) FROM FIDS");
  }
  // The row of a name; 0 when nobody bears it.
  unsigned long long bearer(unsigned long long parent, const char* name) {
    const auto found = db.bearerOf(parent, name);
    return found ? found->inode : 0;
  }
};

TEST_F(LiveCatalogueTest, AParkedRowHasNoNameAndKeepsItsIdentifierAndWhatLiesBelow) {
  insertFolder("d", 'D', 1);
  insert("a", 'A', 2);
  db.park(row(2));
  EXPECT_THAT(written(), ElementsAre("1|0|/volume", "2|9223372036854775807|", "3|2|a"));
  EXPECT_THAT(inodesOf(db.parkedRows()), ElementsAre(2u));
  EXPECT_EQ(db.parkedRows()[0].fid, fidOf('D'));
  EXPECT_EQ(db.folderOf(fidOf('D')), 2u);
  EXPECT_EQ(bearer(1, "d"), 0u);
  expectPaired();
}

TEST_F(LiveCatalogueTest, ADroppedRowTakesItsIdentifierAlongAndNothingElse) {
  insertFolder("d", 'D', 1);
  insert("a", 'A', 2);
  EXPECT_EQ(db.folderOf(fidOf('D')), 2u);
  db.drop(row(2));
  EXPECT_THAT(written(), ElementsAre("1|0|/volume", "3|2|a"));
  EXPECT_EQ(db.folderOf(fidOf('D')), std::nullopt);
  expectPaired();
}

TEST_F(LiveCatalogueTest, AMovedRowBearsItsNameInTheOtherFolder) {
  insertFolder("d", 'D', 1);
  insert("a", 'A', 1);
  EXPECT_EQ(bearer(1, "a"), 3u);
  EXPECT_EQ(bearer(2, "a"), 0u);
  db.moveRow(row(3), 2);
  EXPECT_EQ(bearer(1, "a"), 0u);
  EXPECT_EQ(bearer(2, "a"), 3u);
  EXPECT_THAT(written(), ElementsAre("1|0|/volume", "2|1|d", "3|2|a"));
}

TEST_F(LiveCatalogueTest, ATreeIsDroppedWithAllBelowItAndNothingBesides) {
  insertFolder("d", 'D', 1);
  insertFolder("e", 'E', 2);
  insert("a", 'A', 3);
  insert("b", 'B', 1);
  EXPECT_EQ(db.dropTree(row(2)), 3u);
  EXPECT_THAT(written(), ElementsAre("1|0|/volume", "5|1|b"));
  EXPECT_EQ(pairs(), "1,5");
  EXPECT_EQ(db.folderOf(fidOf('E')), std::nullopt);
}

TEST_F(LiveCatalogueTest, APendingEntryBelowADroppedTreeGoesWithIt) {
  insertFolder("d", 'D', 1);
  present('D', "a", 'A');
  EXPECT_EQ(db.dropTree(row(2)), 2u);
  EXPECT_THAT(written(), ElementsAre("1|0|/volume"));
  expectPaired();
}

TEST_F(LiveCatalogueTest, RowsInACircleAreDroppedOnce) {
  insertFolder("d", 'D', 3);
  insertFolder("e", 'E', 2);
  insert("a", 'A', 3);
  EXPECT_EQ(db.dropTree(row(2)), 3u);
  EXPECT_THAT(written(), ElementsAre("1|0|/volume"));
  expectPaired();
}

TEST_F(LiveCatalogueTest, AFolderInItselfIsDroppedOnce) {
  insertFolder("d", 'D', 2);
  EXPECT_EQ(db.dropTree(row(2)), 1u);
  EXPECT_THAT(written(), ElementsAre("1|0|/volume"));
}

TEST_F(LiveCatalogueTest, ARowThatDoesNotKnowItsIdentifierAdoptsOne) {
  insert("a", 'A', 1);
  run("UPDATE FILES SET FID_ROWID=0 WHERE INODE=2");
  Name name = row(2);
  EXPECT_FALSE(name.hasFid());
  db.DeleteFidGivenRowId(2);
  db.adopt(name, fidOf('B'));
  EXPECT_TRUE(name.hasFid());
  EXPECT_EQ(name.fid, fidOf('B'));
  EXPECT_THAT(inodesOf(db.namesOf(fidOf('B'))), ElementsAre(2u));
  EXPECT_THAT(db.namesOf(fidOf('A')), IsEmpty());
  expectPaired();
}

TEST_F(LiveCatalogueTest, ARowIsGivenAnotherIdentifierInPlaceOfItsOwn) {
  insert("a", 'A', 1);
  Name name = row(2);
  db.readopt(name, fidOf('B'));
  EXPECT_EQ(pairs(), "1,2");
  EXPECT_THAT(db.namesOf(fidOf('A')), IsEmpty());
  EXPECT_THAT(inodesOf(db.namesOf(fidOf('B'))), ElementsAre(2u));
  EXPECT_EQ(row(2).fid, fidOf('B'));
  expectPaired();
}

TEST_F(LiveCatalogueTest, AnIdentifierIsForgottenUnlessARowBearsIt) {
  insert("a", 'A', 1);
  const fsf_fid lost = fidOf('L');
  db.InsertFid(&lost, 77, 0);
  db.forgetUnlessBorne(2);
  db.forgetUnlessBorne(3);
  db.forgetUnlessBorne(99);
  EXPECT_EQ(pairs(), "1,2");
}

TEST_F(LiveCatalogueTest, ARowThatNamesAnothersIdentifierKnowsNone) {
  insert("a", 'A', 1);
  insert("b", 'B', 1);
  run("UPDATE FILES SET FID_ROWID=2 WHERE INODE=3");
  EXPECT_FALSE(row(3).hasFid());
  EXPECT_EQ(row(2).fid, fidOf('A'));
}

TEST_F(LiveCatalogueTest, NamesOfAFileAreAllOrAsManyAsAreAskedFor) {
  for (const char* name : {"a", "b", "c"}) insert(name, 'A', 1);
  EXPECT_THAT(inodesOf(db.namesOf(fidOf('A'))), UnorderedElementsAre(2u, 3u, 4u));
  EXPECT_EQ(db.namesOf(fidOf('A'), 2).size(), 2u);
  db.park(row(3));
  EXPECT_EQ(db.namesOf(fidOf('A')).size(), 3u) << "a parked one among them";
}

TEST_F(LiveCatalogueTest, WhatACrashLeftOfAnIdentifierIsMendedWhenItIsMet) {
  insert("a", 'A', 1);
  const fsf_fid fid = fidOf('A');
  db.InsertFid(&fid, 77, 0);
  db.InsertFid(&fid, 2, 0);
  EXPECT_THAT(inodesOf(db.namesOf(fid)), ElementsAre(2u));
  EXPECT_EQ(pairs(), "1,2");
}

TEST_F(LiveCatalogueTest, AFileIsNoFolder) {
  insert("a", 'A', 1);
  EXPECT_EQ(db.folderOf(fidOf('A')), std::nullopt);
  EXPECT_EQ(db.folderOf(fidOf('X')), std::nullopt);
}

TEST_F(LiveCatalogueTest, APendingEntryBearsItsName) {
  EXPECT_EQ(bearer(1, "a"), 0u);
  present('R', "a", 'A');
  const auto found = db.bearerOf(1, "a");
  ASSERT_TRUE(found);
  EXPECT_TRUE(found->pending());
  EXPECT_EQ(found->fid, fidOf('A'));
  db.FlushAllJournals();
  EXPECT_EQ(bearer(1, "a"), 2u) << "and its row when it is written";
}

TEST_F(LiveCatalogueTest, APendingEntryIsFoundInAFolderThatIsLearntLater) {
  present('R', "a", 'A');
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(db.bearerOf(1, "a"));
  db.FlushAllJournals();
  insertFolder("d", 'D', 1);
  present('D', "b", 'B');
  const auto found = db.bearerOf(3, "b");
  ASSERT_TRUE(found);
  EXPECT_TRUE(found->pending());
}

TEST_F(LiveCatalogueTest, ARowIsStampedWithTheTimeItIs) {
  insert("a", 'A', 1);
  run("UPDATE FILES SET TIME=7");
  db.stampNow(2);
  db.Commit();
  EXPECT_THAT(files("IIF(ABS(TIME-CAST(strftime('%s','now') AS INTEGER))<60,'now',TIME)"),
              ElementsAre("7", "now"));
  EXPECT_THAT(files("CTIME"), ElementsAre("3000", "3000"));
}

TEST_F(LiveCatalogueTest, AChangeIsOfTheWatchFromItsOpeningOn) {
  db.openTime = 5000;
  EXPECT_FALSE(db.wasOpenAt(4999));
  EXPECT_TRUE(db.wasOpenAt(5000));
}

TEST_F(LiveCatalogueTest, APathLeadsDownFromTheRoot) {
  insertFolder("d", 'D', 1);
  insertFolder("e", 'E', 2);
  EXPECT_EQ(db.pathOf(0, "/volume"), ".");
  EXPECT_EQ(db.pathOf(1, "a"), "a");
  EXPECT_EQ(db.pathOf(3, "a"), "d/e/a");
}

TEST_F(LiveCatalogueTest, WhereNoWayLeadsUpThereIsNoPath) {
  insertFolder("d", 'D', 3);
  insertFolder("e", 'E', 2);
  EXPECT_EQ(db.pathOf(2, "a"), "") << "in a circle";
  EXPECT_EQ(db.pathOf(77, "a"), "");
  insertFolder("p", 'P', 1);
  db.park(row(4));
  EXPECT_EQ(db.pathOf(4, "a"), "") << "below a parked row";
}

TEST_F(LiveCatalogueTest, NothingIsRememberedOverAClose) {
  insertFolder("d", 'D', 1);
  insert("a", 'A', 2);
  EXPECT_EQ(db.folderOf(fidOf('D')), 2u);
  EXPECT_EQ(bearer(2, "a"), 3u);
  db.CloseHandle(0, false);
  DatabaseView(filesPath).rows("UPDATE FILES SET NAME='b' WHERE INODE=3");
  DatabaseView(fidsPath).rows("UPDATE FIDS SET FID1=FID1+1 WHERE FILES_ROWID=2");
  ASSERT_TRUE(db.OpenHandle(false, false));
  EXPECT_EQ(db.folderOf(fidOf('D')), std::nullopt);
  EXPECT_EQ(bearer(2, "a"), 0u);
  EXPECT_EQ(bearer(2, "b"), 3u);
}

}  // namespace
}  // namespace kddc::test
