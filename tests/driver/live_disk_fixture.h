// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A file system of each type, mounted for the test, and the disk that the driver asks there.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "driver/live_disk.h"
#include "tests/support/fid_at.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {

struct LiveDiskTest : testing::TestWithParam<const char*> {
  std::unique_ptr<LoopMount> mount;

  void SetUp() override {
    if (const std::string why = LoopMount::whyNot(type()); !why.empty()) GTEST_SKIP() << why;
    mount = std::make_unique<LoopMount>(type());
  }
  std::string type() const { return GetParam(); }
  std::string path(const std::string& name) const { return *mount / name; }
  std::string write(const std::string& name, const std::string& text = "") const {
    std::ofstream(path(name), std::ios::binary) << text;
    return path(name);
  }
  std::string folder(const std::string& name) const {
    std::filesystem::create_directories(path(name));
    return path(name);
  }

  // The disk of a volume: the whole file system, or a folder on it.
  LiveDisk disk(const std::string& root = "", std::vector<fsf_fid> leaveOut = {}) const {
    LiveDiskOptions options;
    options.roots = {root.empty() ? mount->path() : path(root)};
    options.leaveOut = std::move(leaveOut);
    options.stubAttribute = "trusted.stub";
    return LiveDisk(std::move(options));
  }
  fsf_fid root() const { return fidAt(mount->path()); }
  // Of a file `f` in the folder `d`.
  static void expectUnknown(LiveDisk& disk, const fsf_fid& d, const fsf_fid& f) {
    EXPECT_EQ(disk.lookUp(d, "f").sight, Sight::kUnknown);
    EXPECT_EQ(disk.lookAt(f).sight, Sight::kUnknown);
    EXPECT_EQ(disk.lookAt(f).error, ENODEV);
    EXPECT_EQ(disk.whereabouts(f), Whereabouts::kUnknown);
    std::vector<std::string> names;
    EXPECT_EQ(disk.list(d)->read(names), -ENODEV);
  }
};
// What does not depend on the file system.
using LiveDiskAnywhere = LiveDiskTest;

}  // namespace kddc::test
