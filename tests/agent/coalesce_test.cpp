// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc replay --coalesce as its users meet it.
#include <gmock/gmock.h>

#include <string>

#include "tests/support/replay_fixture.h"

namespace kddc::test {
namespace {

using testing::HasSubstr;
using testing::Not;

FlrJrnCommandRaw grow(char fid, unsigned size) {
  FlrJrnCommandRaw r = record(FLR_JRN_SETATTR);
  r.u.setattr.fid = fidOf(fid);
  r.u.setattr.size_valid = r.u.setattr.ctime_valid = 1;
  r.u.setattr.size = size;
  r.u.setattr.ctime.tv_sec = 5;
  return r;
}

struct Coalesce : ReplayTest {
  Outcome coalesced(const std::string& bytes, Words more = {},
                    const Program::Preparation& prepare = {}) const {
    Words words = {"replay", file(bytes), "--catalogue", folder, "--coalesce"};
    words.insert(words.end(), more.begin(), more.end());
    return Program::run(words, prepare);
  }
  // From now on no size can be set to 5: there is one already, and an index that wants no other.
  void refuseSizeOfFive() {
    change("INSERT INTO FILES(INODE,PINODE,SIZE,NAME) VALUES (99,98,5,'')");
    change("CREATE UNIQUE INDEX refuse ON FILES(SIZE) WHERE SIZE=5");
  }
  Rows sizes() { return files("NAME,SIZE"); }
  std::string graceful() {
    return DatabaseView(filesPath).cell("SELECT GRACEFUL_SHUTDOWN FROM TIME");
  }
};

TEST_F(Coalesce, WritesWhatIsPendingBeforeItCloses) {
  const Outcome outcome = coalesced(wireOf(makeFile('r', 'f', "first")) + wireOf(grow('f', 5)) +
                                    wireOf(grow('f', 6)) + wireOf(grow('r', 7)));
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(outcome.out, std::string(kHead) +
                             "FLR_JRN_SETATTR                3         0         0         0\n"
                             "FLR_JRN_CREATE                 1         0         0         0\n"
                             "total                          4         0         0         0\n");
  EXPECT_EQ(sizes(), (Rows{"/photos|7", "first|6"}));
  EXPECT_EQ(graceful(), "1");
}

TEST_F(Coalesce, AFileThatCameAndWentLeavesNothing) {
  // One by one the folder that comes behind it would be row 3.
  const std::string bytes = wireOf(makeFile('r', 'f', "first")) +
                            wireOf(removeFile('r', 'f', "first", 0)) +
                            wireOf(makeFolder('r', 'd', "sub"));
  EXPECT_EQ(coalesced(bytes).exitCode, 0);
  EXPECT_EQ(names(), (Rows{"1|0|1|/photos", "2|1|1|sub"}));
}

TEST_F(Coalesce, StatsTellOfTheFlushesOfTheVolume) {
  const std::string bytes = wireOf(makeFile('r', 'f', "first")) + wireOf(grow('f', 5));
  EXPECT_THAT(coalesced(bytes, {"--stats"}).out,
              HasSubstr("\nFlushJournal        0x7                          1 "));
  EXPECT_THAT(replay(bytes, {"--stats"}).out, Not(HasSubstr("FlushJournal")));
}

TEST_F(Coalesce, TheSettingSaysHowManyFilesAreHeld) {
  temp.write("settings.ini", "[DataClassification]\nSimultaneousFileAcess = 1\n");
  const auto withSettings = [&] { setenv("KELDARA_REGISTRY_ROOT", temp.path().c_str(), 1); };
  const std::string bytes = wireOf(makeFile('r', 'a', "one")) + wireOf(makeFile('r', 'b', "two")) +
                            wireOf(makeFile('r', 'c', "three"));
  EXPECT_THAT(coalesced(bytes, {"--stats"}, withSettings).out,
              HasSubstr("\nFlushJournal        0x7                          3 "));
  temp.write("settings.ini", "[DataClassification]\nSimultaneousFileAcess = many\n");
  const Outcome outcome = coalesced(bytes, {}, withSettings);
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_THAT(outcome.err, HasSubstr("SimultaneousFileAcess"));
  EXPECT_EQ(graceful(), "1") << "the catalogue was not touched";
}

TEST_F(Coalesce, WhatCannotBeWrittenInTheEndIsAFailureAndTheCatalogueIsNotMarkedComplete) {
  refuseSizeOfFive();
  expectRefusal(coalesced(wireOf(grow('r', 5))), "cannot finish the catalogue in " + folder +
                                                     ": UNIQUE constraint failed: FILES.SIZE "
                                                     "(SQLite 19: constraint failed)");
  EXPECT_EQ(graceful(), "0");
}

TEST_F(Coalesce, ARecordWhoseFlushFailsCountsAsFailed) {
  refuseSizeOfFive();
  const Outcome outcome = coalesced(wireOf(grow('r', 5)) + wireOf(rename('r', 'u', "from", "to")));
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_THAT(outcome.err, HasSubstr(complaint("byte 118: the first record that could not be "
                                               "applied, a FLR_JRN_RENAME; -v says why")));
}

}  // namespace
}  // namespace kddc::test
