// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/name_index.h"

#include <gtest/gtest.h>

#include <string>

namespace kddc::test {
namespace {

struct NameIndexTest : testing::Test {
  NameIndex index;

  static fsf_fid fid(unsigned char byte) {
    fsf_fid fid{};
    fid.data[0] = byte;
    return fid;
  }
  // The inode of the first bearer of a name's hash; 0 when nobody bears it.
  unsigned long long bearer(unsigned long long folder, const char* name) {
    const auto* found = index.find(folder, name, [](const NameIndex::Bearer&) { return true; });
    return found ? found->inode : 0;
  }
  void fill(unsigned long long folder, int names) {
    index.learn(folder);
    for (int i = 0; i < names; ++i) index.add(folder, std::to_string(i), {.inode = 1});
  }
};

TEST_F(NameIndexTest, AFolderIsKnownFromLearningToForgetting) {
  EXPECT_FALSE(index.knows(1));
  index.learn(1);
  EXPECT_TRUE(index.knows(1));
  EXPECT_FALSE(index.knows(2));
  index.forget(1);
  EXPECT_FALSE(index.knows(1));
}

TEST_F(NameIndexTest, NamesOfFoldersThatAreNotKnownAreNotKept) {
  index.add(1, "a", {.inode = 5});
  index.remove(1, "a", 5, {});
  index.forget(1);
  EXPECT_EQ(bearer(1, "a"), 0u);
  index.learn(1);
  EXPECT_EQ(bearer(1, "a"), 0u);
}

TEST_F(NameIndexTest, ANameIsBorneInItsFolderOnly) {
  index.learn(1);
  index.learn(2);
  index.add(1, "a", {.inode = 5});
  EXPECT_EQ(bearer(1, "a"), 5u);
  EXPECT_EQ(bearer(1, "b"), 0u);
  EXPECT_EQ(bearer(2, "a"), 0u);
}

TEST_F(NameIndexTest, ARenameMovesTheBearer) {
  index.learn(1);
  index.add(1, "a", {.inode = 5});
  index.remove(1, "a", 5, {});
  index.add(1, "b", {.inode = 5});
  EXPECT_EQ(bearer(1, "a"), 0u);
  EXPECT_EQ(bearer(1, "b"), 5u);
}

TEST_F(NameIndexTest, OfSeveralBearersOfOneHashTheCallerChooses) {
  index.learn(1);
  for (const unsigned long long inode : {5ULL, 6ULL, 7ULL}) index.add(1, "a", {.inode = inode});
  const auto choose = [&](unsigned long long inode) {
    return index.find(1, "a", [&](const NameIndex::Bearer& b) { return b.inode == inode; });
  };
  EXPECT_EQ(choose(6)->inode, 6u);
  EXPECT_EQ(choose(8), nullptr);
  index.remove(1, "a", 6, {});
  EXPECT_EQ(choose(6), nullptr);
  EXPECT_NE(choose(5), nullptr);
  EXPECT_NE(choose(7), nullptr);
}

TEST_F(NameIndexTest, ABearerWithoutARowIsRemovedByItsIdentifier) {
  index.learn(1);
  index.add(1, "a", {.inode = 0, .fid = fid(1)});
  index.add(1, "a", {.inode = 0, .fid = fid(2)});
  index.remove(1, "a", 0, fid(1));
  const auto* left = index.find(1, "a", [](const NameIndex::Bearer&) { return true; });
  ASSERT_NE(left, nullptr);
  EXPECT_EQ(left->fid.data[0], 2);
}

TEST_F(NameIndexTest, ABearerMayLearnItsRow) {
  index.learn(1);
  index.add(1, "a", {.inode = 0, .fid = fid(1)});
  index.find(1, "a", [](NameIndex::Bearer& b) {
    b.inode = 9;
    return true;
  });
  EXPECT_EQ(bearer(1, "a"), 9u);
}

TEST_F(NameIndexTest, LearningAnewForgetsTheNames) {
  index.learn(1);
  index.add(1, "a", {.inode = 5});
  index.learn(1);
  EXPECT_TRUE(index.knows(1));
  EXPECT_EQ(bearer(1, "a"), 0u);
}

TEST_F(NameIndexTest, BeyondTwoHundredThousandNamesTheFolderAskedForLongestAgoGoes) {
  fill(1, 100'000);
  fill(2, 99'999);
  fill(3, 1);
  EXPECT_TRUE(index.knows(2));
  EXPECT_TRUE(index.knows(1));
  EXPECT_TRUE(index.knows(3));
  index.add(3, "one more", {.inode = 1});
  EXPECT_FALSE(index.knows(2));
  EXPECT_TRUE(index.knows(1));
  EXPECT_TRUE(index.knows(3));
}

TEST_F(NameIndexTest, TheFolderInHandStaysHoweverManyNamesItHas) {
  fill(1, 10);
  fill(2, 200'001);
  EXPECT_FALSE(index.knows(1));
  EXPECT_TRUE(index.knows(2));
  EXPECT_EQ(bearer(2, "200000"), 1u);
}

TEST_F(NameIndexTest, WhatIsForgottenOrRemovedMakesRoom) {
  fill(1, 10);
  fill(2, 150'000);
  for (int i = 0; i < 100'000; ++i) index.remove(2, std::to_string(i), 1, {});
  fill(3, 100'000);
  EXPECT_TRUE(index.knows(1));
  index.forget(2);
  fill(4, 90'000);
  EXPECT_TRUE(index.knows(1));
  index.clear();
  EXPECT_FALSE(index.knows(1));
  fill(5, 200'000);
  EXPECT_TRUE(index.knows(5));
}

}  // namespace
}  // namespace kddc::test
