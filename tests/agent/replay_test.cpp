// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc replay as its users meet it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "tests/support/replay_fixture.h"

namespace kddc::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

// What happened in a small tree, and what it left behind.
std::string history(std::string (*written)(const std::string&)) {
  std::string text;
  for (const FlrJrnCommandRaw& r :
       {makeFolder('r', 'd', "sub"), makeFile('d', 'f', "first"), link('d', 'f', "second"),
        rename('r', 'd', "sub", "folder"), removeFile('d', 'f', "first", 1),
        rename('d', 'f', "second", "third")})
    text += written(wireOf(r));
  return text;
}
std::string plain(const std::string& record) {
  return record;
}

constexpr char kHistoryCounts[] =
    "FLR_JRN_CREATE                 1         0         0         0\n"
    "FLR_JRN_MKDIR                  1         0         0         0\n"
    "FLR_JRN_REMOVE                 1         0         0         0\n"
    "FLR_JRN_LINK                   1         0         0         0\n"
    "FLR_JRN_RENAME                 2         0         0         0\n"
    "total                          6         0         0         0\n";

TEST_F(ReplayTest, AppliesAStreamAndCountsItsRecordsByCommand) {
  const Outcome outcome = replay(history(plain));
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, std::string(kHead) + kHistoryCounts);
  EXPECT_EQ(names(), (Rows{"1|0|1|/photos", "2|1|1|folder", "4|2|0|third"}));
}

TEST_F(ReplayTest, AppliesASwapFileTheSameWay) {
  const Outcome outcome = replay(history(framed));
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.out, std::string(kHead) + kHistoryCounts);
  EXPECT_EQ(names(), (Rows{"1|0|1|/photos", "2|1|1|folder", "4|2|0|third"}));
}

TEST_F(ReplayTest, ReadsStandardInput) {
  const std::string path = file(history(plain));
  const Outcome outcome = Program::run({"replay", "-", "--catalogue", folder},
                                       [&] { dup2(open(path.c_str(), O_RDONLY), STDIN_FILENO); });
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.out, std::string(kHead) + kHistoryCounts);
}

TEST_F(ReplayTest, ClosesTheCatalogueGracefullyAndKeepsItsReferenceTime) {
  EXPECT_EQ(replay(history(plain)).exitCode, 0);
  EXPECT_EQ(DatabaseView(filesPath).cell("SELECT TIME,FULL_SCAN,GRACEFUL_SHUTDOWN FROM TIME"),
            "4400|1|1");
}

TEST_F(ReplayTest, AnEmptyFileChangesNothing) {
  const Outcome outcome = replay("");
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.out, std::string(kHead) +
                             "total                          0         0         0         0\n");
  EXPECT_EQ(names(), kUntouched);
}

TEST_F(ReplayTest, WhatTheCatalogueDoesNotHoldIsIgnoredOnPurpose) {
  const Outcome outcome =
      replay(swapFile({samples::noop(), samples::snap(), samples::write(), samples::ext2SetFlags(),
                       samples::twrite(), samples::writeDdr(), samples::fclear(), samples::txtmsg(),
                       samples::txtmsg()}));
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, std::string(kHead) +
                             "FLR_JRN_NOOP                   0         1         0         0\n"
                             "FLR_JRN_SNAP                   0         1         0         0\n"
                             "FLR_JRN_WRITE                  0         1         0         0\n"
                             "FLR_JRN_EXT2_SETFLAGS          0         1         0         0\n"
                             "FLR_JRN_TWRITE                 0         1         0         0\n"
                             "FLR_JRN_WRITE_DDR              0         1         0         0\n"
                             "FLR_JRN_FCLEAR                 0         1         0         0\n"
                             "FLR_JRN_TXTMSG                 0         2         0         0\n"
                             "total                          0         9         0         0\n");
}

