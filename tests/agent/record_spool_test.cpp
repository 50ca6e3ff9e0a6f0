// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/record_spool.h"

#include <gmock/gmock.h>

#include <filesystem>

#include "agent/errors.h"
#include "tests/support/catalogue.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct RecordSpoolTest : testing::Test {
  TempFolder folder;

  static FlrJrnCommandRaw absent(const std::string& name) {
    FlrJrnCommandRaw record{};
    record.cmd = FLR_JRN_REMOVE;
    record.timestamp = 77;
    record.u.remove = {fidOf('R'), name.c_str(), fidOf('A'), 3};
    return record;
  }
  static std::vector<std::string> drained(RecordSpool& spool) {
    std::vector<std::string> lines;
    spool.drain([&](const FlrJrnCommandRaw& record) {
      const FlrJrnRemoveRaw& r = record.u.remove;
      EXPECT_EQ(record.timestamp, 77u);
      EXPECT_EQ(r.par_fid, fidOf('R'));
      EXPECT_EQ(r.file_fid, fidOf('A'));
      lines.push_back(std::to_string(record.seq_num) + " " + r.short_name);
    });
    return lines;
  }
};

TEST_F(RecordSpoolTest, AnEmptyOneHasNothingToHandOut) {
  RecordSpool spool(folder.path());
  EXPECT_EQ(spool.records(), 0u);
  EXPECT_THAT(drained(spool), IsEmpty());
}

TEST_F(RecordSpoolTest, RecordsComeOutNumberedAndInTheirOrder) {
  RecordSpool spool(folder.path());
  const std::string longest(255, 'n');
  for (const std::string& name : {std::string("a"), std::string(), longest})
    spool.add(absent(name));
  EXPECT_EQ(spool.records(), 3u);
  EXPECT_THAT(drained(spool), ElementsAre("1 a", "2 ", "3 " + longest));
}

TEST_F(RecordSpoolTest, AllComeOutAgainASecondTime) {
  RecordSpool spool(folder.path());
  spool.add(absent("a"));
  EXPECT_THAT(drained(spool), ElementsAre("1 a"));
  EXPECT_THAT(drained(spool), ElementsAre("1 a"));
}

TEST_F(RecordSpoolTest, MoreRecordsThanFitABufferComeOutWhole) {
  RecordSpool spool(folder.path());
  for (int i = 0; i < 20'000; ++i) spool.add(absent("n" + std::to_string(i)));
  const auto lines = drained(spool);
  ASSERT_EQ(lines.size(), 20'000u);
  EXPECT_EQ(lines.front(), "1 n0");
  EXPECT_EQ(lines.back(), "20000 n19999");
}

TEST_F(RecordSpoolTest, NothingIsSeenInTheFolder) {
  RecordSpool spool(folder.path());
  spool.add(absent("a"));
  drained(spool);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(RecordSpoolTest, WhatTheTakerThrowsLeaves) {
  RecordSpool spool(folder.path());
  spool.add(absent("a"));
  EXPECT_THROW(spool.drain([](const FlrJrnCommandRaw&) { throw Failure("enough"); }), Failure);
  EXPECT_THAT(drained(spool), ElementsAre("1 a"));
}

}  // namespace
}  // namespace kddc::test
