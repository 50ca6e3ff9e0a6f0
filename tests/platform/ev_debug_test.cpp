// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/ev_debug.h"

#include <gmock/gmock.h>

#include <string>

#include "platform/exceptions.h"
#include "platform/logged.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::LogCapture;
using testing::ElementsAre;

TEST(EvDebug, DeliversEachKindWithItsLevelTagAndText) {
  const LogCapture log(9);
  dbg.Debug("A :: b", "%d of %s", 7, "seven");
  dbg.DebugLvl("tag", 5, "five");
  dbg.Error("tag", "eRRoR -- %s", "why");
  EXPECT_THAT(log.lines(), ElementsAre("debug 1 A :: b: 7 of seven", "debug 5 tag: five",
                                       "error 0 tag: eRRoR -- why"));
}

TEST(EvDebug, DropsWhatIsAboveTheLevelButNeverAnError) {
  const LogCapture log(0);
  dbg.Debug("t", "one");
  dbg.DebugLvl("t", 1, "one");
  dbg.Error("t", "error");
  dbg.SetLevel(1);
  dbg.Debug("t", "one");
  dbg.DebugLvl("t", 2, "two");
  EXPECT_THAT(log.lines(), ElementsAre("error 0 t: error", "debug 1 t: one"));
  EXPECT_TRUE(dbg.Enabled(1));
  EXPECT_FALSE(dbg.Enabled(2));
}

TEST(EvDebug, ALineMayBeOfAnyLength) {
  const LogCapture log(0);
  const std::string text(100000, 'x');
  dbg.Error("t", "%s", text.c_str());
  EXPECT_THAT(log.lines(), ElementsAre("error 0 t: " + text));
}

TEST(EvDebug, TheDefaultSinkWritesErrorsToStandardError) {
  testing::internal::CaptureStderr();
  dbg.Error("DCSqliteDB :: Insert", "eRRoR -- %d", 5);
  dbg.SetLevel(9);
  dbg.Debug("t", "not shown");
  dbg.SetLevel(0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "DCSqliteDB :: Insert: eRRoR -- 5\n");
}

TEST(EvDebug, SettingASinkGivesThePreviousOneBack) {
  int calls = 0;
  EvDebug::Sink first = dbg.SetSink([&](const EvDebug::Line&) { ++calls; });
  EXPECT_FALSE(first);
  EvDebug::Sink second = dbg.SetSink(first);
  ASSERT_TRUE(second);
  second({EvDebug::Line::kError, 0, "", ""});
  EXPECT_EQ(calls, 1);
}

TEST(Exceptions, CarryFunctionTypeNumberAndMessageInWhicheverOrderTheyAreGiven) {
  const UDCException messageFirst("A :: b", 3, "it broke", 11);
  const UDCException numberFirst("A :: b", 3, 11, "it broke");
  for (const UDCException* e : {&messageFirst, &numberFirst}) {
    EXPECT_EQ(e->GetType(), 3);
    EXPECT_EQ(e->GetErrorNumber(), 11);
    EXPECT_EQ(e->GetMessage(), "it broke");
    EXPECT_EQ(e->GetErrorMsg(), "Function[A :: b] Type[3] Error[11] it broke");
    EXPECT_STREQ(e->what(), e->GetErrorMsg().c_str());
  }
  const UDCException explained("RmDir", 0, 2, "No such file or directory", "/tmp/x");
  EXPECT_EQ(explained.GetMessage(), "/tmp/x");
  EXPECT_EQ(explained.GetErrorMsg(),
            "Function[RmDir] Type[0] Error[2: No such file or directory] /tmp/x");
}

TEST(Exceptions, NameTheFunctionsThatTheyPassThrough) {
  UDCException e("inner", 1, "text", 0);
  e.AddFunction("inner");
  e.AddFunction("outer");
  EXPECT_EQ(e.GetErrorMsg(), "Function[inner <- outer] Type[1] Error[0] text");
  const LogCapture log(0);
  e.LogErrors();
  EXPECT_THAT(log.lines(), ElementsAre("error 0 inner: " + e.GetErrorMsg()));
}

TEST(Exceptions, TheOtherTypeIsNoStandardException) {
  const KdException e("str2fid", "Invalid FID", "db_access", 12, -1);
  EXPECT_EQ(e.getMessage(), "Invalid FID");
  EXPECT_EQ(e.getCode(), -1);
  EXPECT_FALSE((std::is_base_of_v<std::exception, KdException>));
}

TEST(Logged, WhatLeavesAnOperationIsLoggedUnderItsTagAndGoesOn) {
  const LogCapture log(0);
  EXPECT_THROW(
      kddc::logged("outer",
                   [] { kddc::logged("inner", [] { throw UDCException("inner", 1, "x", 0); }); }),
      UDCException);
  EXPECT_THROW(kddc::logged("tag", [] { throw std::runtime_error("y"); }), std::runtime_error);
  EXPECT_THROW(kddc::logged("tag", [] { throw KdException("f", "unseen", "", 0, 0); }),
               KdException);
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 inner: eRRoR -- Function[inner] Type[1] Error[0] x",
                          "error 0 outer: eRRoR -- Function[inner <- outer] Type[1] Error[0] x",
                          "error 0 tag: eRRoR -- y"));
}

TEST(Logged, WhatMayBeAbsorbedIsLoggedAndBecomesAResult) {
  const LogCapture log(0);
  EXPECT_EQ(kddc::absorbed(
                "t", []() -> int { throw std::runtime_error("a"); }, -1),
            -1);
  EXPECT_EQ(
      kddc::absorbed(
          "t", []() -> int { throw KdException("f", "b", "", 0, 0); }, -2, "Mitigated eRRoR -- "),
      -2);
  EXPECT_EQ(kddc::absorbed(
                "t", [] { return 5; }, -1),
            5);
  EXPECT_THAT(log.lines(), ElementsAre("error 0 t: eRRoR -- a", "error 0 t: Mitigated eRRoR -- b"));
}

}  // namespace
