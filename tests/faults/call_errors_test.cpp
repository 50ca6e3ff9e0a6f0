// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Reads, writes and syncs of the catalogue and of the queue fail for a while, at any instant.
#include <cerrno>

#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct FailingCalls : FaultTest {
  const std::string catalogues = state + "/catalogues";

  // While each so-many-th of the calls fails, for a while, the work goes on.
  void failForAWhile(unsigned calls, int error, long every, Fault fault = Fault::kFail) {
    const auto program = watchShimmed();
    work(100);
    flush();
    const auto before = inodes();
    for (int round = 0; round < rounds(1, 10) && !HasFailure(); ++round) {
      const int first = 1 + below(4);
      SCOPED_TRACE("from call " + std::to_string(first) + " on");
      shim.count(calls, state);
      shim.hit(fault, error, first, every);
      Program rescan({"rescan", "-q", volume, "--state", state});  // reads what is not in memory
      work(400, static_cast<unsigned>(round) + 1);
      comesTrue([&] { return shim->hits > 0; }, std::chrono::seconds(2));
      hits_ += shim->hits;
      shim.rest();
      ASSERT_FALSE(program->hasEnded()) << program->finish();
      rescan.finish();
      expectExact();
    }
    expectSameInodes(before);
    end(*program);
    tell(hits_, " calls failed");
    EXPECT_GT(hits_, 0);
  }
  // SQLite passes over a log that it will not need, and a name that is there already. The queue
  // says that it is not exact, which the next start finds out about by its comparison.
  bool mayBePassedOver(const std::string& path) const {
    const std::string catalogue = catalogueOf(volume);
    return path == catalogue || path == catalogue + "/.db.kd-wal" ||
           path.starts_with(state + "/queues/");
  }

 private:
  long hits_ = 0;
};

TEST_F(FailingCalls, AfterWritesThatFailItRecovers) {
  failForAWhile(kWrites, EIO, 1);
}
TEST_F(FailingCalls, AfterSomeWritesThatFailItRecovers) {
  failForAWhile(kWrites, EIO, 3);
}
TEST_F(FailingCalls, AfterWritesForWhichThereIsNoRoomItRecovers) {
  failForAWhile(kWrites, ENOSPC, 1);
}
TEST_F(FailingCalls, AfterReadsThatFailItRecovers) {
  failForAWhile(kReads, EIO, 1);
}
TEST_F(FailingCalls, AfterSomeReadsThatFailItRecovers) {
  failForAWhile(kReads, EIO, 3);
}
TEST_F(FailingCalls, WithSyncsThatFailAtItsEndTheNextStartIsExact) {
  auto program = watchShimmed();
  work(300);
  flush();
  const auto before = inodes();
  for (int at = 1; at <= rounds(2, 12) && !HasFailure(); ++at) {
    SCOPED_TRACE("at sync " + std::to_string(at));
    shim.count(kSyncs, state);
    shim.hit(Fault::kFail, EIO, at, 1, 1);
    program->signal(SIGTERM);
    const Outcome outcome = program->finish();
    const bool isPassedOver = outcome.exitCode == 0 && mayBePassedOver(shim->lastHit);
    EXPECT_TRUE(isPassedOver || outcome.exitCode == (shim->hits > 0 ? 3 : 0))
        << outcome << shim->lastHit;
    shim.rest();
    program = watchShimmed();
    expectExact();
    expectSameInodes(before);
  }
}
TEST_F(FailingCalls, AfterFilesThatCannotBeOpenedItRecovers) {
  failForAWhile(kOpens, EMFILE, 2);
}
TEST_F(FailingCalls, InterruptedCallsAreMadeAgain) {
  failForAWhile(kReads | kWrites, EINTR, 3);
}
TEST_F(FailingCalls, ShortWritesAreMadeWhole) {
  failForAWhile(kWrites, 0, 2, Fault::kShorten);
}
TEST_F(FailingCalls, ShortReadsAreMadeWhole) {
  failForAWhile(kReads, 0, 3, Fault::kShorten);
}

// The k-th call from the start on: the start itself meets it.
struct FailingStart : FaultTest {
  void startWithAFault(unsigned calls, int error, int samples) {
    work(200);
    end(*watch());
    int refused = 0;
    for (int k = 0; k < rounds(samples, 100) && !HasFailure(); ++k) {
      const int at = isLong() ? k + 1 : 1 + below(60);
      SCOPED_TRACE("at call " + std::to_string(at));
      shim.count(calls, state);
      shim.hit(Fault::kFail, error, at, 1, 1);
      const auto program = launchShimmed();
      work(20, static_cast<unsigned>(k));
      ASSERT_TRUE(comesTrue([&] { return isReady(*program) || program->hasEnded(); }));
      shim.rest();
      if (program->hasEnded()) {
        const Outcome outcome = program->finish();
        EXPECT_EQ(outcome.exitCode, 3) << outcome;
        EXPECT_THAT(outcome.err, testing::StartsWith("kddc: ")) << outcome;
        ++refused;
        const auto next = watch();
        expectExact();
        end(*next);
      } else {
        expectExact();
        if (HasFailure()) tell("it was a call about ", shim->lastHit, "; ", run({"check", volume}));
        end(*program);
      }
    }
    tell("refused to start ", refused, " times");
  }
};

TEST_F(FailingStart, WithAWriteThatFailsItRunsOrSaysWhyNot) {
  startWithAFault(kWrites, EIO, 3);
}
TEST_F(FailingStart, WithAReadThatFailsItRunsOrSaysWhyNot) {
  startWithAFault(kReads, EIO, 3);
}
TEST_F(FailingStart, WithASyncThatFailsItRunsOrSaysWhyNot) {
  startWithAFault(kSyncs, EIO, 2);
}

}  // namespace
}  // namespace kddc::faults
