// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Two volumes that one kddc watch keeps while they are unmounted and mounted again: the first on a
// device, by its file system, the second in memory.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>

#include "platform/unique_fd.h"
#include "tests/support/watch_fixture.h"

namespace kddc::test {

struct WatchMounts : WatchTest {
  explicit WatchMounts(std::string fsType = "ext4") : WatchTest(std::move(fsType)) {}

  std::optional<LoopMount> secondMount;
  std::string second;

  void SetUp() override {
    WatchTest::SetUp();
    if (IsSkipped()) return;
    secondMount.emplace("tmpfs");
    second = secondMount->path();
    ::setenv("KELDARA_REGISTRY_ROOT", (temp / "etc").c_str(), 1);
  }
  void TearDown() override { ::unsetenv("KELDARA_REGISTRY_ROOT"); }

  static void write(const std::string& path, const std::string& text = "") {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }
  static void fill(const std::string& folder, int files) {
    std::filesystem::create_directories(folder);
    for (int i = 0; i < files; ++i) write(folder + "/" + std::to_string(i));
  }
  // As a user does, who does not want to wait.
  void unmount() {
    const auto began = std::chrono::steady_clock::now();
    ASSERT_NO_THROW(mount->unmount());
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(1));
  }

  // Empty as long as there is nothing to tell.
  std::string stateOf(const std::string& path) const {
    const Outcome outcome = run({"status", "--json", path});
    if (outcome.exitCode != 0) return "";
    return nlohmann::json::parse(outcome.out)["state"];
  }
  void waitForState(const Program& program, const std::string& path,
                    const std::string& wanted) const {
    EXPECT_TRUE(program.waitUntil([&] { return stateOf(path) == wanted; }))
        << path << " is " << stateOf(path) << "\n"
        << program.err();
  }
  // What was said of it before the program took note of a mount is not it.
  void waitUntilExact(const Program& program, const std::string& path) const {
    EXPECT_TRUE(program.waitUntil([&] {
      return stateOf(path) == "live" && run({"flush", path}).exitCode == 0 &&
             listed(path) == onDisk(path);
    })) << path
        << " is " << stateOf(path) << "\n"
        << program.err();
    expectExact(path);
  }
  void waitUntilExact(const Program& program) const { waitUntilExact(program, volume); }
  void waitUntilNotLive(const Program& program) const {
    EXPECT_TRUE(program.waitUntil([&] { return stateOf(volume) != "live"; })) << status() << "\n"
                                                                              << program.err();
  }
  // Whether it becomes free before a minute is over.
  static bool becomesFree(const Program& program, const std::string& device) {
    return program.waitUntil(
        [&] { return !!UniqueFd(open(device.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC)); });
  }
  void expectExact(const std::string& path) const {
    flush(path);
    EXPECT_EQ(listed(path), onDisk(path));
    const Outcome outcome = run({"verify", path});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
  }
  void expectExact() const { expectExact(volume); }
  // The numbers that the catalogue gives the entries of those names.
  Words numbersOf(const std::string& names) const {
    return rows("SELECT NAME,INODE FROM FILES WHERE NAME IN (" + names + ") ORDER BY NAME");
  }
  void expectSecondFollows(const std::string& name) const {
    EXPECT_EQ(stateOf(second), "live");
    write(second + "/" + name);
    expectExact(second);
  }
  void registerVolumes() const {
    for (const std::string& path : {volume, second})
      EXPECT_EQ(run({"volumes", "add", path}).exitCode, 0);
    const Outcome outcome = run({"volumes", "refresh"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
  }
};

}  // namespace kddc::test
