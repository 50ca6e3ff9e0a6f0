// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a walk through a temporary folder reports.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/engine/walk.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

// With paths put together from the folders' numbers.
struct Seen {
  struct Entry {
    struct stat st;
    fsf_fid fid;
    bool isStub;
  };
  std::map<std::string, Entry> entries;
  std::vector<std::string> folders = {""};  // by number, with a "/" behind
  WalkCounts counts;

  void add(const WalkedEntry& entry) {
    const std::string path =
        entry.parent == 0 ? "." : folders.at(entry.parent) + std::string(entry.name);
    if (!entries.insert({path, {entry.st, entry.fid, entry.isStub}}).second)
      throw std::logic_error("reported twice: " + path);
    if (S_ISDIR(entry.st.st_mode)) folders.push_back(entry.parent == 0 ? "" : path + "/");
  }
  std::vector<std::string> paths() const {
    std::vector<std::string> paths;
    for (const auto& [path, entry] : entries) paths.push_back(path);
    return paths;
  }
};

struct WalkTest : testing::Test {
  TempFolder temp;
  WalkOptions options{.stubAttribute = "user.stub", .leaveOut = {}, .openFolders = 128};

  Seen walk() { return walk(temp.path()); }
  Seen walk(const std::string& root) {
    Seen seen;
    seen.counts = walkTree(UniqueFd(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
                           "/root", options, [&](const WalkedEntry& entry) { seen.add(entry); });
    return seen;
  }
  void folder(const std::string& name) { std::filesystem::create_directories(temp / name); }
};

}  // namespace kddc::test
