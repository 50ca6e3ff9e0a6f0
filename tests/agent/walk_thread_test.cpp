// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/walk_thread.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>

#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

struct WalkThreadTest : testing::Test {
  static constexpr int kFiles = 3000;

  TempFolder temp;
  WalkOptions options{.stubAttribute = "user.stub", .leaveOut = {}};

  WalkThreadTest() {
    alarm(120);  // the watchdog: no thread may wait for ever
    std::filesystem::create_directories(temp / "folder/empty");
    for (int i = 0; i < kFiles; ++i) temp.write("folder/" + std::to_string(i), std::to_string(i));
  }
  ~WalkThreadTest() override { alarm(0); }

  UniqueFd open() const {
    return UniqueFd(::open(temp.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
};

TEST_F(WalkThreadTest, EveryEntryComesOnceWithItsOwnAttributesAndThenTheEndOfItsFolder) {
  for (const bool helped : {false, true}) {
    options.helped = helped;
    WalkThread walk(open(), "/root", options, {.endsOfFolders = true});
    std::map<std::string, off_t> sizes;
    std::set<std::uint64_t> ended;
    while (const auto batch = walk.next()) {
      std::size_t begin = 0;
      for (const Batch::Entry& entry : batch->entries) {
        if (entry.isEndOfFolder()) {
          ended.insert(entry.parent);
          continue;
        }
        EXPECT_FALSE(ended.contains(entry.parent));
        const std::string name = batch->names.substr(begin, entry.nameEnd - begin);
        EXPECT_TRUE(sizes.emplace(name, entry.st.st_size).second) << name;
        begin = entry.nameEnd;
      }
    }
    EXPECT_EQ(walk.finish().entries, kFiles + 3u);
    EXPECT_EQ(sizes.size(), kFiles + 3u);
    EXPECT_EQ(sizes.at("7"), 1);
    EXPECT_EQ(sizes.at("2999"), 4);
    EXPECT_THAT(ended, testing::ElementsAre(1u, 2u, 3u)) << "the empty folder too";
  }
}

TEST_F(WalkThreadTest, WhatTheCheckThrowsReachesTheCaller) {
  int left = 100;
  WalkThread walk(open(), "/root", options, {.check = [&] {
                    if (--left == 0) throw std::domain_error("enough");
                  }});
  while (walk.next()) {
  }
  EXPECT_THROW(walk.finish(), std::domain_error);
}

TEST_F(WalkThreadTest, ACallerMayLeaveAtAnyTime) {
  options.helped = true;
  WalkThread walk(open(), "/root", options, {});
  walk.next();
}

}  // namespace
}  // namespace kddc::test