TEST_F(ReplayTest, AttributesOfUnknownFilesCountAsApplied) {
  const Outcome outcome = replay(
      stream({samples::setattr(), samples::setAcl(), samples::setXattr(), samples::rmXattr(),
              samples::stub(), samples::unstub(), samples::setXattrAix(), samples::rmXattrAix()}));
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_THAT(outcome.out,
              HasSubstr("total                          8         0         0         0\n"));
  EXPECT_EQ(names(), kUntouched);
}

TEST_F(ReplayTest, DamageIsRefusedWithItsPlaceAndTheRestIsApplied) {
  std::string unknown = wireOf(samples::txtmsg());
  unknown[0] = 24;
  std::string endless = wireOf(samples::txtmsg());
  endless.back() = 'x';
  const Outcome outcome =
      replay(wireOf(makeFile('r', 'a', "one")) + unknown + endless +
             wireOf(makeFile('r', 'b', "two")) + wireOf(samples::rename()).substr(0, 129));
  EXPECT_EQ(outcome.exitCode, 1) << outcome;
  EXPECT_EQ(outcome.err, complaint("byte 122: a record of 32 bytes is not well formed") +
                             complaint("byte 154: a record of 32 bytes is not well formed") +
                             complaint("byte 308: the file ends inside a record of 130 bytes"));
  EXPECT_EQ(outcome.out, std::string(kHead) +
                             "UNKNOWN                        0         0         1         0\n"
                             "FLR_JRN_CREATE                 2         0         0         0\n"
                             "FLR_JRN_RENAME                 0         0         1         0\n"
                             "FLR_JRN_TXTMSG                 0         0         1         0\n"
                             "total                          2         0         3         0\n");
  EXPECT_EQ(names(), (Rows{"1|0|1|/photos", "2|1|0|one", "3|1|0|two"}));
}

TEST_F(ReplayTest, ABadLengthInASwapFileIsRefusedUnderNoName) {
  const Outcome outcome = replay(framed(wireOf(makeFile('r', 'a', "one"))) + prefix(-1));
  EXPECT_EQ(outcome.exitCode, 1) << outcome;
  EXPECT_EQ(outcome.err, complaint("byte 124: a length of -1 is negative"));
  EXPECT_EQ(outcome.out, std::string(kHead) +
                             "UNKNOWN                        0         0         1         0\n"
                             "FLR_JRN_CREATE                 1         0         0         0\n"
                             "total                          1         0         1         0\n");
}

TEST_F(ReplayTest, ARecordThatTheCatalogueCannotTakeInFailsAndTheOthersAreApplied) {
  const std::string unknown = wireOf(rename('r', 'u', "from", "to"));
  const Outcome outcome = replay(wireOf(makeFile('r', 'a', "one")) + unknown + unknown +
                                 wireOf(makeFile('r', 'b', "two")));
  EXPECT_EQ(outcome.exitCode, 1) << outcome;
  EXPECT_EQ(outcome.err, complaint("byte 122: the first record that could not be applied, a "
                                   "FLR_JRN_RENAME; -v says why"));
  EXPECT_EQ(outcome.out, std::string(kHead) +
                             "FLR_JRN_CREATE                 2         0         0         0\n"
                             "FLR_JRN_RENAME                 0         0         0         2\n"
                             "total                          2         0         0         2\n");
  EXPECT_EQ(names(), (Rows{"1|0|1|/photos", "2|1|0|one", "3|1|0|two"}));
  EXPECT_THAT(replay(unknown, {"-v"}).err, HasSubstr("Could not find an entry with src_fid["));
}

TEST_F(ReplayTest, JsonHasAnObjectForEachCommandAndTheTotal) {
  const Outcome outcome =
      replay(wireOf(makeFile('r', 'a', "one")) + stream({samples::noop()}) + "\x07", {"--json"});
  EXPECT_EQ(outcome.exitCode, 1) << outcome;
  EXPECT_EQ(outcome.out,
            R"({"command":"FLR_JRN_NOOP","applied":0,"ignored":1,"refused":0,"failed":0}
{"command":"FLR_JRN_CREATE","applied":1,"ignored":0,"refused":0,"failed":0}
{"command":"FLR_JRN_REMOVE","applied":0,"ignored":0,"refused":1,"failed":0}
{"command":"total","applied":1,"ignored":1,"refused":1,"failed":0}
)");
}

