// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The program as its users meet it: words in, lines and an exit code out.
#include "tests/support/program.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/catalogue.h"
#include "tests/support/database_view.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

struct ProgramTest : testing::Test {
  TempFolder temp;
  std::string volume = temp / "volume";
  std::string catalogue = temp / "catalogue";
  std::string filesPath = catalogue + "/.db.kd";
  std::string fidsPath = catalogue + "/.fid.kd";

  ProgramTest() { std::filesystem::create_directory(volume); }

  void write(const std::string& name, const std::string& text = "") const {
    std::filesystem::create_directories(std::filesystem::path(volume + "/" + name).parent_path());
    temp.write("volume/" + name, text);
  }
  // Runs a command on the volume and its catalogue, with further words.
  Outcome run(const std::string& command, const Words& more = {}) const {
    Words words = {command, volume, "--catalogue", catalogue};
    words.insert(words.end(), more.begin(), more.end());
    return Program::run(words);
  }
  void scan() const {
    const Outcome outcome = run("scan");
    ASSERT_EQ(outcome.exitCode, 0) << outcome;
  }
  void change(const std::string& sql) const { DatabaseView(filesPath).rows(sql); }
  // The answer's records, split at `separator`.
  static std::vector<std::string> lines(const std::string& out, char separator = '\n') {
    std::vector<std::string> lines;
    std::istringstream stream(out);
    for (std::string line; std::getline(stream, line, separator);) lines.push_back(line);
    return lines;
  }
  void expectFailure(const Outcome& outcome, const std::string& sentence) const {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
  void expectUsage(const Words& words, const std::string& sentence) const {
    const Outcome outcome = Program::run(words);
    EXPECT_EQ(outcome.exitCode, 2) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "; see kddc --help\n");
    EXPECT_EQ(outcome.out, "");
  }
};

TEST_F(ProgramTest, HelpAndVersionGoToStandardOutput) {
  const Outcome help = Program::run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.out, HasSubstr("Usage: kddc"));
  const Outcome version = Program::run({"--version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out, "kddc 0.1.0\n");
}

TEST_F(ProgramTest, WordsThatMakeNoSenseAreAUsageError) {
  expectUsage({}, "A command is required");
  expectUsage({"scna", volume}, "'scna' is no command or option");
  expectUsage({"list"}, "VOLUME is required");
  expectUsage({"changes", volume}, "--since is required");
  expectUsage({"list", volume, "-0", "--json"}, "--null excludes --json");
  expectUsage({"changes", volume, "--since", "soon"},
              "--since: 'soon' is no time: give seconds since 1970, a date such as "
              "2024-03-01T12:30, or an age such as 15m, 2h, 3d");
  EXPECT_EQ(Program::run({"list", volume, "--frob"}).exitCode, 2);
  EXPECT_EQ(Program::run({"frob", volume}).exitCode, 2);
}

TEST_F(ProgramTest, AScanSaysHowManyEntriesItFoundAndNothingElse) {
  write("a/b");
  const Outcome outcome = run("scan");
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_THAT(outcome.err, MatchesRegex("3 entries in [0-9.]+ s\n"));
  EXPECT_EQ(run("scan", {"-q"}).err, "");
}

TEST_F(ProgramTest, ARescanPrintsCountsAsALineOrAsJson) {
  write("a");
  write("b");
  scan();
  write("c");
  std::filesystem::remove(volume + "/b");
  change("UPDATE FILES SET MTIME=1 WHERE PINODE=0");  // within one second the root need not change
  const Outcome outcome = run("rescan");
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_THAT(outcome.out, MatchesRegex("added 1, changed 1, moved 0, removed 1; "
                                        "compared 3 in [0-9.]+ s\n"));
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(run("rescan", {"--json"}).out,
              MatchesRegex("\\{\"added\":0,\"changed\":0,\"moved\":0,\"removed\":0,\"compared\":3,"
                           "\"seconds\":[0-9.]+\\}\n"));
  EXPECT_THAT(lines(run("list").out), UnorderedElementsAre(".", "a", "c"));
}

TEST_F(ProgramTest, ARescanNeedsACatalogueThatCanBeTrustedAndThatNobodyUses) {
  const std::string scanIt = "; make a new one with: kddc scan " + volume;
  expectFailure(run("rescan"), "there is no catalogue for " + volume + " in " + catalogue + scanIt);
  scan();
  {
    DCSqliteDB other(catalogue);
    ASSERT_TRUE(other.OpenHandle(false, false));
    const Outcome outcome = run("rescan");
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.err,
                MatchesRegex("kddc: .* is in use by process [0-9]+ .*; stop it first\n"));
  }
  expectFailure(run("rescan"),
                "the catalogue in " + catalogue + " was not closed properly" + scanIt);
}

