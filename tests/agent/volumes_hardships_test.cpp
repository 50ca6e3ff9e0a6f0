// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc volumes with hostile names, and with a registry that is damaged, locked or read-only.
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/database_view.h"
#include "tests/support/volumes_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(VolumesTest, HostileNamesBreakNoStatementAndSteerNoTerminal) {
  const std::array<std::string, 4> names = {"o'b", "x'); DROP TABLE VOLUME; --", "a\nb \\ \"c\"",
                                            "\x1b[31m\xff"};
  Words places;
  for (const std::string& name : names) places.push_back(mountAt(name, "de'vice\x1b"));
  for (const std::string& place : places) add(place);
  refresh();
  EXPECT_EQ(rows("SELECT MOUNT_POINT FROM VOLUME"), places);

  const Outcome table = volumes({"list"});
  EXPECT_EQ(std::count(table.out.begin(), table.out.end(), '\n'), 5);
  EXPECT_EQ(table.out.find('\x1b'), std::string::npos);
  EXPECT_THAT(table.out, HasSubstr("/a\\nb \\ \"c\"  "));
  EXPECT_THAT(table.out, HasSubstr("/\\x1b[31m\\xff  "));
  const auto all = list();
  EXPECT_EQ(all.at(2).at("mount_point"), places[2]);
  EXPECT_FALSE(all.at(3).contains("mount_point"));
  EXPECT_TRUE(all.at(3).contains("mount_point_base64"));

  for (const std::string& place : places) {
    scan(place);
    EXPECT_EQ(run({"list", place}).out, ".\n");
    const Outcome again = volumes({"add", place});
    EXPECT_EQ(again.exitCode, 3);
    EXPECT_EQ(std::count(again.err.begin(), again.err.end(), '\n'), 1) << again;
    EXPECT_EQ(again.err.find('\x1b'), std::string::npos);
    EXPECT_EQ(volumes({"remove", place, "-q"}).err, "");
  }
  refresh();
  EXPECT_THAT(list(), testing::IsEmpty());
  EXPECT_THAT(rows("SELECT * FROM MONITOR"), testing::IsEmpty());
}

TEST_F(VolumesTest, ADamagedRegistryIsNamedAndLeftAlone) {
  const std::string place = mountAt("volume");
  fs::create_directories(fs::path(registry).parent_path());
  const std::string noise(8192, '#');
  std::ofstream(registry) << noise;
  const std::string sentence =
      "cannot read the registry " + registry +
      ": it is damaged (file is not a database); move it away and run: kddc volumes refresh";
  for (const Words& words : {Words{"list"}, {"add", place}, {"remove", place}, {"refresh"}})
    expectRefused(volumes(words), sentence);
  expectRefused(run({"list", place}), sentence);
  std::ifstream file(registry);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), noise);
}

TEST_F(VolumesTest, AWriterDoesNotHoldUpReaders) {
  add(mountAt("volume"));
  refresh();
  DatabaseView other(registry);
  (void)other.rows("BEGIN IMMEDIATE");
  EXPECT_EQ(list().size(), 1U);  // readers are not held up
}

TEST_F(VolumesTest, ARegistryThatLostATableRemovesNothing) {
  const std::string place = mountAt("volume");
  add(place);
  refresh();
  scan(place);
  rows("DROP TABLE MONITOR");
  expectRefused(volumes({"refresh"}),
                "cannot read the registry " + registry + ": no such table: MONITOR");
  EXPECT_TRUE(fs::exists(numbered(1) + "/.db.kd"));
}

TEST_F(VolumesTest, AReadOnlyRegistryIsReadAndNotWritten) {
  etc = mountAt("etc");
  const std::string place = mountAt("volume");
  add(place);
  refresh();
  ASSERT_EQ(::mount("none", etc.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(list().at(0).at("mount_point"), place);
  scan(place);
  expectRefused(volumes({"remove", place}),
                "cannot open the registry " + registry + ": Read-only file system");
  expectRefused(volumes({"refresh"}),
                "cannot open the registry " + registry + ": Read-only file system");
}

TEST_F(VolumesTest, WhatCouldNotBeRefreshedIsSaid) {
  const std::string place = mountAt("volume");
  add(place);
  const std::string types = etc + "/DataClassification/fstype_db.kd";
  fs::remove(types);
  fs::create_directory(types);  // a folder in a file's place
  const Outcome outcome = volumes({"refresh", "-q"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_THAT(outcome.err, StartsWith("kddc: the registry is not up to date: eRRoR -- "));
}

TEST_F(VolumesTest, FilesAreForTheirOwnerAlone) {
  add(mountAt("volume"));
  refresh();
  for (const auto& entry : fs::recursive_directory_iterator(etc))
    EXPECT_EQ(entry.status().permissions(),
              entry.is_directory() ? fs::perms(0700) : fs::perms(0600))
        << entry.path();
}

}  // namespace
}  // namespace kddc::test