TEST_F(ReplayTest, StatsAddHowOftenAndHowLongEachOperationRan) {
  FlrJrnCommandRaw other = makeFile('r', 'c', "three");
  other.devt = 256;
  const std::string bytes = wireOf(makeFile('r', 'a', "one")) + wireOf(makeFile('r', 'b', "two")) +
                            wireOf(makeFolder('r', 'd', "sub")) + wireOf(other);
  const std::string table = replay(bytes, {"--stats"}).out;
  EXPECT_THAT(table,
              HasSubstr("total                          4         0         0         0\n"
                        "\n"
                        "operation           devt                   records      nanoseconds\n"
                        "Create              0x7                          2 "));
  EXPECT_THAT(table, HasSubstr("\nMkDir               0x7                          1 "));
  EXPECT_THAT(table, HasSubstr("\nCreate              0x100                        1 "));
  const std::string asJson = replay(bytes, {"--stats", "--json"}).out;
  EXPECT_THAT(asJson, HasSubstr(R"({"operation":"Create","devt":7,"records":2,"nanoseconds":)"));
  EXPECT_THAT(asJson, HasSubstr(R"({"operation":"MkDir","devt":7,"records":1,"nanoseconds":)"));
  EXPECT_THAT(asJson, HasSubstr(R"({"operation":"Create","devt":256,"records":1,"nanoseconds":)"));
  EXPECT_THAT(asJson, testing::Not(HasSubstr("SetAttr")));
}

TEST_F(ReplayTest, OneVolumeOfSeveralCanBePicked) {
  FlrJrnCommandRaw other = makeFile('r', 'b', "two");
  other.devt = 8;
  const std::string bytes = wireOf(makeFile('r', 'a', "one")) + wireOf(other);
  const Outcome picked = replay(bytes, {"--devt", "8"});
  EXPECT_EQ(picked.exitCode, 0) << picked;
  EXPECT_EQ(picked.err, "kddc: 1 records of other volumes were left out\n");
  EXPECT_EQ(names(), (Rows{"1|0|1|/photos", "2|1|0|two"}));
  const Outcome both = replay(bytes);
  EXPECT_EQ(both.exitCode, 0) << both;
  EXPECT_EQ(both.err,
            "kddc: the records are of several volumes, and all were applied; --devt N picks one\n");
}

TEST_F(ReplayTest, NeedsACatalogueAndAFile) {
  const auto expectUsage = [](const Words& words, const std::string& sentence) {
    const Outcome outcome = Program::run(words);
    EXPECT_EQ(outcome.exitCode, 2) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "; see kddc --help\n");
  };
  expectUsage({"replay", "--catalogue", folder}, "FILE is required");
  expectUsage({"replay", "file"}, "--catalogue is required");
}

TEST_F(ReplayTest, AFileThatIsNotThereLeavesTheCatalogueAlone) {
  expectRefusal(Program::run({"replay", temp / "gone", "--catalogue", folder}),
                "cannot read " + temp / "gone" + ": No such file or directory");
  expectRefusal(Program::run({"replay", temp.path(), "--catalogue", folder}),
                "cannot read " + temp.path() + ": Is a directory");
  EXPECT_EQ(DatabaseView(filesPath).cell("SELECT GRACEFUL_SHUTDOWN FROM TIME"), "1");
}

TEST_F(ReplayTest, ACatalogueThatIsNotThereIsNotMade) {
  const std::string nowhere = temp / "nowhere";
  expectRefusal(Program::run({"replay", file(history(plain)), "--catalogue", nowhere}),
                nowhere +
                    " holds no catalogue that can be read and written; make one with: kddc "
                    "scan VOLUME --catalogue " +
                    nowhere);
  EXPECT_FALSE(std::filesystem::exists(nowhere));
}