TEST_F(ProgramTest, ListPrintsEveryPathRelativeToTheVolume) {
  write("one");
  write("sub/two");
  write("sub/deep/three");
  scan();
  const Outcome outcome = run("list");
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(lines(outcome.out),
              UnorderedElementsAre(".", "one", "sub", "sub/two", "sub/deep", "sub/deep/three"));
}

TEST_F(ProgramTest, PathsAreSeparatedByNulOnRequestAndComeByteForByte) {
  write("new\nline");
  write("\xff\xfe bytes");
  scan();
  for (const char* option : {"-0", "--null"}) {
    const Outcome outcome = run("list", {option});
    EXPECT_THAT(lines(outcome.out, '\0'), UnorderedElementsAre(".", "new\nline", "\xff\xfe bytes"));
    EXPECT_EQ(outcome.out.back(), '\0');
  }
}

TEST_F(ProgramTest, JsonGivesAllThatIsKnownInAFixedOrder) {
  write("file", "four");
  const timeval times[2] = {{1111, 0}, {2222, 0}};
  ASSERT_EQ(utimes((volume + "/file").c_str(), times), 0);
  ASSERT_EQ(chmod((volume + "/file").c_str(), 0640), 0);
  scan();
  change("UPDATE FILES SET CTIME=3333,TIME=-1,BLOCKSUSED=8,UID=-2,GID=7 WHERE NAME='file'");
  DatabaseView(fidsPath).rows("UPDATE FIDS SET FID1=1,FID2=2,FID3=3,FID4=281474976710655");
  EXPECT_THAT(
      lines(run("list", {"--json"}).out),
      testing::Contains(
          R"({"path":"file","type":"file","mode":33184,"uid":4294967294,"gid":7,"nlink":1,"size":4,)"
          R"("blocks":8,"atime":1111,"mtime":2222,"ctime":3333,"time":4294967295,)"
          R"("fid":"010000000000020000000000030000000000ffffffffffff"})"));
}

TEST_F(ProgramTest, JsonEscapesPathsAndGivesOthersThanUtf8InBase64) {
  write("quote\"back\\new\n");
  write("gr\xc3\xbc\xc3\x9f");
  write("\xff");
  write("sub\xfe/ab");
  scan();
  std::vector<std::string> paths;
  for (const std::string& line : lines(run("list", {"--json"}).out))
    paths.push_back(line.substr(1, line.find(",\"type\"") - 1));
  EXPECT_THAT(paths, UnorderedElementsAre(R"("path":".")", R"("path":"quote\"back\\new\n")",
                                          "\"path\":\"gr\xc3\xbc\xc3\x9f\"",
                                          R"("path_base64":"/w==")", R"("path_base64":"c3Vi/g==")",
                                          R"("path_base64":"c3Vi/i9hYg==")"));
}

TEST_F(ProgramTest, JsonNamesEveryType) {
  write("x");
  scan();
  const std::vector<std::string> names = {"file", "folder", "symlink", "chardev", "blockdev",
                                          "fifo", "socket", "other",   "stub"};
  for (std::size_t type = 0; type < names.size(); ++type) {
    change("UPDATE FILES SET FILE_TYPE=" + std::to_string(type) + " WHERE NAME='x'");
    EXPECT_THAT(run("list", {"--json"}).out,
                HasSubstr("\"path\":\"x\",\"type\":\"" + names[type] + "\""));
  }
}

