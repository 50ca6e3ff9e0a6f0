// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a comparison finds to differ, and that it finds nothing else.
#include "agent/live/compare.h"

#include <gmock/gmock.h>
#include <sys/xattr.h>

#include <set>
#include <stdexcept>

#include "agent/errors.h"
#include "agent/live/strays.h"
#include "tests/support/loop_mount.h"
#include "tests/support/scanned_volume.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using Told = std::vector<std::string>;

struct Noticed : Suspicions {
  Told told;
  std::set<std::int64_t> folders;  // whose contents were compared

  void compared(std::int64_t inode) override { folders.insert(inode); }
  void identity(const WalkedEntry&, std::int64_t inode) override {
    told.push_back("identity " + std::to_string(inode));
  }
  void name(const fsf_fid&, const WalkedEntry& entry) override {
    told.push_back("name " + std::string(entry.name));
  }
  void attributes(const WalkedEntry& entry) override {
    told.push_back("attributes " + std::string(entry.parent == 0 ? "/" : entry.name));
  }
  void absent(const fsf_fid&, std::string_view name) override {
    told.push_back("absent " + std::string(name));
  }
  void row(std::int64_t inode) override { told.push_back("row " + std::to_string(inode)); }
};

struct CompareTest : testing::Test {
  ScannedVolume volume;
  Noticed listener;
  CompareCounts counts;

  CompareTest() {
    volume.folder("d/e");
    volume.file("a", "text");
    volume.file("d/b");
    volume.file("d/e/c");
    volume.scan();
  }

  CompareCounts compareAll(const CompareWishes& wishes = {}) {
    return compareVolume(volume.open(), volume.path(), volume.options, volume.catalogue(), listener,
                         wishes);
  }
  // What differs; changes of folders that follow from changes in them are left to one test.
  Told compare() {
    listener.told.clear();
    counts = compareAll();
    std::erase_if(listener.told, [](const std::string& what) {
      return what == "attributes /" || what == "attributes d" || what == "attributes e";
    });
    return listener.told;
  }
  Told compareAfter(const std::string& sql) {
    volume.change(sql);
    return compare();
  }
};

TEST_F(CompareTest, FindsNothingWhereNothingDiffers) {
  const CompareCounts met = compareAll();
  EXPECT_THAT(listener.told, IsEmpty());
  EXPECT_EQ(met.walk.entries, 6u);
  EXPECT_EQ(met.rows, 6u);
  EXPECT_EQ(met.pairs, 6u);
}

TEST_F(CompareTest, TellsWhichFoldersItHasCompared) {
  volume.folder("new");
  volume.remove("d/e");
  compareAll();
  const auto inode = [&](const std::string& name) {
    return std::stoll(DatabaseView(volume.catalogue() + "/.db.kd")
                          .cell("SELECT INODE FROM FILES WHERE NAME='" + name + "'"));
  };
  EXPECT_THAT(listener.folders, testing::UnorderedElementsAre(1, inode("d")));
}

TEST_F(CompareTest, WritesNothing) {
  volume.file("new");
  volume.remove("d");
  const auto before = volume.dump();
  compareAll();
  EXPECT_EQ(volume.dump(), before);
}

TEST_F(CompareTest, FindsANameWithoutARow) {
  volume.file("d/new");
  EXPECT_THAT(compare(), ElementsAre("name new"));
}

TEST_F(CompareTest, FindsEverythingBelowAFolderThatIsNotKnownAfterTheFolder) {
  volume.folder("n");
  volume.file("n/x");
  EXPECT_THAT(compare(), ElementsAre("name n", "name x"));
}

TEST_F(CompareTest, FindsARowWhoseNameIsGone) {
  volume.remove("d/b");
  EXPECT_THAT(compare(), ElementsAre("absent b"));
  volume.remove("d/e/c");
  EXPECT_THAT(compare(), UnorderedElementsAre("absent b", "absent c"))
      << "an empty folder has rows";
}

TEST_F(CompareTest, DoesNotLookBelowAFolderThatIsGone) {
  volume.remove("d");
  EXPECT_THAT(compare(), ElementsAre("absent d"));
  EXPECT_EQ(counts.rows, 3u);
}

