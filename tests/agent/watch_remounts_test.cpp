// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc watch when its volumes are mounted again, or replaced by others.
#include <fcntl.h>
#include <sys/mount.h>

#include <filesystem>
#include <string>

#include "tests/support/mounts_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

struct WatchRemounts : WatchMounts {};

TEST_F(WatchRemounts, MountedAgainItIsExactAndEntriesKeepTheirNumbers) {
  for (const char* name : {"changed", "gone", "kept", "moved"}) write(volume + "/" + name);
  fs::create_directory(volume + "/folder");
  const auto program = watch({volume, second});
  const Words before = numbersOf("'changed','folder','kept'");
  const Words moved = rows("SELECT INODE FROM FILES WHERE NAME='moved'");
  ASSERT_EQ(before.size(), 3U);
  unmount();
  waitUntilNotLive(*program);
  mount->mount();
  write(volume + "/changed", "text");
  write(volume + "/new");
  fs::remove(volume + "/gone");
  fs::rename(volume + "/moved", volume + "/folder/elsewhere");
  waitUntilExact(*program);
  EXPECT_EQ(numbersOf("'changed','folder','kept'"), before);
  EXPECT_EQ(rows("SELECT INODE FROM FILES WHERE NAME='elsewhere'"), moved);
  EXPECT_EQ(marks(*program), 2U);

  write(volume + "/later");
  expectExact();
  stop(*program);
}

TEST_F(WatchRemounts, WhatChangedWhileItWasMountedElsewhereIsFound) {
  write(volume + "/file");
  const auto program = watch({volume, second});
  unmount();
  waitUntilNotLive(*program);
  const std::string elsewhere = temp / "elsewhere";
  fs::create_directory(elsewhere);
  mount->mountAt(elsewhere);
  write(elsewhere + "/new");
  fs::remove(elsewhere + "/file");
  ASSERT_EQ(::umount2(elsewhere.c_str(), 0), 0);
  mount->mount();
  waitUntilExact(*program);
}

TEST_F(WatchRemounts, UnmountedAndMountedAgainInOneBreathItIsExact) {
  const auto program = watch({volume, second});
  for (int round = 0; round < 20; ++round) {
    write(volume + "/before" + std::to_string(round));
    unmount();
    mount->mount();
    write(volume + "/after" + std::to_string(round));
  }
  waitUntilExact(*program);
  write(volume + "/last");
  expectExact();
}

// The mark has ended with the first mount, and nobody had the time to notice.
TEST_F(WatchRemounts, AFlushRightAfterAMountIsDoneWhenAllIsInTheCatalogueOrFails) {
  const auto program = watch({volume, second});
  for (int round = 0; round < 20; ++round) {
    waitUntilExact(*program);
    unmount();
    mount->mount();
    const std::string name = "after" + std::to_string(round);
    write(volume + "/" + name);
    if (run({"flush", volume}).exitCode == 0) {
      EXPECT_THAT(listed(), testing::Contains(name));
    }
  }
}

TEST_F(WatchRemounts, AnotherDiskAtTheSamePlaceGetsACatalogueOfItsOwn) {
  fill(volume + "/old", 50);
  const auto program = watch({volume, second});
  unmount();
  mount->format();
  mount->mount();
  fs::create_directories(volume + "/new/folder");
  write(volume + "/new/folder/file", "text");
  waitUntilExact(*program);
  write(volume + "/later");
  expectExact();
  expectSecondFollows("a");
}

TEST_F(WatchRemounts, ALazyUnmountIsNoticedThoughTheVolumeIsStillInUse) {
  write(volume + "/file");
  const auto program = watch({volume, second});
  UniqueFd inUse(open((volume + "/file").c_str(), O_WRONLY));
  ASSERT_EQ(::umount2(volume.c_str(), MNT_DETACH), 0);
  waitUntilNotLive(*program);
  ASSERT_EQ(::write(inUse.get(), "text", 4), 4);
  expectSecondFollows("a");
  inUse.reset();
  mount->mount();
  write(volume + "/later");
  waitUntilExact(*program);
}

TEST_F(WatchRemounts, WithoutItsMountPointAVolumeIsAwayToo) {
  const auto program = watch({volume, second});
  unmount();
  fs::remove(volume);
  expectSecondFollows("a");
  fs::create_directory(volume);
  mount->mount();
  write(volume + "/a");
  waitUntilExact(*program);
}

TEST_F(WatchRemounts, WhatLiesInTheEmptyMountPointIsNotTakenForTheVolume) {
  write(volume + "/file");
  const auto program = watch({volume, second});
  unmount();
  write(volume + "/in the mount point");
  waitUntilNotLive(*program);
  run({"rescan", volume});
  EXPECT_EQ(listed(), (Words{".", "file", "lost+found"}));
  mount->mount();
  waitUntilExact(*program);
  EXPECT_EQ(listed(), (Words{".", "file", "lost+found"}));
  unmount();
  fs::remove(volume + "/in the mount point");
}

TEST_F(WatchRemounts, ARegisteredVolumeThatIsMountedLaterIsFollowedFromThenOn) {
  registerVolumes();
  unmount();
  const auto program = watch({});
  expectSecondFollows("a");
  mount->mount();
  write(volume + "/file");
  waitUntilExact(*program);
  unmount();
  waitUntilNotLive(*program);
  mount->mount();
  waitUntilExact(*program);
  stop(*program);
}

}  // namespace
}  // namespace kddc::test
