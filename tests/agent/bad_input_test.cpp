// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the program says and leaves behind when work cannot be done: one line, exit 3, nothing lost
// and nothing half-made.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "platform/lock_file.h"
#include "platform/unique_fd.h"
#include "tests/support/catalogue.h"
#include "tests/support/database_view.h"
#include "tests/support/loop_mount.h"
#include "tests/support/program.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

struct BadInput : testing::Test {
  TempFolder temp;
  std::string volume = temp / "volume";
  std::string catalogue = temp / "catalogue";
  std::string filesPath = catalogue + "/.db.kd";
  std::string fidsPath = catalogue + "/.fid.kd";

  BadInput() {
    std::filesystem::create_directory(volume);
    temp.write("volume/file", "");
  }
  Words words(const std::string& command) const {
    Words words = {command, volume, "--catalogue", catalogue};
    if (command == "changes") words.insert(words.end(), {"--since", "1h"});
    return words;
  }
  Outcome run(const std::string& command) const { return Program::run(words(command)); }
  void scan() const {
    const Outcome outcome = run("scan");
    ASSERT_EQ(outcome.exitCode, 0) << outcome;
  }
  void change(const std::string& sql) const { DatabaseView(filesPath).rows(sql); }

  static void expectFailure(const Outcome& outcome, const std::string& sentence) {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
  // Both commands that answer from the catalogue refuse with the sentence and the way out.
  void expectRefusal(const std::string& why) const {
    for (const char* command : {"list", "changes"})
      expectFailure(run(command), why + "; make a new one with: kddc scan " + volume);
  }
  void expectListIs(const std::string& out) const {
    const Outcome outcome = run("list");
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    EXPECT_EQ(outcome.out, out);
  }
  // Everything in the temporary folder but the volume.
  std::set<std::string> leftBehind() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(temp.path()))
      names.insert(entry.path().filename());
    names.erase("volume");
    return names;
  }
};

TEST_F(BadInput, AVolumeThatIsNoFolderIsRefusedByEveryCommand) {
  for (const char* command : {"scan", "list", "check"}) {
    expectFailure(Program::run({command, temp / "none", "--catalogue", catalogue}),
                  "cannot use the volume " + temp / "none" + ": No such file or directory");
    expectFailure(Program::run({command, volume + "/file", "--catalogue", catalogue}),
                  "cannot use the volume " + volume + "/file: it is no folder");
  }
  EXPECT_EQ(leftBehind(), std::set<std::string>());
}

TEST_F(BadInput, WithoutACatalogueTheAnswerIsHowToMakeOne) {
  expectRefusal("there is no catalogue for " + volume + " in " + catalogue);
  expectFailure(run("check"), "cannot read " + filesPath +
                                  ": No such file or directory; make a catalogue with: kddc scan " +
                                  volume);
  EXPECT_EQ(leftBehind(), std::set<std::string>());
}

TEST_F(BadInput, ACatalogueOfAnotherVersionIsRefused) {
  scan();
  change("UPDATE TIME SET VERSION='10.0'");
  expectRefusal("the catalogue in " + catalogue + " is of version '10.0', not 10.1");
  scan();
  expectListIs(".\nfile\n");
}

TEST_F(BadInput, ACatalogueWhoseFirstScanNeverFinishedIsRefused) {
  scan();
  change("UPDATE TIME SET FULL_SCAN=0");
  expectRefusal("the first scan of " + volume + " has not finished");
}

TEST_F(BadInput, ACatalogueThatWasNotClosedProperlyIsRefused) {
  scan();
  change("UPDATE TIME SET GRACEFUL_SHUTDOWN=0");
  expectRefusal("the catalogue in " + catalogue + " was not closed properly");
}

TEST_F(BadInput, ACatalogueThatSomebodyKeepsOpenAnswersWithoutANote) {
  scan();
  OpenCatalogue keeper(catalogue);
  ASSERT_TRUE(keeper.OpenHandle(false, false));
  StatFidName_s entry = CatalogueTest::entry("fresh", 'x', 0100644);
  keeper.Insert(&entry, 1, 7);
  keeper.Commit();
  const Outcome outcome = run("changes");
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.err, "");
  EXPECT_THAT(outcome.out, HasSubstr("fresh\n"));
  keeper.CloseHandle(0, false);
}

