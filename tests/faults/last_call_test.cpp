// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A call fails when the work is done but for its last step.
#include <cerrno>

#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct FailingLastCall : FaultTest {
  Outcome scan() const {
    return Program::run({"scan", "-q", volume, "--state", state}, shim.preparation());
  }
  std::string markOf(const std::string& path) const {
    return test::DatabaseView(catalogueOf(path) + "/.db.kd")
        .cell("SELECT GRACEFUL_SHUTDOWN FROM TIME");
  }
};

// The last sync of a scan is that of the name under which the new catalogue stands.
TEST_F(FailingLastCall, AScanWhoseCatalogueMayNotLastKeepsTheOldOneAndSaysSo) {
  shim.count(kSyncs, state);
  shim.hit(Fault::kNone);
  ASSERT_EQ(scan().exitCode, 0);
  const long syncs = shim->counted;
  write("new");
  shim.count(kSyncs, state);
  shim.hit(Fault::kFail, EIO, syncs, 1, 1);
  const Outcome outcome = scan();
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_EQ(outcome.err, "kddc: the new catalogue at " + catalogueOf(volume) +
                             " may not outlast a power loss: Input/output error\n");
  EXPECT_EQ(std::string(shim->lastHit), state + "/catalogues");
  shim.rest();
  EXPECT_EQ(listed(), onDisk(volume));
  EXPECT_TRUE(fs::exists(catalogueOf(volume) + ".new/.db.kd"));
  EXPECT_EQ(scan().exitCode, 0);
  EXPECT_FALSE(fs::exists(catalogueOf(volume) + ".new"));
}

TEST_F(FailingLastCall, AListThatCannotBeWrittenKeepsNoCatalogueFromBeingClosed) {
  const test::LoopMount otherMount("tmpfs");
  const std::string other = otherMount.path();
  const auto program = watch({volume, other}, shim.preparation());
  shim.count(kWrites, state + "/GracefullClosedDbs");
  shim.hit(Fault::kFail, ENOSPC);
  program->signal(SIGTERM);
  const Outcome outcome = program->finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(shim->hits, 2);
  EXPECT_EQ(markOf(volume), "1");
  EXPECT_EQ(markOf(other), "1");
}

}  // namespace
}  // namespace kddc::faults
