// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "platform/exceptions.h"
#include "tests/support/catalogue.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::ElementsAre;

// Notes the folders that come through the virtual removal.
class Watching : public kddc::test::OpenCatalogue {
 public:
  using OpenCatalogue::OpenCatalogue;
  void RemoveFolderGivenInode(unsigned long long inode, unsigned long long fidsRowId) override {
    removed.emplace_back(inode, fidsRowId);
    OpenCatalogue::RemoveFolderGivenInode(inode, fidsRowId);
  }
  std::vector<std::pair<unsigned long long, unsigned long long>> removed;
};

struct Trees : kddc::test::OpenedCatalogueTest<Watching> {
  Rows left() { return committedFiles("INODE,NAME"); }
};

TEST_F(Trees, AFolderIsRemovedWithAllThatLiesBelowIt) {
  insert("kept", 'K', kRegular, 0);     // 1
  insert("top", 'T', kDirectory, 0);    // 2
  insert("sub", 'S', kDirectory, 2);    // 3
  insert("deep", 'D', kRegular, 3);     // 4
  insert("beside", 'B', kRegular, 2);   // 5
  insert("other", 'O', kDirectory, 0);  // 6
  db.RemoveFolderGivenInode(2, 2);
  EXPECT_EQ(left(), (Rows{"1|kept", "6|other"}));
  EXPECT_EQ(fids("FILES_ROWID"), (Rows{"1", "6"}));
  EXPECT_THAT(db.removed, ElementsAre(testing::Pair(2, 2), testing::Pair(3, 3)))
      << "folders alone, through the virtual slot, depth first";
}

TEST_F(Trees, AFolderIsDeletedOnceByItselfAndOnceByItsParent) {
  insert("top", 'T', kDirectory, 0);
  insert("sub", 'S', kDirectory, 1);
  const LogCapture log(5);
  db.RemoveFolderGivenInode(1, 1);
  const std::string line = "debug 5 DCSqliteDB :: DeleteEntry: Inode";
  EXPECT_THAT(log.lines(), ElementsAre(line + "[2] FidRowId[2]", line + "[2] FidRowId[2]",
                                       line + "[1] FidRowId[1]"));
}

TEST_F(Trees, AChildWithoutATypeStopsTheWalkButNotTheFoldersOwnRemoval) {
  insert("top", 'T', kDirectory, 0);
  insert("first", 'A', kRegular, 1);
  insert("broken", 'B', kRegular, 1);
  insert("last", 'C', kRegular, 1);
  db.filesDb->exec_query("UPDATE FILES SET FILE_TYPE=NULL WHERE NAME='broken'");
  const LogCapture log(0);
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_EQ(left(), (Rows{"3|broken", "4|last"}));
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 DeleteCallBack: INODE,FID_ROWID,FILE_TYPE cannot be NULL"));
}

TEST_F(Trees, AnExceptionInTheRowCallbackIsLoggedAndEndsTheWalk) {
  insert("top", 'T', kDirectory, 0);
  insert("child", 'A', kRegular, 1);
  db.fidDb->exec_query("DROP TABLE FIDS");
  char inode[] = "2", fid[] = "2", type[] = "0";
  char* values[] = {inode, fid, type};
  const LogCapture log(0);
  EXPECT_EQ(DeleteCallBack(&db, 3, values, nullptr), -1);
  EXPECT_TRUE(log.mentions("DeleteCallBack: eRRoR -- "));
}

TEST_F(Trees, ACycleAmongParentsEndsTheWalk) {
  insert("a", 'A', kDirectory, 2);
  insert("b", 'B', kDirectory, 1);
  insert("self", 'S', kDirectory, 3);
  db.RemoveFolderGivenInode(1, 1);
  db.RemoveFolderGivenInode(3, 3);
  EXPECT_TRUE(left().empty());
}

TEST_F(Trees, ATreeOfAnyDepthIsRemovedWithinTheStack) {
  constexpr int kDepth = 20000;
  for (int i = 0; i < kDepth; ++i) insert("d", 'D', kDirectory, static_cast<unsigned long long>(i));
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_TRUE(left().empty());
  EXPECT_TRUE(fids("*").empty());
}

TEST_F(Trees, ARemovalThatFailedLeavesACleanSlate) {
  insert("top", 'T', kDirectory, 0);
  insert("child", 'C', kRegular, 1);
  db.fidDb->exec_query("ALTER TABLE FIDS RENAME TO AWAY");
  EXPECT_THROW(db.RemoveFolderGivenInode(1, 1), UDCException);
  db.fidDb->exec_query("ALTER TABLE AWAY RENAME TO FIDS");
  insert("later", 'L', kRegular, 1);
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_TRUE(left().empty()) << "the folder must be walked again";
}

TEST_F(Trees, EveryRowOfAnIdentifierIsRemovedThroughTheVirtualSlot) {
  insert("kept", 'K', kRegular, 0);    // 1
  insert("twin", 'D', kDirectory, 0);  // 2
  insert("child", 'C', kRegular, 2);   // 3
  insert("twin2", 'D', kRegular, 0);   // 4
  const fsf_fid fid = fidOf('D');
  const LogCapture log(6);
  db.RemoveDuplicateFid(&fid);
  EXPECT_EQ(left(), Rows{"1|kept"});
  EXPECT_THAT(db.removed, ElementsAre(testing::Pair(2, 2), testing::Pair(4, 4)));
  EXPECT_TRUE(
      log.has("debug 6 DCSqliteDB :: RemoveDuplicateFid: "
              "Fid[444444444444444444444444444444444444444444444444]"));
}

TEST_F(Trees, AnUnknownIdentifierRemovesNothing) {
  insert("kept", 'K', kRegular, 0);
  const fsf_fid fid = fidOf('Z');
  db.RemoveDuplicateFid(&fid);
  EXPECT_EQ(left(), Rows{"1|kept"});
}

}  // namespace