TEST_F(ProgramTest, AStubIsCataloguedAsOne) {
  write("away");
  if (setxattr((volume + "/away").c_str(), "trusted.hsm.stub", "1", 1, 0) != 0)
    GTEST_SKIP() << "cannot mark stubs here";
  scan();
  EXPECT_THAT(run("list", {"--json"}).out, HasSubstr("\"path\":\"away\",\"type\":\"stub\""));
}

TEST_F(ProgramTest, ChangesPrintsWhatIsStampedThenOrLater) {
  write("old");
  write("sub/exact");
  write("sub/new");
  scan();
  change("UPDATE FILES SET TIME=1000");
  change("UPDATE FILES SET TIME=2000 WHERE NAME='exact'");
  change("UPDATE FILES SET TIME=2001 WHERE NAME='new'");
  const auto since = [&](const std::string& when) {
    return lines(run("changes", {"-q", "--since", when}).out);
  };
  EXPECT_THAT(since("@2000"), UnorderedElementsAre("sub/exact", "sub/new"));
  EXPECT_THAT(since("2001"), UnorderedElementsAre("sub/new"));
  EXPECT_THAT(since("2002"), IsEmpty());
  EXPECT_THAT(since("0"), UnorderedElementsAre(".", "old", "sub", "sub/exact", "sub/new"));
}

TEST_F(ProgramTest, StampsReachTo2106) {
  write("late");
  scan();
  change("UPDATE FILES SET TIME=1000");
  change("UPDATE FILES SET TIME=-2 WHERE NAME='late'");  // 4294967294
  EXPECT_EQ(run("changes", {"-q", "--since", "4294967294"}).out, "late\n");
  EXPECT_EQ(run("changes", {"-q", "--since", "4294967295"}).out, "");
}

TEST_F(ProgramTest, AnAnswerThatIsNotKeptCurrentSaysSo) {
  scan();
  change("UPDATE TIME SET DB_CREATION_TIME=86400");
  setenv("TZ", "UTC0", 1);
  EXPECT_EQ(run("changes", {"--since", "1h"}).err,
            "kddc: nobody keeps this catalogue current; the answer is as of the scan that ended "
            "1970-01-02 00:00:00\n");
  EXPECT_EQ(run("changes", {"--since", "1h", "-q"}).err, "");
  EXPECT_EQ(run("list").err, "");
}

