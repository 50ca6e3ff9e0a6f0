// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The mount table, from a file written by hand and from the host.
#include "platform/mount_table.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "platform/exceptions.h"
#include "tests/support/temp_folder.h"

namespace {

class MountTable : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("KELDARA_REGISTRY_ROOT", folder_.path().c_str(), 1); }
  void TearDown() override {
    KdMntTab::SetSource("");
    ::unsetenv("KELDARA_REGISTRY_ROOT");
  }

  std::vector<std::string> read(std::string_view text) {
    KdMntTab::SetSource(folder_.write("mounts", text));
    std::vector<std::string> entries;
    for (const KdMntEntry& entry : KdMntTab::getAll())
      entries.push_back(entry.device + "|" + entry.mountPoint + "|" + entry.fsType);
    return entries;
  }
  // The message and code of what reading `path` throws.
  std::string failure(const std::string& path) {
    KdMntTab::SetSource(path);
    try {
      KdMntTab::getAll();
    } catch (const KdException& e) {
      return e.getMessage() + " (" + std::to_string(e.getCode()) + ")";
    }
    return "no exception";
  }

  kddc::test::TempFolder folder_;
};

using Entries = std::vector<std::string>;

TEST_F(MountTable, ListsDeviceMountPointAndTypeInTheOrderOfTheTable) {
  EXPECT_EQ(read("/dev/sda1 / ext4 rw,relatime 0 0\n"
                 "tmpfs /run tmpfs rw 0 0\n"
                 "host:/export /mnt/net nfs4 rw 0 0\n"
                 "/dev/sdb1 /run xfs ro 0 0\n"),
            (Entries{"/dev/sda1|/|ext4", "tmpfs|/run|tmpfs", "host:/export|/mnt/net|nfs4",
                     "/dev/sdb1|/run|xfs"}));
}

TEST_F(MountTable, UndoesTheEscapesOfBlanksTabsLineEndsAndBackslashes) {
  EXPECT_EQ(read("/dev/a\\040b /mnt/x\\011y\\134z\\012n ext4 rw 0 0\n"),
            (Entries{"/dev/a b|/mnt/x\ty\\z\nn|ext4"}));
}

TEST_F(MountTable, SkipsCommentsAndBlankLinesAndNeedsNoLastLineEnd) {
  EXPECT_EQ(read("# comment\n\n/dev/sda1 / ext4 rw 0 0"), (Entries{"/dev/sda1|/|ext4"}));
  EXPECT_EQ(read(""), Entries{});
}

TEST_F(MountTable, IsRefusedWholeWhenALineIsNoEntry) {
  const std::string path = folder_.write("mounts", "/dev/sda1 / ext4 rw 0 0\ngarbage\n");
  EXPECT_EQ(failure(path), path + ":2: this line is no mount entry (22)");
}

TEST_F(MountTable, SaysWhyItCannotBeRead) {
  EXPECT_EQ(failure("/nonexistent/mounts"),
            "cannot read the mount table /nonexistent/mounts: No such file or directory (2)");
}

TEST_F(MountTable, IsTheHostsUnlessAnotherSourceIsSet) {
  read("/dev/sda1 /nowhere ext4 rw 0 0\n");
  KdMntTab::SetSource("");
  const auto entries = KdMntTab::getAll();
  const auto isProc = [](const KdMntEntry& entry) {
    return entry.mountPoint == "/proc" && entry.fsType == "proc";
  };
  EXPECT_EQ(std::ranges::count_if(entries, isProc), 1);
}

TEST_F(MountTable, GivesTheFailOverFolderThatTheSettingsNameForAMountPoint) {
  folder_.write("settings.ini", "[FailOver]\n/mnt/shared disk = /var/lib/kddc/shared\n");
  std::string path = "untouched";
  EXPECT_FALSE(GetFailOverDbPath("/mnt/other", path));
  EXPECT_EQ(path, "untouched");
  EXPECT_TRUE(GetFailOverDbPath("/mnt/shared disk", path));
  EXPECT_EQ(path, "/var/lib/kddc/shared");
}

}  // namespace
