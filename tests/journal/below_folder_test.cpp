// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "tests/support/journal_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::expectFailure;
using kddc::test::expectRefusal;
using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

struct Walks : kddc::test::CatalogueTest {
  class Open : public kddc::test::OpenCatalogue {
   public:
    using OpenCatalogue::OpenCatalogue;
    using OpenCatalogue::subFolderList;
    std::vector<std::string> removed;
    void RemoveFolderGivenInode(unsigned long long inode, unsigned long long row) override {
      removed.push_back("folder " + std::to_string(inode) + " " + std::to_string(row));
      OpenCatalogue::RemoveFolderGivenInode(inode, row);
    }
    void RemoveDuplicateFid(const fsf_fid* fid) override {
      removed.push_back(std::string("duplicates of ") + static_cast<char>(fid->data[0]));
      OpenCatalogue::RemoveDuplicateFid(fid);
    }
  };
  Open walker{folder};

  // 1 top, in it: 2 sub, 3 file, 4 beside; in sub: 5 deep, 6 leaf; in deep: 7 bottom; 8 elsewhere
  Walks() {
    walker.CreateDb();
    EXPECT_TRUE(walker.OpenHandle(false, false));
    walker.openTime = 0;
    walker.constructTime = 4444;
    add("top", 'T', kDirectory, 0);
    add("sub", 'S', kDirectory, 1);
    add("file", 'F', kRegular, 1);
    add("beside", 'B', kDirectory, 1);
    add("deep", 'D', kDirectory, 2);
    add("leaf", 'L', kRegular, 2);
    add("bottom", 'M', kRegular, 5);
    add("elsewhere", 'E', kRegular, 0);
  }
  void add(const std::string& name, char fid, unsigned mode, unsigned long long parent) {
    StatFidName_s e = entry(name, fid, mode);
    walker.Insert(&e, parent, 7);
  }
  Rows view(const std::string& columns) {
    walker.Commit();
    return files(columns);
  }
};

TEST_F(Walks, AllBelowAFolderGetsTheStampAndTheFolderItselfDoesNot) {
  EXPECT_FALSE(walker.UpdateTimeFieldRecursively(1));
  EXPECT_EQ(view("NAME,TIME,CTIME"),
            (Rows{"top|3000|3000", "sub|4444|3000", "file|4444|3000", "beside|4444|3000",
                  "deep|4444|3000", "leaf|4444|3000", "bottom|4444|3000", "elsewhere|3000|3000"}));
}

TEST_F(Walks, TheWalkIsBreadthFirst) {
  walker.filesDb->exec_query("CREATE TEMP TABLE ORDER_OF(NAME)");
  walker.filesDb->exec_query(
      "CREATE TEMP TRIGGER note AFTER UPDATE ON FILES BEGIN INSERT INTO ORDER_OF "
      "VALUES(OLD.NAME); END");
  walker.UpdateTimeFieldRecursively(1);
  walker.filesDb->exec_query_get_table("SELECT GROUP_CONCAT(NAME) FROM ORDER_OF");
  EXPECT_STREQ(walker.filesDb->table[1], "sub,file,beside,deep,leaf,bottom");
}

TEST_F(Walks, AStaleWorkListIsForgotten) {
  walker.subFolderList = {1};
  walker.UpdateTimeFieldRecursively(5);
  EXPECT_EQ(view("TIME").at(1), "3000");
  EXPECT_THAT(walker.subFolderList, IsEmpty());
}

TEST_F(Walks, ACycleAmongParentsEndsTheWalk) {
  walker.filesDb->exec_query("UPDATE FILES SET PINODE=5 WHERE INODE=1");
  EXPECT_FALSE(walker.UpdateTimeFieldRecursively(1));
  EXPECT_EQ(view("TIME"), (Rows{"4444", "4444", "4444", "4444", "4444", "4444", "4444", "3000"}));
  walker.filesDb->exec_query("UPDATE FILES SET PINODE=1,TIME=1 WHERE INODE=1");
  EXPECT_FALSE(walker.UpdateTimeFieldRecursively(1));
  EXPECT_EQ(view("TIME").at(0), "4444") << "a folder in itself";
}

TEST_F(Walks, SubFoldersAreAppendedInOrderAndNothingElse) {
  walker.subFolderList = {99};
  EXPECT_EQ(walker.PopulateSubFolderList(1), SQLITE_OK);
  EXPECT_THAT(walker.subFolderList, ElementsAre(99, 2, 4));
  EXPECT_EQ(walker.PopulateSubFolderList(12345), SQLITE_OK);
  EXPECT_THAT(walker.subFolderList, ElementsAre(99, 2, 4));
}

TEST_F(Walks, AFailureHalfWayLeavesWhatIsStampedAndStopsThere) {
  walker.filesDb->exec_query(
      "CREATE TEMP TRIGGER refuse BEFORE UPDATE ON FILES WHEN OLD.NAME='leaf' BEGIN SELECT "
      "RAISE(ABORT,'refused'); END");
  const LogCapture log(0);
  expectRefusal([&] { walker.UpdateTimeFieldRecursively(1); });
  EXPECT_EQ(view("NAME,TIME"), (Rows{"top|3000", "sub|4444", "file|4444", "beside|4444",
                                     "deep|3000", "leaf|3000", "bottom|3000", "elsewhere|3000"}));
  EXPECT_THAT(log.lines(), ElementsAre(testing::StartsWith(
                               "error 0 DCSqliteDB :: UpdateTimeFieldRecursively: eRRoR -- ")));
}

