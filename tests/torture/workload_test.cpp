// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The workload as its callers meet it: what a seed fixes, and what lives throughout.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/temp_folder.h"
#include "tests/torture/tree.h"

namespace kddc::torture {
namespace {

using test::TempFolder;

// Thousands of operations take their time on a disk.
bool workInMemory() {
  return access("/dev/shm", W_OK) == 0 && setenv("TMPDIR", "/dev/shm", 1) == 0;
}

struct WorkloadTest : testing::Test {
  bool inMemory = workInMemory();
  TempFolder temp;

  void work(const std::string& folder, const std::string& options) const {
    std::filesystem::create_directories(temp / folder);
    const std::string command =
        KDDC_WORKLOAD " --no-devices --root " + temp / folder + " " + options;
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  // What the seed fixes: not times, identifiers, or the sizes of folders.
  using Shape = std::vector<std::tuple<std::string, unsigned, unsigned, unsigned, unsigned, long>>;
  Shape shapeOf(const std::string& folder) const {
    Shape shape;
    for (const auto& [path, facts] : TreeWalk::of(temp / folder))
      shape.emplace_back(path, facts.mode, facts.uid, facts.gid, facts.nlink,
                         facts.type == 1 ? 0 : facts.size);
    return shape;
  }
  std::set<std::string> identifiers(const std::string& folder) const {
    std::set<std::string> identifiers;
    for (const auto& [path, facts] : TreeWalk::of(temp / folder)) identifiers.insert(facts.fid);
    return identifiers;
  }
  static bool meet(const std::set<std::string>& a, const std::set<std::string>& b) {
    return std::ranges::any_of(a, [&](const std::string& fid) { return b.contains(fid); });
  }
  std::set<std::string> survivors(const std::string& file) const {
    std::ifstream list(temp / file);
    return {std::istream_iterator<std::string>(list), {}};
  }
};

TEST_F(WorkloadTest, OneProcessMakesTheSameTreeOfTheSameSeed) {
  for (const char* folder : {"a", "b"}) work(folder, "--seed 5 --operations 3000 --hold-open");
  EXPECT_GT(shapeOf("a").size(), 200u);
  EXPECT_EQ(shapeOf("a"), shapeOf("b"));
}

TEST_F(WorkloadTest, AnotherSeedMakesAnotherTree) {
  work("a", "--seed 5 --operations 500");
  work("b", "--seed 6 --operations 500");
  EXPECT_NE(shapeOf("a"), shapeOf("b"));
}

TEST_F(WorkloadTest, WhatLivesThroughoutIsThereAtTheEnd) {
  work("a", "--seed 7 --operations 6000 --processes 3 --survivors " + temp / "survivors");
  const auto atTheEnd = identifiers("a");
  const auto listed = survivors("survivors");
  EXPECT_EQ(listed.size(), 46u);  // 30 files, 10 with further links, 6 folders
  EXPECT_TRUE(std::ranges::includes(atTheEnd, listed));
}

TEST_F(WorkloadTest, ASecondWorkloadFindsThoseThatLive) {
  work("a", "--operations 2000 --survivors " + temp / "first");
  work("a", "--operations 2000 --survivors " + temp / "second");
  EXPECT_EQ(survivors("first"), survivors("second"));
}

TEST_F(WorkloadTest, ThingsMoveToTheFolderOutsideAndBack) {
  work("a", "--operations 1000");
  work("outside", "--operations 1000 --seed 2");
  const auto inside = identifiers("a"), outside = identifiers("outside");
  work("a", "--operations 4000 --seed 3 --outside " + temp / "outside");
  EXPECT_TRUE(meet(inside, identifiers("outside")));
  EXPECT_TRUE(meet(outside, identifiers("a")));
}

TEST_F(WorkloadTest, OneFileHasMoreLinksThanARecordsHeaderCanTell) {
  work("a", "--operations 0 --many-links");
  EXPECT_EQ(TreeWalk::of(temp / "a").at("keep-links/0").nlink, 16200u);
}

TEST_F(WorkloadTest, ItsBenchmarkLeavesNothingBehind) {
  work("a", "--bench 2500 >" + temp / "seconds");
  EXPECT_EQ(shapeOf("a").size(), 1u);
  std::ifstream out(temp / "seconds");
  double seconds = 0;
  EXPECT_TRUE(out >> seconds);
  EXPECT_GT(seconds, 0);
}

}  // namespace
}  // namespace kddc::torture
