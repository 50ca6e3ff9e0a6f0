// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Allocations fail in the process that watches, in any of its threads: it goes on, and is exact, or
// ends with a reason, and the next one is exact.
#include <cerrno>
#include <csignal>

#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct FailingMemory : FaultTest {
  std::unique_ptr<Program> program;
  torture::Inodes before;
  int ended = 0;
  long refused = 0;
  bool mayEndBeforeMain = false;  // where a library speaks, and not we

  void SetUp() override {
    FaultTest::SetUp();
    if (IsSkipped()) return;
    program = watchShimmed();
    work(100);
    flush();
    before = inodes();
  }
  // What reaches most of the code: changes, a comparison, questions.
  void live(unsigned round) {
    work(60, round + 1);
    run({"rescan", "-q", volume});
    run({"status", volume});
    run({"flush", volume});
  }
  long allocationsOfALife() {
    shim.count(kAllocations);
    live(0);
    shim.rest();
    return shim->counted;
  }
  void expectReason(const Outcome& outcome) const {
    if (mayEndBeforeMain && outcome.exitCode == 128 + SIGABRT) {
      EXPECT_THAT(outcome.err, testing::HasSubstr("std::bad_alloc")) << outcome;
      return;
    }
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_THAT(outcome.err, testing::HasSubstr("kddc: ")) << outcome;
  }
  // One that is about to end may still answer, so what it answered counts when it has ended well.
  void expectMadeGood() {
    refused += shim->hits;
    const bool answers = run({"flush", volume}).exitCode == 0;
    const auto wrong = answers ? differences(volume) : torture::Lines{"no answer"};
    const auto now = answers ? inodes() : torture::Inodes{};
    program->signal(SIGTERM);
    const Outcome outcome = program->finish();
    if (outcome.exitCode == 0) {
      EXPECT_EQ(wrong, torture::Lines{});
      EXPECT_EQ(torture::inodeDifferences(before, now), torture::Lines{});
    } else {
      ++ended;
      expectReason(outcome);
      program = watchShimmed();
      expectExact();
      expectSameInodes(before);
      end(*program);
    }
    program = watchShimmed();  // its pauses between comparisons begin anew
  }
};

TEST_F(FailingMemory, OnceWhileItWatchesItGoesOnOrTheNextStartMakesGood) {
  const auto all = static_cast<int>(allocationsOfALife());
  const int times = rounds(8, 400);
  for (int round = 0; round < times && !HasFailure(); ++round) {
    const int at = 1 + below(all);
    SCOPED_TRACE("at allocation " + std::to_string(at) + " of " + std::to_string(all));
    shim.count(kAllocations);
    shim.hit(Fault::kFail, ENOMEM, at, 1, 1);
    live(static_cast<unsigned>(round));
    shim.rest();
    expectMadeGood();
  }
  tell(refused, " allocations failed, it ended ", ended, " times");
}

TEST_F(FailingMemory, ForAWhileItGoesOnOrTheNextStartMakesGood) {
  for (int round = 0; round < rounds(3, 60) && !HasFailure(); ++round) {
    const int every = 1 << below(12);
    SCOPED_TRACE("each " + std::to_string(every) + "-th allocation");
    shim.count(kAllocations);
    shim.hit(Fault::kFail, ENOMEM, 1 + below(1000), every);
    live(static_cast<unsigned>(round));
    shim.rest();
    expectMadeGood();
  }
  tell(refused, " allocations failed, it ended ", ended, " times");
}

// Before its first own line runs, the loader and the libraries say it in their own words.
TEST_F(FailingMemory, WhileItStartsItRunsOrSaysWhyNot) {
  mayEndBeforeMain = true;
  end(*program);
  shim.count(kAllocations);
  program = watchShimmed();
  shim.rest();
  const auto all = static_cast<int>(shim->counted);
  for (int round = 0; round < rounds(8, 400) && !HasFailure(); ++round) {
    const int at = 1 + below(all);
    SCOPED_TRACE("at allocation " + std::to_string(at) + " of " + std::to_string(all));
    end(*program);
    shim.count(kAllocations);
    shim.hit(Fault::kFail, ENOMEM, at, 1, 1);
    program = launchShimmed();
    EXPECT_TRUE(comesTrue([&] { return isReady(*program) || program->hasEnded(); }));
    shim.rest();
    expectMadeGood();
  }
  tell(refused, " allocations failed, it ended ", ended, " times");
}

}  // namespace
}  // namespace kddc::faults
