// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The kernel's numbered mount table, from a file written by hand.
#include "platform/mount_info.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/exceptions.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

struct MountInfoTest : testing::Test {
  TempFolder folder;

  std::vector<MountInfo> read(std::string_view text) {
    return readMountInfo(folder.write("mountinfo", text));
  }
  // The id of the mount that the path leads to; 0 when there is none.
  int idAt(std::string_view table, const std::string& path) {
    const std::vector<MountInfo> mounts = read(table);
    const MountInfo* mount = mountOf(mounts, path);
    return mount ? mount->id : 0;
  }
};

constexpr std::string_view kHost =
    "21 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
    "30 21 8:2 / /mnt/disk rw - xfs /dev/sdb1 rw\n"
    "31 21 0:50 / /mnt/disk2 rw - nfs4 server:/export rw\n"
    "32 30 8:3 /sub /mnt/disk/in\\040side rw - btrfs /dev/sdc1 rw\n";

TEST_F(MountInfoTest, ALineTellsWhatIsMountedWhereAndOnWhat) {
  const std::vector<MountInfo> mounts = read(kHost);
  ASSERT_EQ(mounts.size(), 4u);
  EXPECT_EQ(mounts[3].id, 32);
  EXPECT_EQ(mounts[3].parent, 30);
  EXPECT_EQ(mounts[3].source, "/dev/sdc1");
  EXPECT_EQ(mounts[3].mountPoint, "/mnt/disk/in side");
  EXPECT_EQ(mounts[3].fsType, "btrfs");
  EXPECT_TRUE(mounts[3].isLocal);
  EXPECT_FALSE(mounts[2].isLocal);
}

TEST_F(MountInfoTest, APathLeadsToTheMountAboveIt) {
  EXPECT_EQ(idAt(kHost, "/"), 21);
  EXPECT_EQ(idAt(kHost, "/home/user"), 21);
  EXPECT_EQ(idAt(kHost, "/mnt/disk"), 30);
  EXPECT_EQ(idAt(kHost, "/mnt/disk/folder"), 30);
  EXPECT_EQ(idAt(kHost, "/mnt/disk2"), 31);
  EXPECT_EQ(idAt(kHost, "/mnt/disk3"), 21);
  EXPECT_EQ(idAt(kHost, "/mnt/disk/in side/file"), 32);
}

TEST_F(MountInfoTest, OfMountsAtOnePlaceTheUppermostCounts) {
  const std::string table = std::string(kHost) + "40 30 0:60 / /mnt/disk rw - tmpfs none rw\n" +
                            "41 40 0:61 / /mnt/disk rw - tmpfs none rw\n";
  EXPECT_EQ(idAt(table, "/mnt/disk"), 41);
  EXPECT_EQ(idAt(table, "/mnt/disk/folder"), 41);
}

TEST_F(MountInfoTest, TheOrderOfTheTableDoesNotMatter) {
  EXPECT_EQ(idAt("41 40 0:61 / /a rw - tmpfs none rw\n"
                 "40 21 0:60 / /a rw - tmpfs none rw\n"
                 "21 1 8:1 / / rw - ext4 /dev/sda1 rw\n",
                 "/a"),
            41);
}

TEST_F(MountInfoTest, AMountHiddenByAnotherAboveItIsNotOnTheWay) {
  const std::string table = std::string(kHost) + "40 21 0:60 / /mnt rw - tmpfs none rw\n";
  EXPECT_EQ(idAt(table, "/mnt/disk"), 40);
}

TEST_F(MountInfoTest, ARootThatIsMountedOnItselfIsARootToo) {
  EXPECT_EQ(idAt("1 1 0:1 / / rw - rootfs rootfs rw\n"
                 "21 1 8:1 / / rw - ext4 /dev/sda1 rw\n",
                 "/x"),
            21);
}

TEST_F(MountInfoTest, AProcessBelowARootThatIsNoMountSeesTheRestOfTheTable) {
  const std::string table = "30 21 8:2 / /data rw - xfs /dev/sdb1 rw\n";
  EXPECT_EQ(idAt(table, "/data/x"), 30);
  EXPECT_EQ(idAt(table, "/other"), 0);
}

TEST_F(MountInfoTest, ATableThatGoesInCirclesIsLeftInTheEnd) {
  EXPECT_NE(idAt("21 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
                 "22 21 8:1 / / rw - ext4 /dev/sda1 rw\n"
                 "22 22 8:1 / / rw - ext4 /dev/sda1 rw\n",
                 "/x"),
            0);
}

TEST_F(MountInfoTest, ADamagedTableFails) {
  EXPECT_THROW(read("this is no mount table\n"), KdException);
  EXPECT_THROW(readMountInfo(folder / "missing"), KdException);
}

TEST(PathBelow, IsToldByWholeNames) {
  EXPECT_TRUE(isAtOrBelow("/a", "/a"));
  EXPECT_TRUE(isAtOrBelow("/a/b", "/a"));
  EXPECT_TRUE(isAtOrBelow("/a", "/"));
  EXPECT_FALSE(isAtOrBelow("/ab", "/a"));
  EXPECT_FALSE(isAtOrBelow("/", "/a"));
  EXPECT_FALSE(isAtOrBelow("", "/"));
}

}  // namespace
}  // namespace kddc::test
