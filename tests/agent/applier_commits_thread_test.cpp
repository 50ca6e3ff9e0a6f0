// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the database thread applies and commits, whom it wakes, and when it ends.
#include <gmock/gmock.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "tests/support/applier_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(ApplierTest, ANoopCommitsWhatCameBeforeItAndWakesWhoeverWaits) {
  start();
  create("a", 'A');
  EXPECT_TRUE(applier->waitFor(7, noop(), kLong));
  EXPECT_THAT(names(0), ElementsAre("/volume", "a"));
  EXPECT_THAT(doubts, IsEmpty());
}

TEST_F(ApplierTest, NothingIsCommittedBeforeANoop) {
  start();
  create("a", 'A');
  add(*queue, "no record");
  doubtsOnceThereAre(1);
  EXPECT_THAT(names(0), ElementsAre("/volume"));
  EXPECT_FALSE(applier->waitFor(7, 1, std::chrono::milliseconds(0)));
  settle();
  EXPECT_TRUE(applier->waitFor(7, 1, std::chrono::milliseconds(0)));
}

TEST_F(ApplierTest, ARecordGoesToEveryVolumeOfItsDeviceAndToNoOther) {
  start();
  create("on7", 'A', 7);
  create("on8", 'B', 8);
  create("on9", 'C', 9);
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume", "on7"));
  EXPECT_THAT(names(1), ElementsAre("/volume", "on7"));
  EXPECT_THAT(names(2), ElementsAre("/volume", "on8"));
  EXPECT_THAT(doubts, IsEmpty());
}

TEST_F(ApplierTest, CountsRecordsAndTheirBytes) {
  start();
  add(*queue, "no record");
  settle();
  EXPECT_EQ(applier->counts().records, 3u);
  EXPECT_EQ(applier->counts().bytes, 9u + 2 * 26u);
}

TEST_F(ApplierTest, ARowThatIsParkedIsAskedAfterOnceWhileTheAnswerIsOut) {
  start();
  create("a", 'A');
  settle();
  FlrJrnCommandRaw gone{};
  gone.cmd = FLR_JRN_REMOVE;
  gone.devt = 7;
  gone.mask = 1;
  gone.u.remove = {fidOf('R'), "a", fidOf('A'), 1};
  send(gone);
  settle();
  EXPECT_EQ(driver.resolved, 2u) << "once for each of two volumes";
  settle();
  EXPECT_EQ(driver.resolved, 2u);
}

TEST_F(ApplierTest, AParkedRowWithoutAnIdentifierGoes) {
  prepare(0,
          "INSERT INTO FILES(INODE,FID_ROWID,PINODE,FILE_TYPE,NAME) VALUES"
          "(2,99,9223372036854775807,1,''),(3,98,2,2,'below')");
  start();
  touchRoot();
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume"));
  EXPECT_EQ(driver.resolved, 0u);
}

TEST_F(ApplierTest, ANoopThatClaimsToBeALaterOneStandsForNoneThatIsStillToCome) {
  start();
  next = 1000;
  noop();
  next = 2;
  create("a", 'A');
  add(*queue, "no record");
  doubtsOnceThereAre(5);  // two for each of two volumes
  EXPECT_FALSE(applier->waitFor(7, 3, std::chrono::milliseconds(0)));
  EXPECT_TRUE(applier->waitFor(7, noop(), kLong));
  EXPECT_THAT(names(0), ElementsAre("/volume", "a"));
}

// Ends. -------------------------------------------------------------------------------------------

TEST_F(ApplierTest, FinishesAtTheNextNoopAndLeavesWhatFollows) {
  start();
  create("a", 'A');
  settle();
  EXPECT_FALSE(applier->hasEnded());
  applier->finishAtNextNoop();
  create("b", 'B');
  const auto last = noop();
  thread.join();
  EXPECT_TRUE(applier->hasEnded());
  EXPECT_TRUE(applier->waitFor(7, last, std::chrono::milliseconds(0)));
  EXPECT_THAT(names(0), ElementsAre("/volume", "a", "b"));
  EXPECT_FALSE(applier->waitFor(7, noop(), kLong)) << "nobody will apply it";
  unsigned char* data = nullptr;
  int length = 0;
  while (!queue->ReadEntry(&data, &length)) {
  }
  EXPECT_EQ(length, 26) << "the last NOOP is still in the queue";
}

TEST_F(ApplierTest, AbandonEndsAThreadThatHasNothingToDo) {
  start();
  settle();
  end();
  EXPECT_TRUE(applier->hasEnded());
  create("b", 'B');
  EXPECT_FALSE(applier->waitFor(7, noop(), kLong));
  EXPECT_THAT(names(0), ElementsAre("/volume"));
}

TEST_F(ApplierTest, AbandonEndsAThreadThatIsBusyAfterTheRecordInHand) {
  start();
  for (int i = 0; i < 2000; ++i) create(("f" + std::to_string(i)).c_str(), 'A');
  end();
  const auto taken = applier->counts().records;
  EXPECT_EQ(applier->expected(7), taken + 1);
  unsigned char* data = nullptr;
  int length = 0;
  std::uint64_t left = 0;
  for (; taken + left < 2000; left += queue->ReadEntry(&data, &length) ? 1 : 0) {
  }
  EXPECT_EQ(taken + left, 2000u) << "what was not taken is still in the queue";
}

TEST_F(ApplierTest, ThoseWhoWaitAreWokenWhenTheThreadEnds) {
  start();
  std::thread waiter([&] { EXPECT_FALSE(applier->waitFor(7, 1'000'000, std::chrono::hours(1))); });
  end();
  waiter.join();
}

}  // namespace
}  // namespace kddc::test
