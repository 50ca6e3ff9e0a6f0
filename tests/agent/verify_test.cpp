// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc verify as users meet it: each kind of difference, on volumes that nobody watches and on
// those that change under its hands.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/catalogue_place.h"
#include "platform/unique_fd.h"
#include "tests/support/database_view.h"
#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::StartsWith;

// Nobody watches. Files of whole seconds that do not depend on the clock.
struct Verify : WatchTest {
  void SetUp() override {
    WatchTest::SetUp();
    if (IsSkipped()) return;
    fs::create_directory(*this / "d");
    write("a", "text");
    write("d/b");
    fs::create_hard_link(*this / "a", *this / "d/link");
    ASSERT_EQ(run({"scan", "-q", volume}).exitCode, 0);
  }
  void files(const std::string& sql) const {
    DatabaseView(catalogueOf(volume) + "/.db.kd").rows(sql);
  }
  void fids(const std::string& sql) const {
    DatabaseView(catalogueOf(volume) + "/.fid.kd").rows(sql);
  }
  // The lines printed, in the order printed; the seconds of the last one as S.
  Words verify(int exitCode, const std::string& form = "") const {
    const Outcome outcome =
        run(form.empty() ? Words{"verify", volume} : Words{"verify", volume, form});
    EXPECT_EQ(outcome.exitCode, exitCode) << outcome;
    EXPECT_EQ(outcome.err, "");
    const std::regex seconds(R"(\d+\.\d+)");
    std::istringstream out(std::regex_replace(outcome.out, seconds, "S"));
    Words lines;
    for (std::string line; std::getline(out, line);) lines.push_back(line);
    return lines;
  }
  static std::string bytesOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  // Both databases.
  std::string catalogueBytes() const {
    return bytesOf(catalogueOf(volume) + "/.db.kd") + bytesOf(catalogueOf(volume) + "/.fid.kd");
  }
  bool hasCopies() const { return !fs::is_empty(state + "/verify"); }
  void expectFailure(const Outcome& outcome, const std::string& sentence) const {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
};

TEST_F(Verify, ACatalogueThatAgreesSaysHowMuchWasCompared) {
  EXPECT_THAT(verify(0), ElementsAre("0 differ; compared 5 in S s"));
  EXPECT_THAT(verify(0, "--json"),
              ElementsAre(R"({"differ":0,"unsettled":0,"compared":5,"seconds":S})"));
}

TEST_F(Verify, AnAttributeThatDiffersIsNamedWithBothValues) {
  files("UPDATE FILES SET SIZE=5,NLINK=3,MTIME=7,CTIME=-1 WHERE NAME='a'");
  files("UPDATE FILES SET MODE=32768+420,UID=8,GID=9,FILE_TYPE=6 WHERE NAME='b'");
  ASSERT_EQ(::chmod((*this / "d/b").c_str(), 0600), 0);
  ASSERT_EQ(::chmod(volume.c_str(), 0700), 0);
  files("UPDATE FILES SET MODE=16384+448 WHERE PINODE=0");
  const std::string mtime = std::to_string([&] {
    struct stat st {};
    ::stat((*this / "a").c_str(), &st);
    return st.st_mtime;
  }());
  Words lines = verify(1);
  std::erase_if(lines, [](const std::string& line) { return line.starts_with("d/b: ctime"); });
  EXPECT_THAT(lines, IsSupersetOf(Words{
                         "a: nlink is 3 in the catalogue, 2 on the disk",
                         "a: size is 5 in the catalogue, 4 on the disk",
                         "a: mtime is 7 in the catalogue, " + mtime + " on the disk",
                         std::string("d/b: mode is 100644 in the catalogue, 100600 on the disk"),
                         std::string("d/b: uid is 8 in the catalogue, 0 on the disk"),
                         std::string("d/b: gid is 9 in the catalogue, 0 on the disk"),
                         std::string("d/b: type is socket in the catalogue, file on the disk")}));
  EXPECT_THAT(
      verify(1, "--json"),
      IsSupersetOf(Words{R"({"path":"a","differs":"nlink","catalogue":3,"disk":2})",
                         R"({"path":"a","differs":"size","catalogue":5,"disk":4})",
                         R"({"path":"d/b","differs":"mode","catalogue":33188,"disk":33152})",
                         R"({"path":"d/b","differs":"type","catalogue":"socket","disk":"file"})"}));
}

TEST_F(Verify, AFolderThatDiffersIsNamedToo) {
  files("UPDATE FILES SET UID=8 WHERE NAME='d'");
  EXPECT_THAT(verify(1), ElementsAre("d: uid is 8 in the catalogue, 0 on the disk",
                                     "1 differ; compared 5 in S s"));
}

TEST_F(Verify, AnEntryWithoutRowsIsOnlyOnTheDisk) {
  fids("DELETE FROM FIDS WHERE FILES_ROWID=" + rows("SELECT INODE FROM FILES WHERE NAME='b'")[0]);
  files("DELETE FROM FILES WHERE NAME='b'");
  EXPECT_THAT(verify(1), ElementsAre("d/b: only on the disk", "1 differ; compared 4 in S s"));
  EXPECT_THAT(verify(1, "--json"),
              ElementsAre(R"({"path":"d/b","differs":"only_on_disk"})",
                          R"({"differ":1,"unsettled":0,"compared":4,"seconds":S})"));
}

TEST_F(Verify, OfAFilesNamesTheOneWithoutRowsIsNamed) {
  for (const std::string name : {"a", "link"}) {
    files("CREATE TABLE KEPT AS SELECT * FROM FILES");
    const std::string inode = rows("SELECT INODE FROM FILES WHERE NAME='" + name + "'")[0];
    files("DELETE FROM FILES WHERE INODE=" + inode);
    EXPECT_THAT(verify(1), testing::Contains((name == "a" ? "a" : "d/link") +
                                             std::string(": only on the disk")))
        << name;
    files("DELETE FROM FILES; INSERT INTO FILES SELECT * FROM KEPT; DROP TABLE KEPT");
  }
}

TEST_F(Verify, ARowOfWhatIsGoneIsOnlyInTheCatalogue) {
  fs::remove(*this / "d/b");
  EXPECT_THAT(verify(1), testing::Contains("d/b: only in the catalogue"));
  EXPECT_THAT(verify(1, "--json"),
              testing::Contains(R"({"path":"d/b","differs":"only_in_catalogue"})"));
}

TEST_F(Verify, AWrongIdentifierIsOneDifference) {
  fids("UPDATE FIDS SET FID2=FID2+1 WHERE FILES_ROWID=" +
       rows("SELECT INODE FROM FILES WHERE NAME='b'")[0]);
  EXPECT_THAT(verify(1), ElementsAre("d/b: the catalogue has the identifier of another file",
                                     "1 differ; compared 4 in S s"));
  EXPECT_THAT(verify(1, "--json"), testing::Contains(R"({"path":"d/b","differs":"identifier"})"));
}

TEST_F(Verify, ARowElsewhereIsNamedByTheFilesPath) {
  const std::string root = rows("SELECT INODE FROM FILES WHERE PINODE=0")[0];
  files("UPDATE FILES SET PINODE=" + root + ",NAME='c' WHERE NAME='b'");
  EXPECT_THAT(verify(1), ElementsAre("d/b: folder is . in the catalogue, d on the disk",
                                     "d/b: name is c in the catalogue, b on the disk",
                                     "1 differ; compared 5 in S s"));
}

TEST_F(Verify, RowsThatNoPathLeadsToAreNamedByTheirNumbers) {
  files(
      "INSERT INTO FILES SELECT 900,901,902,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,"
      "TIME,FILE_TYPE,'lost' FROM FILES WHERE NAME='b'");
  fids("INSERT INTO FIDS VALUES(950,951,0,0,1,2,3,4)");
  EXPECT_THAT(
      verify(1),
      ElementsAre("row 900 of FILES: damaged rows: 'lost' has no way up to the volume's root",
                  "row 950 of FIDS: damaged rows: it names row 951 of FILES, which is not "
                  "there",
                  "2 differ; compared 5 in S s"));
  EXPECT_THAT(verify(1, "--json"),
              testing::Contains(R"({"fids_row":950,"differs":"rows","detail":"it names row 951 of )"
                                R"(FILES, which is not there"})"));
}

