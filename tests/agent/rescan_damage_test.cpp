// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a rescan makes of rows that speak of each other wrongly: each is put right, or goes.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "agent/engine/catalogue_reader.h"
#include "tests/support/rescan_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;

// What a crash between the commits of the two databases leaves, or damage.
struct DamageTest : RescanTest {
  std::string rowId(const char* name) const { return std::to_string(inode(name)); }
};

TEST_F(DamageTest, ARowWithoutAnIdentifierGetsIt) {
  const long long a = inode("a"), d = inode("d");
  volume.changeFids("DELETE FROM FIDS WHERE FILES_ROWID IN (" + rowId("a") + "," + rowId("d") +
                    ")");
  rescan();
  EXPECT_EQ(inode("a"), a);
  EXPECT_EQ(inode("d"), d);
}

TEST_F(DamageTest, ARootWithoutAnIdentifierGetsIt) {
  const long long a = inode("a");
  volume.changeFids("DELETE FROM FIDS WHERE FILES_ROWID=1");
  volume.file("d/new");
  rescan();
  EXPECT_EQ(inode("a"), a);
  volume.changeFids("UPDATE FIDS SET FID3=FID3+1 WHERE FILES_ROWID=1");
  rescan();
}

TEST_F(DamageTest, ARowThatNamesAnIdentifierOfOthersGetsItsOwn) {
  volume.change(
      "UPDATE FILES SET FID_ROWID=(SELECT FID_ROWID FROM FILES WHERE NAME='a') "
      "WHERE NAME='b'");
  rescan();
  volume.change("UPDATE FILES SET FID_ROWID=9223372036854775807 WHERE NAME='c'");
  rescan();
}

TEST_F(DamageTest, AnIdentifierThatNamesAWrongRowIsPutRight) {
  volume.changeFids("UPDATE FIDS SET FILES_ROWID=999 WHERE FILES_ROWID=" + rowId("a"));
  rescan();
  volume.changeFids("UPDATE FIDS SET FILES_ROWID=" + rowId("d") +
                    " WHERE FILES_ROWID=" + rowId("b"));
  rescan();
}

TEST_F(DamageTest, IdentifiersWithoutARowGo) {
  volume.changeFids("INSERT INTO FIDS VALUES(90,99,0,0,1,2,3,4)");
  volume.changeFids(
      "INSERT INTO FIDS SELECT 91,FILES_ROWID,0,0,FID1,FID2,FID3,FID4 FROM FIDS "
      "WHERE FILES_ROWID=" +
      rowId("a"));
  EXPECT_EQ(rescan(), "0 0 0 0");
}

TEST_F(DamageTest, OfTwoRowsWithOneNameOneStays) {
  const std::string columns =
      "PINODE,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME,FILE_TYPE,NAME FROM FILES ";
  volume.change("INSERT INTO FILES SELECT 50,FID_ROWID," + columns + "WHERE NAME='a'");
  rescan();
  volume.change("INSERT INTO FILES SELECT 51,FID_ROWID," + columns + "WHERE NAME='d'");
  volume.change("UPDATE FILES SET PINODE=51 WHERE NAME='b'");
  rescan();
  const long long first = inode("a");  // the one of two that knows its identifier
  volume.change("INSERT INTO FILES SELECT -5,77," + columns + "WHERE NAME='a'");
  rescan();
  EXPECT_EQ(inode("a"), first);
}

TEST_F(DamageTest, ARowWithoutItsFolderGoesToWhereTheFileIs) {
  const long long d = inode("d"), e = inode("e"), c = inode("c");
  rescanAfter("UPDATE FILES SET PINODE=77 WHERE NAME='d'");
  EXPECT_EQ(inode("d"), d);
  rescanAfter("DELETE FROM FILES WHERE NAME='d'");
  EXPECT_EQ(inode("e"), e);
  EXPECT_EQ(inode("c"), c);
}

TEST_F(DamageTest, StraysOfFilesThatAreGoneGo) {
  volume.change("UPDATE FILES SET PINODE=77 WHERE NAME='e'");
  volume.remove("d/e");
  rescan();
  volume.change("UPDATE FILES SET PINODE=" + rowId("a") + " WHERE NAME='b'");
  volume.remove("d/b");
  rescan();
}

TEST_F(DamageTest, RowsThatAreTheirOwnAncestorsAreUntied) {
  const long long d = inode("d"), e = inode("e");
  rescanAfter("UPDATE FILES SET PINODE=" + rowId("e") + " WHERE NAME='d'");
  EXPECT_EQ(inode("d"), d);
  EXPECT_EQ(inode("e"), e);
  volume.change("UPDATE FILES SET PINODE=" + rowId("e") + " WHERE NAME='d'");
  volume.remove("d");
  rescan();
}

TEST_F(DamageTest, RowsOfAWrongTypeArePutRight) {
  rescanAfter("UPDATE FILES SET FILE_TYPE=2 WHERE NAME='a'");
  rescanAfter("UPDATE FILES SET FILE_TYPE=0 WHERE NAME='e'");
  rescanAfter("UPDATE FILES SET FILE_TYPE=1 WHERE NAME='b'");
}

TEST_F(DamageTest, NamesThatCannotBeArePutRight) {
  const long long a = inode("a");
  rescanAfter("UPDATE FILES SET NAME='' WHERE NAME='a'");
  EXPECT_EQ(inode("a"), a);
  rescanAfter("UPDATE FILES SET NAME='x/y' WHERE NAME='d'");
  rescanAfter("UPDATE FILES SET PINODE=0 WHERE NAME='b'");
}

TEST_F(DamageTest, ParkedRowsThatNobodyClaimsGoWithAllBelowThem) {
  const long long a = inode("a");
  rescanAfter("UPDATE FILES SET PINODE=9223372036854775807,NAME='' WHERE NAME='a'");
  EXPECT_EQ(inode("a"), a) << "its file is there";
  volume.change("UPDATE FILES SET PINODE=9223372036854775807,NAME='' WHERE NAME='d'");
  volume.remove("d");
  EXPECT_THAT(rescan(), testing::EndsWith(" 4"));
}

TEST_F(DamageTest, ReadersPassOverParkedRowsAndWhatLiesBelowThem) {
  volume.change("UPDATE FILES SET PINODE=9223372036854775807,NAME='' WHERE NAME IN ('a','d')");
  volume.file("z");
  CatalogueReader reader(volume.catalogue(), volume.path(), CatalogueReader::Columns::kAll);
  std::vector<std::string> paths;
  reader.readAll([&](const CatalogueRow& row) { paths.emplace_back(row.path); });
  EXPECT_THAT(paths, ElementsAre("."));
}

}  // namespace
}  // namespace kddc::test
