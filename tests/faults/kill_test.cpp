// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The process that watches is killed at random instants, and started again.
#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct Killed : FaultTest {
  using FaultTest::FaultTest;

  // Lets one live and die: while it starts, while it follows the disk, or while it stops.
  void liveAndDie() {
    const int when = below(10);
    if (when < 3) {
      const auto program = launch({volume});
      nap(below(60));
      return kill(*program);
    }
    const auto program = watch();
    nap(below(40));
    if (when < 5) {
      program->signal(SIGTERM);
      nap(below(20));
    }
    kill(*program);
  }

  static constexpr int kBetweenChecks = 5;

  void killAgainAndAgain(int kills) {
    torture::Inodes before;
    for (int done = 0; done < kills && !HasFailure(); done += kBetweenChecks) {
      SCOPED_TRACE("after " + std::to_string(done) + " kills");
      auto plan = workPlan(static_cast<unsigned>(done));
      if (!isLong()) plan.pause = 2000;  // others want the processors, too
      Work running(plan);
      for (int i = 0; i < kBetweenChecks && !HasFailure(); ++i) liveAndDie();
      const auto program = watch();
      running.end();
      expectExact();
      if (before.empty()) before = inodes();
      expectSameInodes(before);
      end(*program);
    }
    tell(kills, " kills");
  }
};

TEST_F(Killed, AtAnyInstantUnderLoadItIsExactAfterTheNextStart) {
  killAgainAndAgain(rounds(20, 400));
}

struct KilledOnDisk : Killed {
  KilledOnDisk() : Killed("ext4") {}
};

TEST_F(KilledOnDisk, AtAnyInstantUnderLoadItIsExactAfterTheNextStart) {
  killAgainAndAgain(rounds(5, 100));
}

}  // namespace
}  // namespace kddc::faults