TEST_F(Verify, OddNamesAreHarmlessInLinesAndWholeInJson) {
  write("n\nl] Size differs.DB has[1]. Current[2]", "x");
  write("e\x1b[2J");
  write("bad\xff");
  EXPECT_THAT(verify(1),
              IsSupersetOf(Words{"n\\nl] Size differs.DB has[1]. Current[2]: only on the disk",
                                 "e\\x1b[2J: only on the disk", "bad\\xff: only on the disk"}));
  EXPECT_THAT(verify(1, "--json"),
              IsSupersetOf(Words{
                  R"({"path":"n\nl] Size differs.DB has[1]. Current[2]","differs":"only_on_disk"})",
                  R"({"path":"e\u001b[2J","differs":"only_on_disk"})",
                  R"({"path_base64":"YmFk/w==","differs":"only_on_disk"})"}));
  ASSERT_EQ(run({"scan", "-q", volume}).exitCode, 0);
  EXPECT_THAT(verify(0), ElementsAre("0 differ; compared 8 in S s"));
}

TEST_F(Verify, WhatIsMountedBelowAndKddcsOwnFilesAreNotExpected) {
  fs::create_directory(*this / "mounted");
  ASSERT_EQ(run({"scan", "-q", volume, "--catalogue", *this / "d/catalogue"}).exitCode, 0);
  ASSERT_EQ(::mount("none", (*this / "mounted").c_str(), "tmpfs", 0, nullptr), 0);
  std::ofstream(*this / "mounted/file") << "text";
  const Outcome outcome = run({"verify", volume, "--catalogue", *this / "d/catalogue"});
  EXPECT_THAT(outcome.out, HasSubstr("mounted: only in the catalogue\n"));
  EXPECT_THAT(outcome.out, testing::Not(HasSubstr("only on the disk"))) << outcome;
  EXPECT_EQ(::umount((*this / "mounted").c_str()), 0);
}

