// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/pacer.h"

#include <gtest/gtest.h>

namespace kddc::test {
namespace {

using namespace std::chrono_literals;

struct PacerTest : testing::Test {
  Pacer pacer;
  Pacer::Clock::time_point now{1h};

  // The work begins now; the pause after it.
  Pacer::Clock::duration pauseAfter(Pacer::Clock::duration work, bool well) {
    const auto began = now;
    now += work;
    pacer.ended(began, now, well);
    const auto end = now;
    while (!pacer.isDue(now)) now += 1ms;
    return now - end;
  }
};

TEST_F(PacerTest, TheFirstTimeIsDueAtOnce) {
  EXPECT_TRUE(pacer.isDue(now));
  EXPECT_FALSE(pacer.hasFailed());
}

TEST_F(PacerTest, PausesDoubleUpToHalfAMinuteWhileItFails) {
  for (const auto pause : {1s, 2s, 4s, 8s, 16s, 30s, 30s}) {
    EXPECT_EQ(pauseAfter(0s, false), pause);
    EXPECT_TRUE(pacer.hasFailed());
  }
}

TEST_F(PacerTest, PausesDoubleWhileItIsNeededAgainAndAgain) {
  for (const auto pause : {1s, 2s, 4s}) EXPECT_EQ(pauseAfter(0s, true), pause);
  EXPECT_FALSE(pacer.hasFailed());
}

TEST_F(PacerTest, AfterFiveCalmMinutesTheyBeginAnew) {
  pauseAfter(0s, true);
  pauseAfter(0s, true);
  now += 5min;
  EXPECT_EQ(pauseAfter(0s, true), 1s);
}

TEST_F(PacerTest, ItGetsHalfOfTheTimeAtMost) {
  EXPECT_EQ(pauseAfter(40s, true), 40s);
}

TEST_F(PacerTest, WhoeverIsInAHurryDoesNotWait) {
  pacer.ended(now, now, false);
  EXPECT_FALSE(pacer.isDue(now));
  pacer.hurry();
  EXPECT_TRUE(pacer.isDue(now));
}

}  // namespace
}  // namespace kddc::test