TEST_F(BadInput, AnotherVolumesCatalogueIsNeitherReadNorReplaced) {
  scan();
  const std::string other = temp / "other";
  std::filesystem::create_directory(other);
  expectFailure(Program::run({"list", other, "--catalogue", catalogue}),
                catalogue + " holds the catalogue of " + volume + ", not of " + other);
  expectFailure(Program::run({"scan", other, "--catalogue", catalogue}),
                catalogue + " holds the catalogue of " + volume + "; name another folder");
  expectListIs(".\nfile\n");
}

TEST_F(BadInput, AFileThatIsNoDatabaseIsNamedAndCanBeReplaced) {
  scan();
  temp.write("catalogue/.db.kd", "these are no pages of a database, whatever they are");
  expectRefusal(catalogue + " holds no catalogue (file is not a database)");
  expectFailure(run("check"),
                filesPath + " is no database; make a new catalogue with: kddc scan " + volume);
  scan();
  expectListIs(".\nfile\n");
}

TEST_F(BadInput, ADatabaseWithoutOurTablesIsNoCatalogue) {
  scan();
  change("DROP TABLE TIME");
  expectRefusal(catalogue + " holds no catalogue (no such table: TIME)");
}

TEST_F(BadInput, RowsWithoutAWayToTheRootAreDamageAndNeverALoop) {
  std::filesystem::create_directories(volume + "/a/b");
  temp.write("volume/a/b/c", "");
  const std::string damaged = "the catalogue in " + catalogue + " is damaged (row ";
  for (const char* sql :
       {"UPDATE FILES SET PINODE=(SELECT INODE FROM FILES WHERE NAME='b') WHERE NAME='a'",
        "UPDATE FILES SET PINODE=INODE WHERE NAME='b'", "DELETE FROM FILES WHERE NAME='a'",
        "UPDATE FILES SET FILE_TYPE=0 WHERE NAME='a'",
        "UPDATE FILES SET PINODE=-1 WHERE NAME='a'"}) {
    scan();
    change(sql);
    const Outcome outcome = run("list");
    EXPECT_EQ(outcome.exitCode, 3) << sql;
    EXPECT_THAT(outcome.err, StartsWith("kddc: " + damaged)) << sql;
    EXPECT_THAT(outcome.err,
                HasSubstr(" has no way up to the volume's root); make a new one with"));
  }
}

TEST_F(BadInput, DamagedPagesAreFoundByCheckAndRefusedByReaders) {
  for (int i = 0; i < 500; ++i) temp.write("volume/name-" + std::to_string(i), "");
  scan();
  {
    std::fstream file(filesPath, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(3 * 4096);
    file << std::string(5 * 4096, '\x5a');
  }
  const Outcome list = run("list");
  EXPECT_EQ(list.exitCode, 3);
  EXPECT_THAT(list.err,
              MatchesRegex("kddc: the catalogue in .* is damaged \\(.*\\); make a new one "
                           "with: kddc scan .*\n"));
  const Outcome check = run("check");
  EXPECT_EQ(check.exitCode, 1) << check;
  EXPECT_EQ(check.out, "files database: damaged\nfid database: ok\n");
}

TEST_F(BadInput, AFileCutShortIsRefused) {
  for (int i = 0; i < 500; ++i) temp.write("volume/name-" + std::to_string(i), "");
  scan();
  std::filesystem::resize_file(filesPath, 8192);
  const Outcome list = run("list");
  EXPECT_EQ(list.exitCode, 3) << list;
  EXPECT_EQ(std::count(list.err.begin(), list.err.end(), '\n'), 1) << list;
}

TEST_F(BadInput, ACatalogueInUseIsNamedWithItsUser) {
  scan();
  LockFile lock;
  ASSERT_TRUE(lock.take(fidsPath + ".lock", false, std::chrono::seconds(0)));
  const std::string user = "process " + std::to_string(getpid()) + " (agent_tests)";
  for (const char* command : {"scan", "check"}) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_EQ(outcome.err, "kddc: " + catalogue + " is in use by " + user + "; stop it first\n");
  }
  lock.release();
  expectListIs(".\nfile\n");
}