TEST_F(CompareTest, FindsAFileThatWasReplacedByAnother) {
  volume.file("other", "text");
  volume.rename("other", "a");
  EXPECT_THAT(compare(), ElementsAre("name a"));
}

TEST_F(CompareTest, ComparesAMovedFolderWithTheRowsThatItHas) {
  volume.rename("d/e", "f");
  EXPECT_THAT(compare(), UnorderedElementsAre("name f", "absent e")) << "nothing about c";
}

TEST_F(CompareTest, FindsEachAttributeThatDiffers) {
  for (const char* change : {"MODE=MODE+1", "UID=UID+1", "GID=GID+1", "NLINK=NLINK+1",
                             "SIZE=SIZE+1", "MTIME=MTIME+1", "CTIME=CTIME+1", "FILE_TYPE=8"}) {
    const std::string set = change;
    const std::string column = set.substr(0, set.find('='));
    const std::string before = std::to_string(volume.number(column, "NAME='a'"));
    EXPECT_THAT(compareAfter("UPDATE FILES SET " + set + " WHERE NAME='a'"),
                ElementsAre("attributes a"))
        << set;
    volume.change("UPDATE FILES SET " + column + "=" + before + " WHERE NAME='a'");
  }
  EXPECT_THAT(compare(), IsEmpty());
}

TEST_F(CompareTest, TakesNoNoticeOfBlocksAndTheTimeOfAccess) {
  EXPECT_THAT(compareAfter("UPDATE FILES SET ATIME=1,BLOCKSUSED=77,TIME=5"), IsEmpty());
}

TEST_F(CompareTest, FindsAttributesOfFoldersAndOfTheRoot) {
  volume.change("UPDATE FILES SET MODE=MODE+1 WHERE FILE_TYPE=1");
  compareAll();
  EXPECT_THAT(listener.told, UnorderedElementsAre("attributes /", "attributes d", "attributes e"));
}

TEST_F(CompareTest, ComparesNumbersByTheirLow32Bits) {
  ASSERT_EQ(lchown((volume / "a").c_str(), 4000000000U, 4000000001U), 0);
  volume.scan();
  EXPECT_EQ(volume.number("UID", "NAME='a'"), -294967296);
  EXPECT_THAT(compare(), IsEmpty());
}

TEST_F(CompareTest, FindsAStub) {
  if (setxattr((volume / "a").c_str(), "user.stub", "1", 1, 0) != 0)
    GTEST_SKIP() << "no user attributes here";
  EXPECT_THAT(compare(), ElementsAre("attributes a"));
}

TEST_F(CompareTest, FindsAnotherType) {
  EXPECT_THAT(compareAfter("UPDATE FILES SET FILE_TYPE=2 WHERE NAME='a'"), ElementsAre("name a"));
}

TEST_F(CompareTest, AFolderWhoseRowIsOfAFileIsNotKnown) {
  EXPECT_THAT(compareAfter("UPDATE FILES SET FILE_TYPE=0 WHERE NAME='e'"),
              ElementsAre("name e", "name c"));
}

TEST_F(CompareTest, FindsRowsThatDoNotKnowTheirIdentifier) {
  volume.changeFids("DELETE FROM FIDS WHERE FILES_ROWID=" + std::to_string(volume.inodeOf("a")));
  EXPECT_THAT(compare(), ElementsAre("name a"));
  EXPECT_EQ(counts.pairs, 5u);
  volume.changeFids("UPDATE FIDS SET FILES_ROWID=99 WHERE FILES_ROWID=" +
                    std::to_string(volume.inodeOf("b")));
  EXPECT_THAT(compare(), UnorderedElementsAre("name a", "name b"));
  volume.changeFids("UPDATE FIDS SET FID4=FID4+1 WHERE FILES_ROWID=" +
                    std::to_string(volume.inodeOf("c")));
  EXPECT_THAT(compare(), UnorderedElementsAre("name a", "name b", "name c"));
  EXPECT_THAT(compareAfter("UPDATE FILES SET FID_ROWID=9223372036854775807 WHERE NAME='c'"),
              UnorderedElementsAre("name a", "name b", "name c"));
}

