// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc volumes with a registry and a state folder of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mount.h>

#include <filesystem>
#include <list>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/database_view.h"
#include "tests/support/loop_mount.h"
#include "tests/support/program.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

struct VolumesTest : testing::Test {
  using json = nlohmann::json;

  TempFolder temp{inMemory()};
  std::string etc = temp / "etc", state = temp / "state";
  std::string registry = etc + "/DataClassification/volume_db.kd";
  std::list<std::string> mounted;

  void SetUp() override {
    if (const std::string why = LoopMount::whyNot("ext4"); !why.empty()) GTEST_SKIP() << why;
    ::setenv("KELDARA_REGISTRY_ROOT", etc.c_str(), 1);
    ::setenv("TZ", "UTC", 1);
  }
  ~VolumesTest() override {
    ::unsetenv("KELDARA_REGISTRY_ROOT");
    for (const std::string& place : mounted) ::umount2(place.c_str(), MNT_DETACH);
  }

  void settings(const std::string& lines) const {
    std::filesystem::create_directories(etc);
    (void)temp.write("etc/settings.ini", "[DataClassification]\n" + lines);
  }
  // Mounts a tmpfs at a place of that name.
  std::string mountAt(const std::string& name, const std::string& device = "none") {
    const std::string place = temp / name;
    std::filesystem::create_directories(place);
    EXPECT_EQ(::mount(device.c_str(), place.c_str(), "tmpfs", 0, nullptr), 0) << place;
    mounted.push_back(place);
    return place;
  }
  Outcome run(Words words) const {
    words.insert(words.end(), {"--state", state});
    return Program::run(words);
  }
  Outcome volumes(Words words) const {
    words.insert(words.begin(), "volumes");
    return run(words);
  }
  void add(const std::string& place) const {
    const Outcome outcome = volumes({"add", place, "-q"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    EXPECT_EQ(outcome.err, "");
  }
  Outcome refresh() const {
    Outcome outcome = volumes({"refresh", "-q"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    return outcome;
  }
  std::vector<json> list() const {
    const Outcome outcome = volumes({"list", "--json", "-q"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    std::vector<json> all;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) all.push_back(json::parse(line));
    return all;
  }
  Words rows(const std::string& sql) const { return DatabaseView(registry).rows(sql); }
  std::string numbered(int number) const {
    return state + "/catalogues/.DATACLASS_" + std::to_string(number);
  }
  void scan(const std::string& place) const {
    const Outcome outcome = run({"scan", "-q", place});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
  }
  static void expectRefused(const Outcome& outcome, const std::string& sentence) {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
  }
};

}  // namespace kddc::test