TEST_F(BadInput, AFolderWithForeignFilesIsLeftAlone) {
  std::filesystem::create_directory(catalogue);
  temp.write("catalogue/letter.txt", "dear");
  expectFailure(run("scan"), catalogue +
                                 " holds letter.txt, which is no part of a catalogue; name "
                                 "an empty or a new folder");
  EXPECT_TRUE(std::filesystem::exists(temp / "catalogue/letter.txt"));
  EXPECT_EQ(leftBehind(), std::set<std::string>{"catalogue"});
}

TEST_F(BadInput, TheVolumeItselfCannotBeItsCatalogue) {
  std::filesystem::remove(volume + "/file");
  expectFailure(Program::run({"scan", volume, "--catalogue", volume}),
                volume + " is the volume itself; name another folder for its catalogue");
}

TEST_F(BadInput, WhatACrashLeftIsRemovedByTheNextScan) {
  std::filesystem::create_directory(temp / "catalogue.new");
  for (const char* name : {".db.kd", ".db.kd.lock", ".db.kd-wal", ".fid.kd"})
    temp.write("catalogue.new/" + std::string(name), "half-made");
  scan();
  EXPECT_EQ(leftBehind(), std::set<std::string>{"catalogue"});
  expectListIs(".\nfile\n");
}

TEST_F(BadInput, ASettingThatIsNoNumberIsNamedWithItsLine) {
  std::filesystem::create_directory(temp / "registry");
  temp.write("registry/settings.ini", "[DataClassification]\nSqlitePageSize = many\n");
  const Outcome outcome = Program::run(
      words("scan"), [&] { setenv("KELDARA_REGISTRY_ROOT", (temp / "registry").c_str(), 1); });
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_THAT(outcome.err, HasSubstr(temp / "registry/settings.ini:2: \"SqlitePageSize\""));
  EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome;
  EXPECT_FALSE(std::filesystem::exists(catalogue));
  EXPECT_FALSE(std::filesystem::exists(catalogue + ".new"));
}

TEST_F(BadInput, SettingsThatOthersCanChangeAreNotFollowed) {
  std::filesystem::create_directory(temp / "registry");
  const std::string file =
      temp.write("registry/settings.ini", "[DataClassification]\nSqlitePageSize = 4096\n");
  std::filesystem::permissions(file, std::filesystem::perms::others_write,
                               std::filesystem::perm_options::add);
  const Outcome outcome = Program::run(
      words("scan"), [&] { setenv("KELDARA_REGISTRY_ROOT", (temp / "registry").c_str(), 1); });
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_THAT(outcome.err,
              HasSubstr(file + " can be changed by others; close it with: chmod go-w " + file));
  EXPECT_FALSE(std::filesystem::exists(catalogue));
}

TEST_F(BadInput, AFullDiskKeepsTheCatalogueBefore) {
  if (const std::string why = LoopMount::whyNot("tmpfs"); !why.empty()) GTEST_SKIP() << why;
  const LoopMount disk("tmpfs", "size=1m");
  catalogue = disk / "catalogue";
  scan();
  expectListIs(".\nfile\n");
  for (int i = 0; i < 20000; ++i) temp.write("volume/a-rather-long-name-" + std::to_string(i), "");
  expectFailure(run("scan"),
                "cannot scan " + volume + ": the disk is full; make room and try again");
  expectListIs(".\nfile\n");
  EXPECT_FALSE(std::filesystem::exists(catalogue + ".new"));
}

TEST_F(BadInput, AnAnswerThatCannotBeWrittenIsAFailure) {
  scan();
  const Outcome outcome =
      Program::run(words("list"), [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); });
  expectFailure(outcome, "cannot write the answer: No space left on device");
}

