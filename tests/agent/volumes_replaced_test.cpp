// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc volumes where another file system comes to a mount point or takes a device's name.
#include <gmock/gmock.h>
#include <sys/mount.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/loop_mount.h"
#include "tests/support/program.h"
#include "tests/support/volumes_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

// Two file systems that take turns at one mount point, most likely on one loop device.
struct Swapped : VolumesTest {
  std::string place;

  void SetUp() override {
    VolumesTest::SetUp();
    if (IsSkipped()) return;
    place = temp / "place";
    fs::create_directory(place);
    for (const char* image : {"one", "two"}) {
      fs::resize_file(temp.write(image, ""), 16 << 20);
      sh("mkfs.ext4 -q -F " + temp / image);
    }
    mountImage("one");
    add(place);
    refresh();
    scan(place);
  }
  void mountImage(const std::string& image) {
    sh("mount -o loop " + temp / image + " " + place);
    mounted.push_back(place);
  }
  void swap(const std::string& image) {
    ASSERT_EQ(::umount2(place.c_str(), 0), 0);
    mounted.pop_back();
    mountImage(image);
    // As if the device had the same name again: that alone would tell nothing.
    rows("UPDATE VOLUME SET DEVLABEL='" + deviceOfPlace() + "'");
  }
  std::string deviceOfPlace() const {
    std::ifstream table("/proc/self/mounts");
    std::string device, at, rest;
    while (table >> device >> at && std::getline(table, rest))
      if (at == place) return device;
    return "";
  }
  static void sh(const std::string& command) {
    ASSERT_EQ(std::system((command + " >/dev/null 2>&1").c_str()), 0) << command;
  }
};

TEST_F(Swapped, AnotherDiskUnderTheSameDeviceNameIsNoticed) {
  const std::string before = list().at(0).at("identity");
  EXPECT_EQ(list().at(0).at("replaced"), false);
  swap("two");
  EXPECT_EQ(list().at(0).at("replaced"), true);
  EXPECT_NE(list().at(0).at("identity"), before);
  EXPECT_EQ(volumes({"list"}).err,
            "kddc: " + place +
                " is another file system than at the last refresh, and the catalogue is of the "
                "other one; run: kddc volumes refresh\n");
}

TEST_F(Swapped, ARefreshMakesAnEndOfTheOtherDisksCatalogue) {
  swap("two");
  const Outcome outcome = refresh();
  EXPECT_EQ(outcome.err,
            "kddc: " + place + " is another file system than before; its catalogue begins anew\n");
  EXPECT_FALSE(fs::exists(numbered(1)));
  EXPECT_EQ(list().at(0).at("replaced"), false);
  EXPECT_EQ(list().at(0).at("state"), "not scanned");
  EXPECT_EQ(refresh().err, "");
}

TEST_F(Swapped, ItIsNoticedAlsoWhenTheVolumeWasForgottenInBetween) {
  ASSERT_EQ(::umount2(place.c_str(), 0), 0);
  EXPECT_EQ(refresh().out, "removed " + place + "\n");
  mountImage("two");
  EXPECT_THAT(refresh().err, HasSubstr("its catalogue begins anew"));
  EXPECT_FALSE(fs::exists(numbered(1)));
}

TEST_F(Swapped, TheSameDiskAgainIsNoOther) {
  swap("one");
  EXPECT_EQ(list().at(0).at("replaced"), false);
  EXPECT_EQ(refresh().err, "");
  EXPECT_EQ(list().at(0).at("state"), "not watched");
}

TEST_F(Swapped, TheSameDiskUnderAnotherDeviceNameKeepsItsCatalogue) {
  add(mountAt("second"));
  refresh();
  rows("UPDATE VOLUME SET DEVLABEL='/dev/other' WHERE ROWID=1");
  const Outcome outcome = refresh();
  EXPECT_EQ(outcome.out + outcome.err, "");
  const json volume = list().at(1);
  EXPECT_EQ(volume.at("number"), 3);
  EXPECT_EQ(volume.at("mount_point"), place);
  EXPECT_EQ(volume.at("catalogue"), numbered(1));
  EXPECT_EQ(volume.at("state"), "not watched");
}

TEST_F(Swapped, AnotherDiskUnderAnotherDeviceNameIsNoticedToo) {
  swap("two");
  rows("UPDATE VOLUME SET DEVLABEL='/dev/other'");
  EXPECT_THAT(refresh().err, HasSubstr("its catalogue begins anew"));
  EXPECT_FALSE(fs::exists(numbered(1)));
}

TEST_F(Swapped, WhereNoIdentityIsKnownAnotherDeviceNameIsAnotherDisk) {
  rows("DELETE FROM IDENTITY");
  rows("UPDATE VOLUME SET DEVLABEL='/dev/other'");
  EXPECT_THAT(refresh().err, HasSubstr("its catalogue begins anew"));
  EXPECT_FALSE(fs::exists(numbered(1)));
}

TEST_F(Swapped, ACatalogueInUseIsNotRemovedAndTheNextRefreshTriesAgain) {
  swap("two");
  const Program user({"watch", place, "--state", state});
  ASSERT_TRUE(user.waitUntil([&] { return user.out() == "ready\n"; })) << user.err();
  const Outcome outcome = volumes({"refresh", "-q"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.err, "kddc: " + place +
                             " is another file system than before, but its catalogue is in use by "
                             "process " +
                             std::to_string(user.pid()) +
                             " (kddc watch); stop it, then refresh again\n");
  EXPECT_TRUE(fs::exists(numbered(1)));
  EXPECT_EQ(list().at(0).at("replaced"), true);
}

TEST_F(VolumesTest, ATmpfsThatWasMountedAgainIsAnotherOne) {
  const std::string place = mountAt("volume");
  add(place);
  refresh();
  if (!list().at(0).at("identity").is_string()) GTEST_SKIP() << "this kernel numbers no tmpfs";
  ASSERT_EQ(::umount2(place.c_str(), 0), 0);
  mounted.clear();
  mountAt("volume");
  EXPECT_EQ(list().at(0).at("replaced"), true);
}

TEST_F(VolumesTest, ADeviceNameThatLiesIsNotBelieved) {
  const LoopMount disk("ext4");
  add(disk.path());
  refresh();
  const std::string device = list().at(0).at("device");
  add(mountAt("liar", device));
  refresh();
  const auto all = list();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[1].at("device"), device);
  EXPECT_EQ(all[1].at("identity"), nullptr);
  EXPECT_THAT(all[0].at("identity").get<std::string>(), StartsWith("uuid:"));
}

}  // namespace
}  // namespace kddc::test
