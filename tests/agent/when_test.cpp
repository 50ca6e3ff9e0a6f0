// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/when.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <ctime>
#include <stdexcept>

namespace kddc::test {
namespace {

constexpr long long kNow = 1700000000;  // 2023-11-14T22:13:20Z

struct When : testing::Test {
  When() { inZone("UTC0"); }
  ~When() override { inZone("UTC0"); }

  static void inZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  static void refuses(const char* text) {
    EXPECT_THROW(parseWhen(text, kNow), std::invalid_argument) << text;
  }
};

TEST_F(When, SecondsSince1970AreTakenWithAndWithoutAnAtSign) {
  EXPECT_EQ(parseWhen("0", kNow), 0);
  EXPECT_EQ(parseWhen("1700000000", kNow), 1700000000);
  EXPECT_EQ(parseWhen("@1700000001", kNow), 1700000001);
  EXPECT_EQ(parseWhen("@4294967296", kNow), 4294967296);
}

TEST_F(When, FractionsOfASecondAreIgnored) {
  EXPECT_EQ(parseWhen("@1700000000.999", kNow), 1700000000);
  EXPECT_EQ(parseWhen("2024-03-01T12:30:15.5Z", kNow), 1709296215);
  EXPECT_EQ(parseWhen("2024-03-01T12:30:15,123456789+00:00", kNow), 1709296215);
}

TEST_F(When, AnAgeCountsBackFromNow) {
  EXPECT_EQ(parseWhen("90s", kNow), 1699999910);
  EXPECT_EQ(parseWhen("15m", kNow), 1699999100);
  EXPECT_EQ(parseWhen("2h", kNow), 1699992800);
  EXPECT_EQ(parseWhen("3d", kNow), 1699740800);
  EXPECT_EQ(parseWhen("1w", kNow), 1699395200);
}

TEST_F(When, ADateAloneIsItsLocalMidnight) {
  EXPECT_EQ(parseWhen("2024-03-01", kNow), 1709251200);
  inZone("XXX-5:30");  // five and a half hours ahead
  EXPECT_EQ(parseWhen("2024-03-01", kNow), 1709231400);
}

TEST_F(When, ATimeWithoutAZoneIsLocal) {
  EXPECT_EQ(parseWhen("2024-03-01T12:30", kNow), 1709296200);
  EXPECT_EQ(parseWhen("2024-03-01 12:30:15", kNow), 1709296215);
  inZone("XXX4");
  EXPECT_EQ(parseWhen("2024-03-01 12:30:15", kNow), 1709310615);
}

TEST_F(When, LocalTimeFollowsTheZonesSummerTime) {
  inZone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(parseWhen("2024-01-15T12:00", kNow), 1705316400);
  EXPECT_EQ(parseWhen("2024-07-15T12:00", kNow), 1721037600);
}

TEST_F(When, AZoneIsTakenInEveryIsoForm) {
  inZone("XXX4");
  EXPECT_EQ(parseWhen("2024-03-01T12:30:15Z", kNow), 1709296215);
  EXPECT_EQ(parseWhen("2024-03-01T12:30+02:00", kNow), 1709289000);
  EXPECT_EQ(parseWhen("2024-03-01T12:30+0200", kNow), 1709289000);
  EXPECT_EQ(parseWhen("2024-03-01T12:30-07", kNow), 1709321400);
}

TEST_F(When, LeapDaysAreKnown) {
  EXPECT_EQ(parseWhen("2024-02-29T00:00Z", kNow), 1709164800);
  refuses("2023-02-29");
  refuses("2100-02-29");
}

TEST_F(When, EverythingElseIsRefused) {
  for (const char* text : {"",
                           " ",
                           "@",
                           "yesterday",
                           "-5",
                           "@-5",
                           "15M",
                           "1.5h",
                           "h",
                           "3 d",
                           "3dd",
                           "0x10",
                           "1700000000 ",
                           "1700000000000",
                           "2024-3-1",
                           "2024-13-01",
                           "2024-00-10",
                           "2024-04-31",
                           "2024-03-01T",
                           "2024-03-01T12",
                           "2024-03-01T24:00",
                           "2024-03-01T12:60",
                           "2024-03-01T12:30:61",
                           "2024-03-01T12:30:15.",
                           "2024-03-01T12:30+",
                           "2024-03-01T12:30+2",
                           "2024-03-01T12:30+02:",
                           "2024-03-01T12:30+02:0",
                           "2024-03-01T12:30ZZ",
                           "2024-03-01x12:30"})
    refuses(text);
}

TEST_F(When, TheRefusalNamesTheTextAndTheForms) {
  try {
    parseWhen("tomorrow", kNow);
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(),
                 "'tomorrow' is no time: give seconds since 1970, a date such as 2024-03-01T12:30, "
                 "or an age such as 15m, 2h, 3d");
  }
}

}  // namespace
}  // namespace kddc::test