TEST_F(Verify, WhatNoPathReachesIsCountedAndNotTakenForGone) {
  const std::string name(250, 'n');
  UniqueFd folder(::open(volume.c_str(), O_RDONLY | O_DIRECTORY));
  for (int depth = 0; depth < 20; ++depth) {
    ASSERT_EQ(::mkdirat(folder.get(), name.c_str(), 0700), 0);
    folder.reset(::openat(folder.get(), name.c_str(), O_RDONLY | O_DIRECTORY));
  }
  folder.reset();
  ASSERT_EQ(run({"scan", "-q", volume}).exitCode, 0);
  const Outcome outcome = run({"verify", volume});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_THAT(outcome.out, StartsWith("0 differ; compared "));
  EXPECT_THAT(outcome.err, testing::MatchesRegex("kddc: [0-9]+ entries could not be compared: they "
                                                 "kept changing, or no path leads to them\n"));
}

TEST_F(Verify, TheCatalogueStaysAsItIsToTheLastByte) {
  files("UPDATE FILES SET GID=12,SIZE=5 WHERE NAME='a'");
  const std::string before = catalogueBytes();
  verify(1);
  EXPECT_TRUE(catalogueBytes() == before);
}

TEST_F(Verify, TheCopyGoesHoweverItEnds) {
  verify(0);
  EXPECT_FALSE(hasCopies());
  fids("DROP TABLE FIDS");
  EXPECT_EQ(run({"verify", volume}).exitCode, 3);
  EXPECT_FALSE(hasCopies());
}

TEST_F(Verify, ACopyThatACrashLeftGoesWithTheNextOne) {
  fs::create_directories(state + "/verify/abandoned");
  std::ofstream(state + "/verify/abandoned/.db.kd") << "rest";
  verify(0);
  EXPECT_FALSE(hasCopies());
}

TEST_F(Verify, AnInterruptEndsItAndLeavesNothing) {
  for (int i = 0; i < 3000; ++i) write("d/" + std::to_string(i));
  ASSERT_EQ(run({"scan", "-q", volume}).exitCode, 0);
  Program program({"verify", volume, "--state", state});
  // Once there is a copy, signals are noted.
  ASSERT_TRUE(program.waitUntil([&] {
    std::error_code none;
    return fs::exists(state + "/verify", none) && hasCopies();
  }));
  program.signal(SIGINT);
  const Outcome outcome = program.finish();
  if (outcome.exitCode != 0)
    expectFailure(outcome, "the verification of " + volume + " was interrupted");
  EXPECT_FALSE(hasCopies());
}