TEST_F(ProgramTest, AFreshCatalogueShowsEverythingAsChangedAndIsMarkedComplete) {
  write("ancient");
  const timeval times[2] = {{1, 0}, {1, 0}};
  ASSERT_EQ(utimes((volume + "/ancient").c_str(), times), 0);
  scan();
  EXPECT_THAT(lines(run("changes", {"-q", "--since", "5m"}).out),
              UnorderedElementsAre(".", "ancient"));
  DatabaseView files(filesPath);
  EXPECT_EQ(files.cell("SELECT FULL_SCAN,GRACEFUL_SHUTDOWN,VERSION FROM TIME"), "1|1|10.1");
  EXPECT_EQ(files.cell("SELECT COUNT(*) FROM TIME WHERE TIME BETWEEN DB_CREATION_TIME-900 AND "
                       "DB_CREATION_TIME-600"),
            "1");
  EXPECT_EQ(files.cell("SELECT NAME,FILE_TYPE FROM FILES WHERE PINODE=0"), volume + "|1");
  for (const std::string& path : {filesPath, fidsPath}) {
    EXPECT_EQ(DatabaseView(path).cell("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(DatabaseView(path).cell("PRAGMA page_size"), "4096");
  }
}

TEST_F(ProgramTest, RowsAndIdentifiersPointAtEachOther) {
  write("a/b/c");
  write("d");
  scan();
  const auto files = DatabaseView(filesPath).rows("SELECT INODE,FID_ROWID FROM FILES ORDER BY 1");
  const auto fids =
      DatabaseView(fidsPath).rows("SELECT FILES_ROWID,FIDS_ROWID FROM FIDS ORDER BY 1");
  EXPECT_EQ(files, fids);
  EXPECT_EQ(files.size(), 5u);
}

TEST_F(ProgramTest, CatalogueFoldersAndFilesAreForTheirOwnerAlone) {
  umask(0);
  scan();
  umask(022);
  const auto mode = [](const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
  };
  EXPECT_EQ(mode(catalogue), 0700u);
  for (const auto& file : std::filesystem::directory_iterator(catalogue))
    EXPECT_EQ(mode(file.path()), 0600u) << file.path();
}

TEST_F(ProgramTest, ByDefaultTheCatalogueLiesInTheStateFolderUnderTheVolumesHash) {
  std::filesystem::create_directory(temp / "od d");
  std::filesystem::create_symlink(temp / "od d", temp / "link");
  const Words state = {"--state", temp / "state"};
  for (const char* name : {"od d", "link", "od d/"}) {
    const Outcome outcome = Program::run({"scan", temp / name, state[0], state[1]});
    ASSERT_EQ(outcome.exitCode, 0) << outcome;
  }
  std::vector<std::string> made;
  for (const auto& folder : std::filesystem::directory_iterator(temp / "state/catalogues"))
    made.push_back(folder.path().filename());
  ASSERT_EQ(made.size(), 1u);
  EXPECT_THAT(made[0], MatchesRegex("od_d-[0-9a-f]{16}"));
  EXPECT_EQ(Program::run({"list", temp / "link", state[0], state[1]}).out, ".\n");
}

TEST_F(ProgramTest, TheStateFolderCanBeSetInTheSettings) {
  std::filesystem::create_directory(temp / "registry");
  temp.write("registry/settings.ini", "[DataClassification]\nStateDir = " + temp / "mine" + "\n");
  setenv("KELDARA_REGISTRY_ROOT", (temp / "registry").c_str(), 1);
  const Outcome outcome = Program::run({"scan", volume});
  unsetenv("KELDARA_REGISTRY_ROOT");
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_TRUE(std::filesystem::exists(temp / "mine/catalogues"));
}

TEST_F(ProgramTest, AScanGivesTheSameListingWhateverTheSizeOfItsMap) {
  for (int i = 0; i < 300; ++i) write("sub" + std::to_string(i % 7) + "/" + std::to_string(i));
  std::filesystem::create_directory(temp / "registry");
  setenv("KELDARA_REGISTRY_ROOT", (temp / "registry").c_str(), 1);
  std::vector<std::string> listings;
  for (const char* size : {"1", "1000000"}) {
    temp.write("registry/settings.ini",
               std::string("[DataClassification]\nSortedInsertMapSize = ") + size + "\n");
    scan();
    change("UPDATE FILES SET TIME=1, ATIME=1");  // which a scan itself moves
    listings.push_back(run("list", {"--json"}).out);
  }
  unsetenv("KELDARA_REGISTRY_ROOT");
  EXPECT_EQ(lines(listings[0]).size(), 308u);
  EXPECT_TRUE(listings[0] == listings[1]);
}

TEST_F(ProgramTest, ItsOwnFoldersAreNotCatalogued) {
  write("mine");
  const Words words = {volume, "--state", volume + "/state", "--catalogue", volume + "/catalogue"};
  for (int i = 0; i < 2; ++i) {
    Words scan = {"scan"};
    scan.insert(scan.end(), words.begin(), words.end());
    ASSERT_EQ(Program::run(scan).exitCode, 0);
    std::filesystem::create_directories(volume + "/state/something");
  }
  Words list = {"list"};
  list.insert(list.end(), words.begin(), words.end());
  EXPECT_THAT(lines(Program::run(list).out), UnorderedElementsAre(".", "mine"));
}

TEST_F(ProgramTest, CheckReportsBothDatabases) {
  scan();
  const Outcome outcome = run("check");
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.out, "files database: ok\nfid database: ok\n");
}

TEST_F(ProgramTest, ControlBytesOfNamesNeverReachTheTerminal) {
  const Outcome outcome = Program::run({"list", temp / "no\x1b[31m\nsuch\xff"});
  expectFailure(outcome, "cannot use the volume " + temp / "no\\x1b[31m\\nsuch\\xff" +
                             ": No such file or directory");
}

}  // namespace
}  // namespace kddc::test
