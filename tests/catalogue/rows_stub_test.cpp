// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Which plain files are stubs: who is asked, when, and what a failed question ends.
#include <gmock/gmock.h>

#include <vector>

#include "platform/exceptions.h"
#include "tests/support/log_capture.h"
#include "tests/support/row_operations.h"
#include "tests/support/udc_failure.h"

namespace {

using kddc::test::failureOf;
using kddc::test::LogCapture;
using kddc::test::RowOperations;
using testing::ElementsAre;

struct Stubs : RowOperations {
  int answer = 0;
  std::vector<unsigned long long> asked;
  RQHSMLowLevelRQFS::Probe previous =
      RQHSMLowLevelRQFS::SetProbe([this](unsigned long long devt, const fsf_fid& fid) {
        asked.push_back(devt * 1000 + fid.data[0]);
        return answer;
      });
  ~Stubs() override { RQHSMLowLevelRQFS::SetProbe(previous); }

  void insertOnDevice7(unsigned mode) {
    StatFidName_s e = entry("s", 'S', mode);
    e.st.st_dev = 7;
    db.Insert(&e, 0, 7);
  }
};

TEST_F(Stubs, NobodyIsAskedUnlessToldTo) {
  answer = 1;
  insertOnDevice7(kRegular);
  StatFidName_s e = entry("s", 'S', kRegular);
  db.Update1(1, &e.st, &e.fid);
  EXPECT_TRUE(asked.empty());
  EXPECT_EQ(committedFiles("FILE_TYPE"), Rows{"0"});
}

TEST_F(Stubs, AnInsertedPlainFileMayTurnOutToBeAStub) {
  db.LookForStubsDuringInsert();
  answer = 1;
  insertOnDevice7(kRegular);
  answer = 0;
  insertOnDevice7(kRegular);
  insertOnDevice7(kDirectory);
  EXPECT_THAT(asked, ElementsAre(7083, 7083)) << "a folder is no candidate";
  EXPECT_EQ(committedFiles("FILE_TYPE"), (Rows{"8", "0", "1"}));
}

TEST_F(Stubs, AnUpdatedPlainFileMayTurnOutToBeAStub) {
  insertOnDevice7(kRegular);
  db.LookForStubsDuringUpdate();
  answer = 1;
  StatFidName_s e = entry("s", 'S', kRegular);
  e.st.st_dev = 9;
  EXPECT_EQ(db.Update1(1, &e.st, &e.fid), 0);
  EXPECT_THAT(asked, ElementsAre(9083));
  EXPECT_EQ(committedFiles("FILE_TYPE"), Rows{"8"});
  EXPECT_EQ(db.Update(1, &e.st, 5), 0);
  EXPECT_EQ(asked.size(), 1U) << "the update without a type column asks nobody";
}

TEST_F(Stubs, AFailedQuestionEndsTheInsert) {
  db.LookForStubsDuringInsert();
  answer = -116;
  const LogCapture log(0);
  const UDCException e = failureOf([&] { insertOnDevice7(kRegular); });
  EXPECT_EQ(e.GetType(), 1);
  EXPECT_EQ(e.GetErrorNumber(), 0);
  EXPECT_EQ(e.GetMessage(), "isStub failed");
  ASSERT_EQ(log.lines().size(), 3U);
  EXPECT_EQ(log.lines()[0], "error 0 DCSqliteDB :: InsertFile: eRRoR -- isStub failed.error[-116]");
  EXPECT_THAT(log.lines()[1], testing::StartsWith("error 0 DCSqliteDB :: InsertFile: eRRoR -- "));
  EXPECT_THAT(log.lines()[2], testing::StartsWith("error 0 DCSqliteDB :: Insert: eRRoR -- "));
  EXPECT_TRUE(committedFiles("*").empty());
}

}  // namespace
