// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Removals while entries are pending: each child goes exactly once, and from where it is.
#include <gmock/gmock.h>

#include <utility>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/sorted_catalogue.h"

namespace {

using kddc::test::fidOf;
using kddc::test::LogCapture;
using testing::ElementsAre;

struct SortedRemoval : kddc::test::SortedInsertTest {
  Rows left() { return committedFiles("INODE,NAME"); }
  // The row callback, as SQLite would call it.
  int callBack(const char* inode, const char* fidRowId, const char* type) {
    char* values[] = {const_cast<char*>(inode), const_cast<char*>(fidRowId),
                      const_cast<char*>(type)};
    return DeleteCallBack1(&db, 3, values, nullptr);
  }
};

TEST_F(SortedRemoval, AFolderTakesItsPendingChildrenWithIt) {
  insert("top", 'T', kDirectory, 0);  // 1
  insert("a", 'A', kRegular, 1);      // 2
  insert("sub", 'S', kDirectory, 1);  // 3
  insert("deep", 'D', kRegular, 3);   // 4
  insert("other", 'O', kRegular, 0);  // 5
  insert("again", 'A', kRegular, 5);  // 6
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_EQ(left(), (Rows{"5|other", "6|again"}));
  EXPECT_EQ(db.pending(), "A6 O5");
  EXPECT_EQ(committedFids("*"), Rows{});
  db.FlushAllFids();
  EXPECT_EQ(committedFids("FILES_ROWID"), (Rows{"6", "5"}));
}

TEST_F(SortedRemoval, AFolderTakesWrittenAndPendingChildrenAlike) {
  insert("top", 'T', kDirectory, 0);
  insert("written", 'W', kRegular, 1);
  db.FlushAllFids();
  insert("pending", 'P', kRegular, 1);
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_EQ(left(), Rows{});
  EXPECT_EQ(committedFids("*"), Rows{});
  EXPECT_EQ(db.pending(), "");
}

TEST_F(SortedRemoval, EachChildGoesOnce) {
  insert("top", 'T', kDirectory, 0);     // 1
  insert("written", 'W', kRegular, 1);   // 2
  db.FlushAllFids();                     // FIDS row 2
  insert("sub", 'S', kDirectory, 1);     // 3, FIDS row 3
  insert("pending", 'P', kRegular, 3);   // 4
  insert("written2", 'V', kRegular, 0);  // 5, not below
  const LogCapture log(6);
  db.RemoveFolderGivenInode(1, 1);
  const std::string ours = "debug 6 DCSqliteDBSortedInsert :: ";
  const std::string entry = "debug 5 DCSqliteDB :: DeleteEntry: ";
  EXPECT_THAT(log.lines(),
              ElementsAre(ours + "RemoveFolderGivenInode: Inode[1] FidRowId[1]",
                          entry + "Inode[2] FidRowId[2]",
                          ours + "RemoveFolderGivenInode: Inode[3] FidRowId[3]",
                          ours + "DeleteFromMap: Inode[4]", entry + "Inode[3] FidRowId[3]",
                          entry + "Inode[1] FidRowId[1]"));
}

TEST_F(SortedRemoval, AFolderGoesThroughTheVirtualSlot) {
  struct Watching : kddc::test::OpenSortedCatalogue {
    using OpenSortedCatalogue::OpenSortedCatalogue;
    void RemoveFolderGivenInode(unsigned long long inode, unsigned long long fid) override {
      removed.emplace_back(inode, fid);
    }
    std::vector<std::pair<unsigned long long, unsigned long long>> removed;
  } watching(temp / "watching");
  char inode[] = "7", fid[] = "9", type[] = "1";
  char* values[] = {inode, fid, type};
  EXPECT_EQ(DeleteCallBack1(&watching, 3, values, nullptr), 0);
  EXPECT_THAT(watching.removed, ElementsAre(testing::Pair(7, 9)));
}

TEST_F(SortedRemoval, TheCallBackLeavesWhatItIsNotToldAbout) {
  insert("a", 'A', kRegular, 0);
  insert("b", 'B', kRegular, 0);
  EXPECT_EQ(callBack("1", kddc::test::kPending, "0"), 0);
  EXPECT_EQ(left(), Rows{"2|b"});
  EXPECT_EQ(db.pending(), "B2");
  db.FlushAllFids();
  EXPECT_EQ(callBack("2", "1", "8"), 0);
  EXPECT_EQ(left(), Rows{});
  EXPECT_EQ(committedFids("*"), Rows{});
}

TEST_F(SortedRemoval, AValueThatIsMissingEndsTheWalkButNotTheFoldersOwnRemoval) {
  insert("top", 'T', kDirectory, 0);
  insert("first", 'A', kRegular, 1);
  insert("broken", 'B', kRegular, 1);
  insert("last", 'C', kRegular, 1);
  filesSql("UPDATE FILES SET FILE_TYPE=NULL WHERE NAME='broken'");
  const LogCapture log(0);
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_EQ(left(), (Rows{"3|broken", "4|last"}));
  EXPECT_EQ(db.pending(), "B3 C4");
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 DeleteCallBack1: INODE,FID_ROWID,FILE_TYPE cannot be NULL"));
}

TEST_F(SortedRemoval, AnyOfTheThreeValuesMayBeTheMissingOne) {
  const LogCapture log(0);
  EXPECT_EQ(callBack(nullptr, "1", "0"), -1);
  EXPECT_EQ(callBack("1", nullptr, "0"), -1);
  EXPECT_EQ(callBack("1", "1", nullptr), -1);
  EXPECT_EQ(log.lines().size(), 3u);
}

TEST_F(SortedRemoval, AFailureInTheCallBackIsLoggedAndEndsTheWalk) {
  insert("top", 'T', kDirectory, 0);
  insert("a", 'A', kRegular, 1);
  filesSql(
      "CREATE TEMP TRIGGER refuse BEFORE DELETE ON FILES WHEN OLD.INODE=2 BEGIN "
      "SELECT RAISE(ABORT,'refused'); END");
  const LogCapture log(0);
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_EQ(left(), Rows{"2|a"});
  EXPECT_EQ(db.pending(), "A2") << "the row goes first, and then the map's entry";
  EXPECT_TRUE(log.mentions("error 0 DeleteCallBack1: eRRoR -- "));
}

TEST_F(SortedRemoval, ACycleAmongParentsEndsTheWalk) {
  insert("a", 'A', kDirectory, 2);
  insert("b", 'B', kDirectory, 1);
  insert("file", 'F', kRegular, 2);
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_EQ(left(), Rows{});
  EXPECT_EQ(db.pending(), "");
}

TEST_F(SortedRemoval, ATreeOfAnyDepthIsRemovedWithinTheStack) {
  constexpr int kDepth = 3000;
  for (int i = 0; i < kDepth; ++i) insert("d", 'D', kDirectory, static_cast<unsigned long long>(i));
  insert("deepest", 'F', kRegular, kDepth);
  db.RemoveFolderGivenInode(1, 1);
  EXPECT_EQ(left(), Rows{});
  EXPECT_EQ(committedFids("*"), Rows{});
  EXPECT_EQ(db.pending(), "");
}

TEST_F(SortedRemoval, OnePendingEntryOfAnInodeIsForgottenTheFirstInTheOrderOfIdentifiers) {
  db.sortMap = {{fidOf('A'), 5}, {fidOf('B'), 7}, {fidOf('C'), 7}, {fidOf('C'), 8}};
  const LogCapture log(6);
  db.DeleteFromMap(7);
  EXPECT_EQ(db.pending(), "A5 C7 C8");
  EXPECT_THAT(log.lines(),
              ElementsAre("debug 6 DCSqliteDBSortedInsert :: DeleteFromMap: Inode[7]"));
}

TEST_F(SortedRemoval, AnInodeThatIsNotPendingIsNotMissed) {
  db.sortMap = {{fidOf('A'), 5}};
  db.DeleteFromMap(7);
  EXPECT_EQ(db.pending(), "A5");
}

TEST_F(SortedRemoval, ADuplicateIdentifierGoesFromTheMapAndFromTheRows) {
  insert("written", 'D', kRegular, 0);       // 1
  insert("writtenToo", 'D', kDirectory, 0);  // 2
  insert("child", 'C', kRegular, 2);         // 3
  db.FlushAllFids();
  insert("pending", 'D', kRegular, 0);     // 4
  insert("pendingToo", 'D', kRegular, 0);  // 5
  insert("childToo", 'E', kRegular, 2);    // 6
  insert("kept", 'K', kRegular, 0);        // 7
  const fsf_fid fid = fidOf('D');
  db.RemoveDuplicateFid(&fid);
  EXPECT_EQ(left(), Rows{"7|kept"});
  EXPECT_EQ(committedFids("*"), Rows{});
  EXPECT_EQ(db.pending(), "K7");
}

TEST_F(SortedRemoval, ADuplicateIdentifierIsLoggedAndThenTheBaseHasItsTurn) {
  insert("written", 'D', kRegular, 0);
  db.FlushAllFids();
  insert("pending", 'D', kRegular, 0);
  const fsf_fid fid = fidOf('D');
  const std::string text = "Fid[444444444444444444444444444444444444444444444444]";
  const LogCapture log(6);
  db.RemoveDuplicateFid(&fid);
  EXPECT_THAT(
      log.lines(),
      ElementsAre("debug 6 DCSqliteDBSortedInsert :: RemoveDuplicateFid: " + text,
                  "debug 6 DCSqliteDB :: RemoveDuplicateFid: " + text,
                  "debug 6 DCSqliteDBSortedInsert :: RemoveFolderGivenInode: Inode[1] FidRowId[1]",
                  "debug 5 DCSqliteDB :: DeleteEntry: Inode[1] FidRowId[1]"));
}

TEST_F(SortedRemoval, AnUnknownIdentifierRemovesNothing) {
  insert("kept", 'K', kRegular, 0);
  const fsf_fid fid = fidOf('Z');
  db.RemoveDuplicateFid(&fid);
  EXPECT_EQ(left(), Rows{"1|kept"});
  EXPECT_EQ(db.pending(), "K1");
}

}  // namespace
