// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the database thread doubts: records that are damaged, missing, or cannot be applied.
#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <vector>

#include "tests/support/applier_fixture.h"
#include "tests/support/log_capture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(ApplierTest, ADamagedRecordIsLeftOutAndDoubted) {
  const LogCapture log(0);
  start();
  create("a", 'A');
  add(*queue, "no record");
  create("b", 'B');
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume", "a", "b"));
  EXPECT_THAT(doubts, ElementsAre("all: a record was damaged"));
  EXPECT_EQ(applier->counts().refused, 1u);
  EXPECT_EQ(applier->counts().gaps, 0u);
  EXPECT_TRUE(log.mentions("a record of 9 bytes is damaged and was left out"));
}

TEST_F(ApplierTest, ARecordThatIsCutOffIsLeftOut) {
  start();
  FlrJrnCommandRaw record{};
  record.cmd = FLR_JRN_CREATE;
  record.devt = 7;
  record.u.create = {fidOf('R'), fidOf('A'), "a", 0100644, 0, 0, {}, {}, 0};
  std::vector<unsigned char> bytes(getRawCmdSize(&record));
  encodeRawCmd(&record, bytes.data());
  queue->AddEntry(bytes.data(), static_cast<int>(bytes.size()) - 1);
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume"));
  EXPECT_THAT(doubts, ElementsAre("all: a record was damaged"));
}

TEST_F(ApplierTest, AGapIsDoubtedAndWhatFollowsIsApplied) {
  start();
  create("a", 'A');
  next += 3;
  create("b", 'B');
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume", "a", "b"));
  EXPECT_THAT(doubts, ElementsAre("0: 3 records are missing", "1: 3 records are missing"));
  EXPECT_EQ(applier->counts().gaps, 1u);
  EXPECT_EQ(applier->expected(7), 7u);
}

TEST_F(ApplierTest, ARecordThatComesTwiceIsDoubtedAndAppliedAgain) {
  start();
  create("a", 'A');
  --next;
  create("a", 'A');
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume", "a"));
  EXPECT_THAT(doubts, ElementsAre("0: records came twice or out of order",
                                  "1: records came twice or out of order"));
}

TEST_F(ApplierTest, NumbersThatStepBackAreDoubtedOnceAndGoOnFromThere) {
  start(100);
  create("a", 'A');
  next = 1;
  create("b", 'B');
  create("c", 'C');
  add(*queue, "no record");
  EXPECT_THAT(doubtsOnceThereAre(3),
              ElementsAre("0: records came twice or out of order",
                          "1: records came twice or out of order", "all: a record was damaged"));
  EXPECT_EQ(applier->expected(7), 3u);
}

TEST_F(ApplierTest, TheNumbersOfEachDeviceRiseByThemselves) {
  start(100);
  create("on8", 'B', 8);
  create("on7", 'A', 7);
  elsewhere[8] += 2;
  create("more", 'C', 8);
  settle();
  EXPECT_THAT(doubts, ElementsAre("2: 2 records are missing"));
  EXPECT_EQ(applier->expected(7), 102u);
  EXPECT_EQ(applier->expected(8), 6u);
}

TEST_F(ApplierTest, TheFirstNumberIsTheOneThatItWasGiven) {
  start(100);
  EXPECT_EQ(applier->expected(7), 100u);
  EXPECT_TRUE(applier->waitFor(7, 99, std::chrono::milliseconds(0)))
      << "nothing is missing up to it";
  settle();
  EXPECT_THAT(doubts, IsEmpty());
  EXPECT_EQ(applier->expected(7), 101u);
}

TEST_F(ApplierTest, ARecordThatCannotBeAppliedIsDoubtedForItsVolumeAlone) {
  prepare(1,
          "CREATE TRIGGER refuse BEFORE UPDATE ON FILES WHEN OLD.INODE=1 BEGIN "
          "SELECT RAISE(ABORT,'no'); END");
  start();
  touchRoot();
  create("a", 'A');
  settle();
  EXPECT_THAT(doubts, ElementsAre("1: a record could not be applied"));
  EXPECT_THAT(names(1), ElementsAre("/volume", "a"));
}

TEST_F(ApplierTest, ACatalogueThatCannotBeWrittenIsDoubtedAndStillWakesWhoeverWaits) {
  prepare(0, "CREATE TRIGGER refuse BEFORE INSERT ON FILES BEGIN SELECT RAISE(ABORT,'no'); END");
  start();
  create("a", 'A');
  settle();
  EXPECT_THAT(
      doubts,
      ElementsAre("0: the catalogue could not be written: no (SQLite 19: constraint failed)"));
  EXPECT_THAT(names(0), ElementsAre("/volume"));
  EXPECT_THAT(names(1), ElementsAre("/volume", "a"));
}

TEST_F(ApplierTest, ADamagedSwapFileIsDoubtedAndWhatWasGoodInItIsApplied) {
  queue.reset();
  std::filesystem::create_directories(buffer);
  put(buffer + "/DriverThreadShutdownIndicator", "");
  put(buffer + "/DbThreadShutdownIndicator", "");
  FlrJrnCommandRaw record{};
  record.cmd = FLR_JRN_CREATE;
  record.devt = 7;
  record.seq_num = 1;
  record.u.create = {fidOf('R'), fidOf('A'), "a", 0100644, 0, 0, {}, {}, 0};
  std::vector<unsigned char> bytes(getRawCmdSize(&record));
  encodeRawCmd(&record, bytes.data());
  put(buffer + "/swap.1",
      stored(asText(bytes.data(), static_cast<int>(bytes.size()))) + "\xff\xff");
  queue = std::make_unique<PersistentDCRawBuffer>(false);
  ASSERT_FALSE(queue->IsRescanNeeded(nullptr));
  start();
  next = 2;
  settle();
  EXPECT_THAT(doubtsOnceThereAre(1), ElementsAre("all: a swap file was damaged"));
  EXPECT_THAT(names(0), ElementsAre("/volume", "a"));
}

}  // namespace
}  // namespace kddc::test
