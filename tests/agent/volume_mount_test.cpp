// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What is told of a volume's path while file systems come and go there.
#include "agent/registry/volume_mount.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/detached_folder.h"
#include "platform/file_handle.h"
#include "records/fsf_fid.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

struct VolumeMountTest : testing::TestWithParam<const char*> {
  std::optional<LoopMount> mount;
  std::optional<VolumeMount> before;

  void SetUp() override {
    if (const std::string why = LoopMount::whyNot(GetParam()); !why.empty()) GTEST_SKIP() << why;
    mount.emplace(GetParam());
    before = volumeMountAt(mount->path());
    ASSERT_TRUE(before);
  }
  bool isTmpfs() const { return std::string(GetParam()) == "tmpfs"; }
  Standing now() const { return now(mount->path(), *before); }
  static Standing now(const std::string& path, const VolumeMount& known) {
    return standingOf(known, volumeMountAt(path));
  }
  static void bind(const std::string& what, const std::string& where) {
    ASSERT_EQ(::mount(what.c_str(), where.c_str(), nullptr, MS_BIND, nullptr), 0) << where;
  }
  static void unmount(const std::string& where, int flags = 0) {
    ASSERT_EQ(::umount2(where.c_str(), flags), 0) << where;
  }
};
using VolumeMountAnywhere = VolumeMountTest;

std::string typeOf(const testing::TestParamInfo<const char*>& info) {
  return info.param;
}
INSTANTIATE_TEST_SUITE_P(On, VolumeMountTest, testing::Values("ext4", "xfs", "btrfs", "tmpfs"),
                         typeOf);
INSTANTIATE_TEST_SUITE_P(On, VolumeMountAnywhere, testing::Values("ext4"), typeOf);

TEST_P(VolumeMountTest, TellsMountPointDeviceRootAndFileSystem) {
  fsf_fid root{};
  ASSERT_EQ(identify(AT_FDCWD, mount->path().c_str(), root), 0);
  EXPECT_EQ(before->place, mount->path());
  EXPECT_EQ(before->device, mount->device());
  EXPECT_EQ(before->root, root);
  EXPECT_EQ(before->disk.substr(0, 5), isTmpfs() ? "fsid:" : "uuid:");
  EXPECT_EQ(now(), Standing::kSame);
}

TEST_P(VolumeMountTest, WhatIsUnmountedIsGoneAndComesAgain) {
  mount->unmount();
  EXPECT_EQ(now(), Standing::kGone);
  mount->mount();
  const Standing standing = now();
  if (isTmpfs())
    EXPECT_EQ(standing, Standing::kOther);
  else
    EXPECT_TRUE(standing == Standing::kSame || standing == Standing::kAgain);
}

TEST_P(VolumeMountTest, WhatIsUnmountedLazilyIsGoneThoughItIsStillInUse) {
  const DetachedFolder inUse(mount->path());
  const UniqueFd visible(open(mount->path().c_str(), O_RDONLY));
  unmount(mount->path(), MNT_DETACH);
  EXPECT_EQ(now(), Standing::kGone);
}

TEST_P(VolumeMountTest, AFolderThatIsGoneWithItsMountPointIsGone) {
  mount->unmount();
  fs::remove(mount->path());
  EXPECT_EQ(now(), Standing::kGone);
  std::ofstream(mount->path()) << "a file";
  EXPECT_EQ(now(), Standing::kGone);
}

TEST_P(VolumeMountTest, AnotherFileSystemOfTheSameTypeThereIsAnother) {
  LoopMount other(GetParam());
  bind(other.path(), mount->path());
  EXPECT_EQ(now(), Standing::kOther);
  unmount(mount->path());
  EXPECT_EQ(now(), Standing::kSame);
  mount->unmount();
  bind(other.path(), mount->path());
  EXPECT_EQ(now(), Standing::kOther);
  unmount(mount->path());
}

TEST_P(VolumeMountTest, ANewFileSystemOnTheSameDeviceIsAnother) {
  mount->unmount();
  mount->format();
  mount->mount();
  EXPECT_EQ(now(), Standing::kOther);
}

TEST_P(VolumeMountTest, WhatIsHeldOpenComesBackAsTheSameFileSystem) {
  const DetachedFolder held(mount->path());
  const std::string device = mount->loopDevice();
  if (isTmpfs()) GTEST_SKIP() << "a tmpfs is mounted once";
  mount->unmount();
  ASSERT_EQ(::mount(device.c_str(), mount->path().c_str(), GetParam(), 0, nullptr), 0);
  const auto now = volumeMountAt(mount->path(), &*before);
  EXPECT_NE(standingOf(*before, now), Standing::kOther);
  EXPECT_EQ(now->disk, before->disk);
  unmount(mount->path());
}