TEST_F(CompareTest, FindsARootThatDoesNotKnowItsIdentifier) {
  volume.changeFids("DELETE FROM FIDS WHERE FILES_ROWID=" +
                    std::to_string(volume.number("INODE", "PINODE=0")));
  compareAll();
  EXPECT_THAT(listener.told, ElementsAre("identity 1"));
}

TEST_F(CompareTest, ComparesAFolderWithoutAnIdentifierWithItsRows) {
  const std::string e = std::to_string(volume.inodeOf("e"));
  volume.changeFids("DELETE FROM FIDS WHERE FILES_ROWID=" + e);
  volume.remove("d/e/c");
  EXPECT_THAT(compare(), ElementsAre("identity " + e, "name e", "absent c"));
}

TEST_F(CompareTest, FindsTheSecondOfTwoRowsWithOneName) {
  volume.change(
      "INSERT INTO FILES SELECT 50,FID_ROWID,PINODE,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,"
      "MTIME,CTIME,TIME,FILE_TYPE,NAME FROM FILES WHERE NAME='a'");
  EXPECT_THAT(compare(), ElementsAre("row 50"));
  volume.remove("a");
  EXPECT_THAT(compare(), ElementsAre("absent a", "absent a"));
}

TEST_F(CompareTest, FindsARowWhoseNameCannotBeOne) {
  for (const char* name : {"''", "'.'", "'..'", "'x/y'", "CAST(x'610062' AS TEXT)"})
    EXPECT_THAT(compareAfter(std::string("UPDATE FILES SET NAME=") + name +
                             " WHERE INODE=" + std::to_string(volume.number("MAX(INODE)", "1"))),
                testing::Contains("row " + std::to_string(volume.number("MAX(INODE)", "1"))))
        << name;
}

TEST_F(CompareTest, FindsASecondRoot) {
  volume.change("UPDATE FILES SET PINODE=0 WHERE NAME='a'");
  EXPECT_THAT(compare(),
              UnorderedElementsAre("row " + std::to_string(volume.inodeOf("a")), "name a"));
}

TEST_F(CompareTest, TakesNamesOfAnyBytes) {
  for (const char* name : {"\xff\xfe", "new\nline", "quote'\"", "\x01", "%s"}) volume.file(name);
  volume.file(std::string(255, 'n'));
  volume.scan();
  EXPECT_THAT(compare(), IsEmpty());
  volume.remove("\xff\xfe");
  volume.file("\xff\xff");
  EXPECT_THAT(compare(), UnorderedElementsAre("absent \xff\xfe", "name \xff\xff"));
}

TEST_F(CompareTest, FindsWhatDiffersAmongManyInWhateverOrderTheRowsAre) {
  for (int i = 0; i < 3000; ++i) volume.file("d/" + std::to_string(i));
  volume.scan();
  volume.change("UPDATE FILES SET INODE=-INODE WHERE NAME GLOB '[0-9]*'");
  volume.changeFids("ATTACH '" + volume.catalogue() +
                    "/.db.kd' AS other; UPDATE FIDS SET FILES_ROWID=-FILES_ROWID WHERE "
                    "-FILES_ROWID IN (SELECT INODE FROM other.FILES)");
  EXPECT_THAT(compare(), IsEmpty());
  volume.remove("d/1234");
  volume.file("d/0", "more");
  EXPECT_THAT(compare(), UnorderedElementsAre("absent 1234", "attributes 0"));
}