TEST_F(ReplayTest, ACatalogueThatCannotBeTrustedIsRefusedAndStaysAsItWas) {
  const std::string incomplete = "the catalogue in " + folder +
                                 " is not complete: its first scan has not finished, or it was "
                                 "not closed properly; scan again";
  change("UPDATE TIME SET FULL_SCAN=0");
  expectRefusal(replay(history(plain)), incomplete);
  change("UPDATE TIME SET FULL_SCAN=1,GRACEFUL_SHUTDOWN=0");
  expectRefusal(replay(history(plain)), incomplete);
  change("UPDATE TIME SET GRACEFUL_SHUTDOWN=1,VERSION='9'");
  expectRefusal(replay(history(plain)),
                "the catalogue in " + folder + " is of another version; scan again");
  EXPECT_EQ(names(), kUntouched);
  EXPECT_EQ(DatabaseView(filesPath).cell("SELECT GRACEFUL_SHUTDOWN FROM TIME"), "1");
}

TEST_F(ReplayTest, ADamagedCatalogueIsRefused) {
  temp.write("catalogue/.db.kd", "no database");
  expectRefusal(replay(history(plain)),
                "the catalogue in " + folder + " cannot be opened; -v says why");
}

TEST_F(ReplayTest, ACatalogueInUseIsRefused) {
  OpenCatalogue holder(folder);
  ASSERT_TRUE(holder.OpenHandle(false, false));
  const Outcome outcome = replay(history(plain));
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_THAT(outcome.err, MatchesRegex("kddc: " + folder +
                                        " is in use by process [0-9]+ \\(.*\\); stop it first\n"));
  holder.CloseHandle(0, false);
  EXPECT_EQ(names(), kUntouched);
}

TEST_F(ReplayTest, AnInterruptClosesTheCatalogueWithWhatItHas) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  UniqueFd from(ends[0]), to(ends[1]);
  Program program({"replay", "-", "--catalogue", folder, "--format", "stream"},
                  [&] { dup2(from.get(), STDIN_FILENO); });
  const std::string bytes = wireOf(makeFile('r', 'a', "one"));
  ASSERT_EQ(::write(to.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  // Behind the open catalogue comes the wait for more.
  for (int unread = 1; unread > 0;) ASSERT_EQ(ioctl(to.get(), FIONREAD, &unread), 0);
  program.signal(SIGINT);
  const Outcome outcome = program.finish();
  expectRefusal(outcome, "interrupted; the catalogue holds the first 1 records of standard input");
  EXPECT_EQ(names(), (Rows{"1|0|1|/photos", "2|1|0|one"}));
  EXPECT_EQ(DatabaseView(filesPath).cell("SELECT GRACEFUL_SHUTDOWN FROM TIME"), "1");
}

TEST_F(ReplayTest, BytesOfAnyKindNeitherCrashItNorSpoilTheCatalogue) {
  std::mt19937 random(1);
  std::string bytes;
  for (const Sample& sample : oneOfEachCommand()) bytes += framed(wireOf(sample));
  for (int round = 0; round < 30; ++round) {
    std::string damaged = bytes;
    for (int i = 0; i < 20; ++i)
      damaged[random() % damaged.size()] = static_cast<char>(random() % 256);
    for (const char* format : {"swap", "stream"}) {
      const Outcome outcome = replay(damaged, {"--format", format});
      EXPECT_TRUE(outcome.exitCode == 0 || outcome.exitCode == 1) << outcome;
    }
  }
  EXPECT_EQ(DatabaseView(filesPath).cell("SELECT GRACEFUL_SHUTDOWN FROM TIME"), "1");
  EXPECT_EQ(DatabaseView(filesPath).cell("PRAGMA integrity_check"), "ok");
  EXPECT_EQ(DatabaseView(fidsPath).cell("PRAGMA integrity_check"), "ok");
}

}  // namespace
}  // namespace kddc::test