TEST_P(VolumeMountTest, OtherMountsDoNotDisturb) {
  fs::create_directory(*mount / "folder");
  LoopMount elsewhere("tmpfs");
  bind(elsewhere.path(), *mount / "folder");
  EXPECT_EQ(now(), Standing::kSame);
  unmount(*mount / "folder");
  EXPECT_EQ(now(), Standing::kSame);
}

TEST_P(VolumeMountTest, MountedOverItselfItIsTheSameFolderAgain) {
  bind(mount->path(), mount->path());
  EXPECT_EQ(now(), Standing::kAgain);
  unmount(mount->path());
  EXPECT_EQ(now(), Standing::kSame);
}

TEST_P(VolumeMountAnywhere, AChangeOfMountOptionsChangesNothing) {
  ASSERT_EQ(::mount("", mount->path().c_str(), "", MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(now(), Standing::kSame);
}

TEST_P(VolumeMountAnywhere, AFolderOfAFileSystemIsAVolumeOfItsOwn) {
  const std::string folder = *mount / "folder";
  fs::create_directories(folder);
  const auto volume = volumeMountAt(folder);
  ASSERT_TRUE(volume);
  EXPECT_EQ(volume->place, mount->path());
  EXPECT_EQ(volume->disk, before->disk);
  EXPECT_EQ(now(folder, *volume), Standing::kSame);
  EXPECT_EQ(standingOf(*before, volume), Standing::kOther);

  fs::rename(folder, *mount / "aside");
  EXPECT_EQ(now(folder, *volume), Standing::kGone);
  fs::create_directory(folder);
  EXPECT_EQ(now(folder, *volume), Standing::kOther);
  fs::remove(folder);
  fs::rename(*mount / "aside", folder);
  EXPECT_EQ(now(folder, *volume), Standing::kSame);
}

TEST_P(VolumeMountAnywhere, WithoutTheMountAFolderOfThatNameBelowItIsNotTheVolume) {
  const std::string folder = *mount / "folder";
  fs::create_directories(folder);
  const auto volume = volumeMountAt(folder);
  mount->unmount();
  fs::create_directories(folder);
  EXPECT_EQ(now(folder, *volume), Standing::kGone);
  fs::remove(folder);
}

TEST_P(VolumeMountAnywhere, AMountAboveThatHidesTheVolumeMakesItGone) {
  const std::string above = fs::path(mount->path()).parent_path();
  ASSERT_EQ(::mount("none", above.c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_EQ(now(), Standing::kGone);
  fs::create_directory(mount->path());
  EXPECT_EQ(now(), Standing::kGone);
  unmount(above);
  EXPECT_EQ(now(), Standing::kSame);
}

TEST_P(VolumeMountAnywhere, ALinkOrAFileIsNoVolume) {
  fs::create_directory_symlink(".", *mount / "link");
  std::ofstream(*mount / "file") << "";
  EXPECT_FALSE(volumeMountAt(*mount / "link"));
  EXPECT_FALSE(volumeMountAt(*mount / "file"));
  EXPECT_FALSE(volumeMountAt(*mount / "none"));
}

TEST_P(VolumeMountAnywhere, ToBeLookedAtDoesNotKeepItFromBeingUnmounted) {
  volumeMountAt(mount->path());
  mount->unmount();
}

TEST(Standings, AFileSystemThatIsNotKnownIsToldByItsRoot) {
  const VolumeMount before{.id = 7, .place = "/mnt/disk", .device = 1, .root = {}, .disk = ""};
  VolumeMount now = before;
  now.id = 8;
  now.device = 2;
  now.disk = "uuid:1";
  EXPECT_EQ(standingOf(before, now), Standing::kAgain);
  now.root.data[5] = 1;
  EXPECT_EQ(standingOf(before, now), Standing::kOther);
  now.place = "/mnt";
  EXPECT_EQ(standingOf(before, now), Standing::kGone);
  now.place = "/mnt/disk/deeper";
  EXPECT_EQ(standingOf(before, now), Standing::kOther);
  EXPECT_EQ(standingOf(before, {}), Standing::kGone);
}

TEST(Standings, TheSameNumbersWithAnotherDiskAreAnother) {
  const VolumeMount before{
      .id = 7, .place = "/mnt/disk", .device = 1, .root = {}, .disk = "uuid:1"};
  VolumeMount now = before;
  EXPECT_EQ(standingOf(before, now), Standing::kSame);
  now.disk = "uuid:2";
  EXPECT_EQ(standingOf(before, now), Standing::kOther);
}

}  // namespace
}  // namespace kddc::test
