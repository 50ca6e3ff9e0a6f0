// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "support/journal_stats.h"

#include <gmock/gmock.h>

#include "tests/support/log_capture.h"

namespace {

using kddc::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

struct JournalStats : testing::Test {
  JournalStats() { JournalPerfStatMap_g.clear(); }
  ~JournalStats() override { JournalPerfStatMap_g.clear(); }
};

TEST_F(JournalStats, TimeIsMeasuredInNanosecondsAndAddedToTheTotal) {
  unsigned long long total = 5;
  MeasureTime(&total, {.tv_sec = 10, .tv_nsec = 999999999}, {.tv_sec = 12, .tv_nsec = 1});
  EXPECT_EQ(total, 1000000007U);
}

TEST_F(JournalStats, AClockThatWasSetBackWrapsAround) {
  unsigned long long total = 0;
  MeasureTime(&total, {.tv_sec = 10, .tv_nsec = 1}, {.tv_sec = 10, .tv_nsec = 0});
  EXPECT_EQ(total, 18446744073709551615U);
}

TEST_F(JournalStats, TheFirstRecordOfAVolumeMakesItsEntry) {
  UnixDCUpdateTimeStats(7, 5, 100);
  ASSERT_EQ(JournalPerfStatMap_g.size(), 1U);
  const JournalPerfStats& stats = JournalPerfStatMap_g.at(7);
  EXPECT_EQ(stats.CreateCounter, 1U);
  EXPECT_EQ(stats.CreateTimer, 100U);
  EXPECT_EQ(stats.MkDirCounter, 0U);
  EXPECT_EQ(stats.SetAdditionalAttrTimer, 0U);
}

TEST_F(JournalStats, ADevtOfZeroIsCountedForFlushesOnly) {
  UnixDCUpdateTimeStats(0, 5, 100);
  EXPECT_THAT(JournalPerfStatMap_g, IsEmpty());
  UnixDCUpdateFlushJournalTimeStats(0, 30);
  UnixDCUpdateFlushJournalTimeStats(0, 12);
  EXPECT_EQ(JournalPerfStatMap_g.at(0).FlushJournalCounter, 2U);
  EXPECT_EQ(JournalPerfStatMap_g.at(0).FlushJournalTimer, 42U);
}

constexpr char kEmpty[] =
    "debug 1 UnixDCLogTimeStats: Devt[7] SetAttrCounter[0] SetAttrTimer[0] StubCounter[0] "
    "StubTimer[0] UnStubCounter[0] UnStubTimer[0] CreateCounter[0] CreateTimer[0] "
    "MkDirCounter[0] MkDirTimer[0] RemoveCounter[0] RemoveTimer[0] RemoveDirCounter[0] "
    "RemoveDirTimer [0] RenameCounter[0] RenameTimer[0] CreateLinkCounter[0] "
    "CreateLinkTimer[0] CreateSymLinkCounter[0] CreateSymLinkTimer[0] FlushJournalCounter[0] "
    "FlushJournalTimer[0] SetAdditionalAttrCounter[0] SetAdditionalAttrTimer[0]";

TEST_F(JournalStats, ACommandThatIsNotCountedMakesTheEntryAndLeavesItEmpty) {
  for (const int cmd : {0, 1, 3, 4, 12, 18, 19, 20, 23, 24, 255, -1}) {
    JournalPerfStatMap_g.clear();
    UnixDCUpdateTimeStats(7, cmd, 100);
    const LogCapture log(1);
    UnixDCLogTimeStats();
    EXPECT_THAT(log.lines(), ElementsAre(kEmpty)) << cmd;
  }
}

TEST_F(JournalStats, AllAttributeCommandsOfOneKindShareACounter) {
  for (const int cmd : {14, 14, 13, 15, 21, 22}) UnixDCUpdateTimeStats(7, cmd, 10);
  EXPECT_EQ(JournalPerfStatMap_g.at(7).SetAdditionalAttrCounter, 6U);
  EXPECT_EQ(JournalPerfStatMap_g.at(7).SetAdditionalAttrTimer, 60U);
}

// Every pair gets values of its own: a counter of its place in the line, a timer of 100 times that.
void fillEveryPair() {
  const int commands[] = {2, 16, 17, 5, 6, 7, 8, 11, 9, 10, -1, 13};
  for (unsigned long long place = 1; place <= 12; ++place)
    for (unsigned long long n = 0; n < place; ++n)
      if (commands[place - 1] >= 0)
        UnixDCUpdateTimeStats(7, commands[place - 1], 100);
      else
        UnixDCUpdateFlushJournalTimeStats(7, 100);
}

constexpr char kFull[] =
    "debug 1 UnixDCLogTimeStats: Devt[7] SetAttrCounter[1] SetAttrTimer[100] StubCounter[2] "
    "StubTimer[200] UnStubCounter[3] UnStubTimer[300] CreateCounter[4] CreateTimer[400] "
    "MkDirCounter[5] MkDirTimer[500] RemoveCounter[6] RemoveTimer[600] RemoveDirCounter[7] "
    "RemoveDirTimer [700] RenameCounter[8] RenameTimer[800] CreateLinkCounter[9] "
    "CreateLinkTimer[900] CreateSymLinkCounter[10] CreateSymLinkTimer[1000] "
    "FlushJournalCounter[11] FlushJournalTimer[1100] SetAdditionalAttrCounter[12] "
    "SetAdditionalAttrTimer[1200]";

TEST_F(JournalStats, TheLineShowsEveryPairAndResetsIt) {
  fillEveryPair();
  const LogCapture log(1);
  EXPECT_FALSE(UnixDCLogTimeStats());
  EXPECT_EQ(JournalPerfStatMap_g.at(7).RemoveDirTimer, 0U);
  EXPECT_FALSE(UnixDCLogTimeStats());
  EXPECT_THAT(log.lines(), ElementsAre(kFull, kEmpty));
}

TEST_F(JournalStats, VolumesAreLoggedInTheOrderOfTheirDevtAsUnsignedNumbers) {
  for (const unsigned long long devt : {18446744073709551615ULL, 3ULL, 200ULL})
    UnixDCUpdateTimeStats(devt, 4, 1);
  const LogCapture log(1);
  UnixDCLogTimeStats();
  EXPECT_THAT(log.lines(),
              ElementsAre(testing::HasSubstr("Devt[3] "), testing::HasSubstr("Devt[200] "),
                          testing::HasSubstr("Devt[18446744073709551615] ")));
}

TEST_F(JournalStats, AskingResetsAlsoWhenNobodyReadsTheLine) {
  UnixDCUpdateTimeStats(7, 5, 100);
  UnixDCLogTimeStats();
  EXPECT_EQ(JournalPerfStatMap_g.at(7).CreateCounter, 0U);
}

TEST_F(JournalStats, ALogThatAsksForStatisticsItselfIsNotLockedOut) {
  UnixDCUpdateTimeStats(7, 5, 100);
  dbg.SetLevel(1);
  EvDebug::Sink previous =
      dbg.SetSink([](const EvDebug::Line&) { UnixDCUpdateTimeStats(8, 6, 1); });
  UnixDCLogTimeStats();
  dbg.SetSink(std::move(previous));
  dbg.SetLevel(0);
  EXPECT_EQ(JournalPerfStatMap_g.at(8).MkDirCounter, 1U);
}

}  // namespace