TEST_F(Verify, WithoutACatalogueItSaysWhatToDo) {
  fs::remove_all(catalogueOf(volume));
  expectFailure(run({"verify", volume}), "there is no catalogue for " + volume + " in " +
                                             catalogueOf(volume) +
                                             "; make a new one with: kddc scan " + volume);
}

TEST_F(Verify, WhereThereAreNoFileHandlesInodeNumbersWillDo) {
  if (const std::string why = LoopMount::whyNot("overlay"); !why.empty()) GTEST_SKIP() << why;
  const LoopMount overlay("overlay");
  std::ofstream(overlay / "file") << "text";
  std::ofstream(overlay / "gone") << "text";
  EXPECT_EQ(run({"scan", "-q", overlay.path()}).exitCode, 0);
  EXPECT_EQ(run({"verify", overlay.path()}).exitCode, 0);
  std::ofstream(overlay / "file") << "more text";
  fs::remove(overlay / "gone");
  const Outcome outcome = run({"verify", overlay.path()});
  EXPECT_EQ(outcome.exitCode, 1) << outcome;
  EXPECT_THAT(outcome.out, HasSubstr("gone"));
  EXPECT_THAT(outcome.out, HasSubstr("file"));
}

// The volume is watched.
struct VerifyWatched : Verify {};

TEST_F(VerifyWatched, WhatHappenedBeforeTheCallIsInTheCatalogue) {
  const auto program = watch();
  for (int i = 0; i < 100; ++i) write("d/" + std::to_string(i));
  EXPECT_THAT(verify(0), ElementsAre("0 differ; compared 105 in S s"));
  stop(*program);
}

TEST_F(VerifyWatched, TheLiveCatalogueKeepsItsColumns) {
  files("UPDATE FILES SET GID=12 WHERE NAME IN ('a','link')");
  ASSERT_EQ(::chown((*this / "a").c_str(), 0, 12), 0);
  const auto program = watch();
  flush();
  const Words before = rows("SELECT INODE,GID,TIME FROM FILES");
  EXPECT_THAT(verify(0), ElementsAre("0 differ; compared 5 in S s"));
  EXPECT_EQ(rows("SELECT INODE,GID,TIME FROM FILES"), before);
  EXPECT_EQ(rows("SELECT GID FROM FILES WHERE NAME='a'"), Words{"12"});
  stop(*program);
}

TEST_F(VerifyWatched, ARowThatIsWrongIsFoundAllTheSame) {
  const auto program = watch();
  flush();
  DatabaseView view(catalogueOf(volume) + "/.db.kd");
  sqlite3_busy_timeout(view.handle(), 10000);
  view.rows("UPDATE FILES SET SIZE=5 WHERE NAME='b'");
  EXPECT_THAT(verify(1), ElementsAre("d/b: size is 5 in the catalogue, 0 on the disk",
                                     "1 differ; compared 5 in S s"));
  stop(*program);
}

TEST_F(VerifyWatched, UnderAWorkloadNothingFalseIsReported) {
  for (const std::string folder : {"x", "y", "x/z"}) fs::create_directory(*this / folder);
  const auto program = watch();
  std::atomic<bool> isOver = false;
  std::thread work([&] {
    const std::string at[] = {"x/", "y/", "x/z/"};
    std::error_code gone;
    for (unsigned i = 0; !isOver; ++i) {
      const std::string name = std::to_string(i % 17), other = std::to_string(i % 13);
      write(at[i % 3] + name, std::string(i % 100, 'x'));
      fs::rename(*this / (at[i % 3] + name), *this / (at[i % 2] + other), gone);
      fs::create_directory(*this / ("y/f" + other), gone);
      fs::rename(*this / ("y/f" + other), *this / ("x/f" + name), gone);
      if (i % 5 == 0) fs::remove_all(*this / ("x/f" + other), gone);
      if (i % 4 == 0) fs::remove(*this / (at[i % 3] + name), gone);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // paces the changes
    }
  });
  for (int i = 0; i < 8; ++i) {
    const Outcome outcome = run({"verify", volume});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    EXPECT_THAT(outcome.out, StartsWith("0 differ; compared "));
  }
  isOver = true;
  work.join();
  EXPECT_EQ(run({"verify", volume}).exitCode, 0);
  EXPECT_FALSE(hasCopies());
  stop(*program);
}

}  // namespace
}  // namespace kddc::test