TEST_F(CompareTest, LeavesOutWhatAScanLeavesOut) {
  if (const std::string why = LoopMount::whyNot("tmpfs"); !why.empty()) GTEST_SKIP() << why;
  volume.folder("own");
  volume.file("own/x");
  struct stat st;
  ASSERT_EQ(stat((volume / "own").c_str(), &st), 0);
  volume.options.leaveOut.push_back({st.st_dev, st.st_ino});
  EXPECT_THAT(compare(), IsEmpty());
  ASSERT_EQ(::mount("none", (volume / "d/e").c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_THAT(compare(), ElementsAre("absent e"));
  ::umount2((volume / "d/e").c_str(), MNT_DETACH);
}

TEST_F(CompareTest, RefusesACatalogueOfAnotherVolume) {
  volume.change("UPDATE FILES SET NAME='/other' WHERE PINODE=0");
  try {
    compareAll();
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.what(),
              volume.catalogue() + " holds the catalogue of /other, not of " + volume.path());
  }
}

TEST_F(CompareTest, RefusesACatalogueWithoutARoot) {
  volume.change("DELETE FROM FILES WHERE PINODE=0");
  EXPECT_THROW(compareAll(), Failure);
}

TEST_F(CompareTest, EndsWithWhatTheCheckThrows) {
  int calls = 0;
  EXPECT_THROW(compareAll({.progress = {},
                           .check =
                               [&] {
                                 if (++calls == 3) throw std::domain_error("enough");
                               }}),
               std::domain_error);
}

TEST_F(CompareTest, TellsHowFarItIs) {
  std::uint64_t last = 0;
  compareAll({.progress = [&](std::uint64_t entries) { last = entries; }, .check = {}});
  EXPECT_EQ(last, 6u);
}

struct StraysTest : CompareTest {
  Strays strays() const { return findStrays(volume.catalogue()); }
  std::vector<std::int64_t> rows() const { return strays().rows; }
  std::int64_t inode(const char* name) const { return volume.inodeOf(name); }
};

TEST_F(StraysTest, AComparisonThatMetEveryRowAndIdentifierKnowsThatThereAreNone) {
  EXPECT_TRUE(hasMetAll(volume.catalogue(), compareAll()));
  volume.changeFids("INSERT INTO FIDS VALUES(90,99,0,0,1,2,3,4)");
  EXPECT_FALSE(hasMetAll(volume.catalogue(), compareAll()));
  volume.changeFids("DELETE FROM FIDS WHERE FIDS_ROWID=90");
  volume.change("INSERT INTO FILES(PINODE,NAME) VALUES(99,'x')");
  EXPECT_FALSE(hasMetAll(volume.catalogue(), compareAll()));
}

TEST_F(StraysTest, AWholeCatalogueHasNone) {
  EXPECT_THAT(strays().rows, IsEmpty());
  EXPECT_THAT(strays().identifiers, IsEmpty());
}

TEST_F(StraysTest, ARowWithoutItsFolderIsOneAndStandsForAllBelowIt) {
  volume.change("UPDATE FILES SET PINODE=77 WHERE NAME='d'");
  EXPECT_THAT(rows(), ElementsAre(inode("d")));
  EXPECT_THAT(strays().circles, IsEmpty());
}

TEST_F(StraysTest, ARowBelowAFileIsOne) {
  volume.change("UPDATE FILES SET PINODE=" + std::to_string(inode("a")) + " WHERE NAME='b'");
  EXPECT_THAT(rows(), ElementsAre(inode("b")));
}

TEST_F(StraysTest, RowsThatAreTheirOwnAncestorsAreToldWithAllBelowThem) {
  volume.change("UPDATE FILES SET PINODE=" + std::to_string(inode("e")) + " WHERE NAME='d'");
  EXPECT_THAT(rows(), IsEmpty());
  EXPECT_THAT(strays().circles,
              UnorderedElementsAre(inode("b"), inode("c"), inode("d"), inode("e")));
}

TEST_F(StraysTest, ParkedRowsAndWhatLiesBelowThemAreNone) {
  volume.change("UPDATE FILES SET PINODE=9223372036854775807,NAME='' WHERE NAME='d'");
  EXPECT_THAT(rows(), IsEmpty());
}

TEST_F(StraysTest, IdentifiersWithoutARowAreSome) {
  volume.changeFids("INSERT INTO FIDS VALUES(90,99,0,0,1,2,3,4)");
  volume.changeFids("INSERT INTO FIDS VALUES(91," + std::to_string(inode("a")) + ",0,0,1,2,3,4)");
  EXPECT_THAT(strays().identifiers, UnorderedElementsAre(90, 91));
}

}  // namespace
}  // namespace kddc::test
