// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/staged_records.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <string>

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct StagedRecordsTest : testing::Test {
  std::vector<std::string> taken;
  std::size_t most = 1000;  // how many the sink takes before it fails
  StagedRecords staged{[this](std::span<unsigned char> record) {
    if (taken.size() == most) throw std::runtime_error("full");
    taken.emplace_back(record.begin(), record.end());
  }};

  void stage(const std::string& text) {
    const std::vector<unsigned char> bytes(text.begin(), text.end());
    staged.take(bytes);
  }
};

TEST_F(StagedRecordsTest, NothingIsHandedOverBeforeItIsTime) {
  stage("one");
  stage("two");
  EXPECT_THAT(taken, IsEmpty());
}

TEST_F(StagedRecordsTest, AllIsHandedOverInOrderAndOnce) {
  stage("one");
  stage("twelve");
  stage("");
  staged.handOver();
  EXPECT_THAT(taken, ElementsAre("one", "twelve", ""));
  staged.handOver();
  stage("more");
  staged.handOver();
  EXPECT_THAT(taken, ElementsAre("one", "twelve", "", "more"));
}

TEST_F(StagedRecordsTest, WhatBecomesMuchIsHandedOverByItself) {
  stage(std::string(40 * 1024, 'a'));
  stage(std::string(40 * 1024, 'b'));
  EXPECT_THAT(taken, IsEmpty());
  stage("c");
  EXPECT_THAT(taken, testing::SizeIs(2));
  staged.handOver();
  ASSERT_THAT(taken, testing::SizeIs(3));
  EXPECT_EQ(taken[1], std::string(40 * 1024, 'b'));
  EXPECT_EQ(taken[2], "c");
}

TEST_F(StagedRecordsTest, WhatTheSinkRefusesIsKeptWithAllThatFollows) {
  most = 1;
  for (const char* text : {"one", "two", "three"}) stage(text);
  EXPECT_THROW(staged.handOver(), std::runtime_error);
  EXPECT_THROW(staged.handOver(), std::runtime_error);
  EXPECT_THAT(taken, ElementsAre("one"));
  stage("four");
  most = 1000;
  staged.handOver();
  EXPECT_THAT(taken, ElementsAre("one", "two", "three", "four"));
}

TEST_F(StagedRecordsTest, ARecordThatCannotBeStagedBecauseTheSinkIsFullIsNotTaken) {
  most = 0;
  stage(std::string(70 * 1024, 'a'));
  EXPECT_THROW(stage("b"), std::runtime_error);
  most = 1000;
  staged.handOver();
  EXPECT_THAT(taken, ElementsAre(std::string(70 * 1024, 'a')));
}

}  // namespace
}  // namespace kddc::test