TEST_F(BadInput, AReaderThatHasHadEnoughIsNoFailure) {
  scan();
  const Outcome outcome = Program::run(words("list"), [] {
    int ends[2];
    if (pipe(ends) == 0) dup2(ends[1], STDOUT_FILENO);
    close(ends[0]);
    close(ends[1]);
  });
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.err, "");
}

// A scan that is stopped while it inserts. Its new catalogue's lock tells that it has begun, and
// the lock of the folder above, once it can be had, that the catalogue is made.
struct StoppedScan {
  Program program;
  StoppedScan(const Words& words, const std::string& parent) : program(words) {
    const std::string lock = parent + "/catalogue.new/.fid.kd.lock";
    for (int i = 0; i < 60000 && !LockFile::holderOf(lock); ++i) usleep(1000);
    const UniqueFd folder(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    flock(folder.get(), LOCK_EX);
    program.signal(SIGSTOP);
    waitpid(program.pid(), nullptr, WUNTRACED);
  }
};

// Enough for a scan that can be met under way; links are made faster than files.
struct LongScan : BadInput {
  LongScan() {
    scan();
    for (int i = 0; i < 20000; ++i) {
      const std::string name = volume + "/later-" + std::to_string(i);
      if (link((volume + "/file").c_str(), name.c_str()) != 0) ADD_FAILURE() << name;
    }
  }
};

TEST_F(LongScan, AnInterruptedScanLeavesTheCatalogueBefore) {
  for (const int signal : {SIGINT, SIGTERM}) {
    StoppedScan stopped(words("scan"), temp.path());
    expectListIs(".\nfile\n");
    stopped.program.signal(signal);
    stopped.program.signal(SIGCONT);
    expectFailure(stopped.program.finish(),
                  "the scan of " + volume + " was interrupted; nothing was changed");
    expectListIs(".\nfile\n");
    EXPECT_EQ(leftBehind(), std::set<std::string>{"catalogue"});
  }
}

TEST_F(LongScan, ASecondScanOfTheSameCatalogueIsRefused) {
  StoppedScan stopped(words("scan"), temp.path());
  expectFailure(run("scan"), catalogue + " is in use by process " +
                                 std::to_string(stopped.program.pid()) +
                                 " (kddc scan); stop it first");
  stopped.program.signal(SIGCONT);
  EXPECT_EQ(stopped.program.finish().exitCode, 0);
}

TEST_F(BadInput, ALockThatIsNotGivenBackEndsTheWait) {
  const UniqueFd folder(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(flock(folder.get(), LOCK_EX), 0);
  expectFailure(run("scan"),
                "another scan has locked " + temp.path() + " and does not go on; stop it first");
}

TEST_F(LongScan, AKilledScanLeavesTheCatalogueBeforeAndTheNextOneCleansUp) {
  {
    StoppedScan stopped(words("scan"), temp.path());
    stopped.program.signal(SIGKILL);
    EXPECT_EQ(stopped.program.finish().exitCode, 128 + SIGKILL);
  }
  expectListIs(".\nfile\n");
  scan();
  EXPECT_EQ(leftBehind(), std::set<std::string>{"catalogue"});
}

TEST_F(BadInput, ReadersAlwaysSeeOneWholeCatalogueWhileScansReplaceIt) {
  scan();
  for (int round = 0; round < 6; ++round) {
    Program scanner(words("scan"));
    for (int i = 0; i < 5; ++i) {
      const Outcome list = Program::run({"list", volume, "--catalogue", catalogue, "--json"});
      ASSERT_EQ(list.exitCode, 0) << list;
      EXPECT_EQ(std::count(list.out.begin(), list.out.end(), '\n'), 2) << list;
      EXPECT_EQ(list.out.find("null"), std::string::npos) << list;
    }
    const Outcome scanned = scanner.finish();
    EXPECT_EQ(scanned.exitCode, 0) << scanned;
  }
}

}  // namespace
}  // namespace kddc::test