TEST_F(Walks, TheRowCallbackWalksFromEachRowOfAQuery) {
  walker.filesDb->exec_query_with_callback(
      "SELECT INODE,NAME FROM FILES WHERE NAME IN ('deep','beside')", UpdateTimeCallBack, &walker);
  EXPECT_EQ(view("NAME,TIME").at(6), "bottom|4444");
  EXPECT_EQ(view("NAME,TIME").at(5), "leaf|3000");
}

TEST_F(Walks, TheRowCallbackRefusesARowWithoutAnInode) {
  const LogCapture log(0);
  char* values[] = {nullptr};
  EXPECT_EQ(UpdateTimeCallBack(&walker, 1, values, nullptr), -1);
  EXPECT_THAT(log.lines(), ElementsAre("error 0 UpdateTimeCallBack: INODE cannot be NULL"));
}

TEST_F(Walks, TheRowCallbackLetsNoExceptionIntoSqlite) {
  walker.filesDb->exec_query("ALTER TABLE FILES RENAME COLUMN TIME TO STAMP");
  const LogCapture log(0);
  char one[] = "1";
  char* values[] = {one};
  EXPECT_EQ(UpdateTimeCallBack(&walker, 1, values, nullptr), -1);
  EXPECT_THAT(log.lines().back(), testing::StartsWith("error 0 UpdateTimeCallBack: eRRoR -- "));
}

TEST_F(Walks, AChildIsDeletedByParentAndNameAFolderWithAllBelowIt) {
  fsf_fid unused{};
  walker.DeleteChildIfExists(1, &unused, "no such");
  walker.DeleteChildIfExists(1, &unused, "file");
  EXPECT_THAT(walker.removed, IsEmpty());
  walker.DeleteChildIfExists(1, nullptr, "sub");
  EXPECT_THAT(walker.removed, ElementsAre("folder 2 2", "folder 5 5"));
  EXPECT_EQ(view("NAME"), (Rows{"top", "beside", "elsewhere"}));
}

TEST_F(Walks, DeletingAChildThatIsAFileIsLoggedAsAnEntry) {
  const LogCapture log(5);
  walker.DeleteChildIfExists(1, nullptr, "file");
  EXPECT_THAT(log.lines(), ElementsAre("debug 5 DCSqliteDB :: DeleteEntry: Inode[3] FidRowId[3]"));
}

TEST_F(Walks, WhetherAChildExistsIsAlwaysAnsweredWithNo) {
  fsf_fid fid = fidOf('Z');
  EXPECT_FALSE(walker.IfChildExists(1, &fid, "file"));
  EXPECT_FALSE(walker.IfChildExists(1, &fid, "no such"));
  EXPECT_EQ(fid, fidOf('Z'));
  walker.fidDb->exec_query("DROP TABLE FIDS");
  EXPECT_FALSE(walker.IfChildExists(1, &fid, "no such"));
  expectFailure(3, SQLITE_ERROR, "Could not execute prepeared query",
                [&] { walker.IfChildExists(1, &fid, "file"); });
}

TEST_F(Walks, AnIdentifierIsAFileWhenItIsKnownAndMarkedForARescan) {
  const fsf_fid known = fidOf('F'), unknown = fidOf('X');
  EXPECT_FALSE(walker.IsFidFile(&known));
  EXPECT_FALSE(walker.IsFidFile(&unknown));
  walker.MarkForSelectiveRescan(3);
  EXPECT_TRUE(walker.IsFidFile(&known));
}

TEST_F(Walks, DeletingTheEntriesOfAnIdentifierIsTheRemovalOfItsDuplicates) {
  const fsf_fid sub = fidOf('S');
  walker.DeleteDBEntries(&sub);
  EXPECT_THAT(walker.removed, ElementsAre("duplicates of S", "folder 2 2", "folder 5 5"));
  EXPECT_EQ(view("NAME"), (Rows{"top", "file", "beside", "elsewhere"}));
}

TEST_F(Walks, SingleNamesFailUnderTheirOwnTags) {
  const fsf_fid known = fidOf('F');
  walker.filesDb->exec_query("DROP TABLE FILES");
  walker.fidDb->exec_query("DROP TABLE FIDS");
  const LogCapture log(0);
  kddc::test::failureOf([&] { walker.DeleteChildIfExists(1, nullptr, "file"); });
  kddc::test::failureOf([&] { walker.IfChildExists(1, nullptr, "file"); });
  kddc::test::failureOf([&] { walker.IsFidFile(&known); });
  kddc::test::failureOf([&] { walker.DeleteDBEntries(&known); });
  for (const char* tag : {"DeleteChildIfExists", "IfChildExists", "IsFidFile", "DeleteDBEntries"})
    EXPECT_TRUE(log.mentions(std::string("error 0 DCSqliteDB :: ") + tag + ": eRRoR -- ")) << tag;
}

}  // namespace
