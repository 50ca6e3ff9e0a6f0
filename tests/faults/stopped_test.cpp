// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The process that watches does not run for a while, or another one comes.
#include "tests/faults/fault_fixture.h"
#include "tests/support/unread_pipe.h"

namespace kddc::faults {
namespace {

struct Stopped : FaultTest {};

TEST_F(Stopped, ForAWhileUnderLoadItIsExactAfterwards) {
  const auto program = watch();
  Work running(workPlan());
  flush();
  const auto before = inodes();
  for (int round = 0; round < rounds(1, 3); ++round) {
    program->signal(SIGSTOP);
    nap(isLong() ? 10'000 : 2000);
    program->signal(SIGCONT);
    const auto began = std::chrono::steady_clock::now();
    flush();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    tell("the flush after it took ", took.count(), " s");
  }
  running.end();
  expectExact();
  expectSameInodes(before);
  EXPECT_EQ(status()["rescan_count"], 0);
  end(*program);
}

// The scan is held in the middle until the signal has been taken note of.
TEST_F(Stopped, ByASignalDuringTheFirstScanItLeavesNothing) {
  for (int i = 0; i < 2000; ++i) write(std::to_string(i));
  shim.count(kLooks);
  shim.hit(Fault::kHold, 0, 500);
  const auto program = launchShimmed();
  ASSERT_TRUE(program->waitUntil([&] { return shim->hits > 0; })) << program->err();
  program->signal(SIGTERM);
  const std::string stopping = "kddc: the process that watches " + volume + " is stopping\n";
  ASSERT_TRUE(program->waitUntil([&] { return run({"flush", volume}).err == stopping; }));
  shim.hit(Fault::kNone);
  const Outcome outcome = program->finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err, "kddc: stopped before the scan was done; the next start scans anew\n");
  EXPECT_FALSE(fs::exists(catalogueOf(volume)));
  EXPECT_FALSE(fs::exists(catalogueOf(volume) + ".new"));
}

// Whoever does not read what is printed holds up the database thread.
TEST_F(Stopped, ItEndsAlsoWhereWhatIsQueuedCannotBeApplied) {
  if (!isLong()) GTEST_SKIP() << "it takes half a minute, which is for the long form";
  test::UnreadPipe printed;
  const auto program = launch({volume, "--print"}, printed.asOutput());
  ASSERT_EQ(printed.line(), "ready\n");
  for (int i = 0; i < 5000; ++i) write("file " + std::to_string(i));
  const auto began = std::chrono::steady_clock::now();
  program->signal(SIGTERM);
  const Outcome outcome = program->finish();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  tell("the stop took ", took.count(), " s");
  const auto next = watch();
  expectExact();
  end(*next);
}

struct SecondInstance : FaultTest {};

TEST_F(SecondInstance, IsRefusedAndDisturbsNothing) {
  const auto program = watch();
  Work running(workPlan());
  flush();
  const auto before = inodes();
  const std::string holder = "process " + std::to_string(program->pid()) + " (kddc watch)";
  for (int i = 0; i < rounds(5, 100) && !HasFailure(); ++i) {
    const Outcome outcome = run({"watch", volume});
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + volume + " is watched by " + holder + "; stop it first\n");
    EXPECT_EQ(outcome.out, "");
  }
  running.end();
  expectExact();
  expectSameInodes(before);
  EXPECT_EQ(status()["rescan_count"], 0);
  end(*program);
}

TEST_F(SecondInstance, TakesOverAtOnceFromOneThatWasKilled) {
  for (int i = 0; i < rounds(2, 20) && !HasFailure(); ++i) {
    const auto program = watch();
    work(100, static_cast<unsigned>(i));
    kill(*program);
    const auto next = watch();
    expectExact();
    end(*next);
  }
}

}  // namespace
}  // namespace kddc::faults
