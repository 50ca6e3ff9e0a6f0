// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "driver/fanotify_group.h"

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/fanotify.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "driver/event.h"
#include "platform/file_handle.h"
#include "records/fsf_fid.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

// The text with which a folder is refused; empty when it is not.
std::string refusal(const std::string& path) {
  try {
    FanotifyGroup group(path);
    return "";
  } catch (const CannotWatch& e) {
    return e.what();
  }
}

void write(const std::string& path) {
  std::ofstream(path, std::ios::binary) << "text";
}

std::vector<Event> readAll(FanotifyGroup& group) {
  std::vector<unsigned char> buffer(64 * 1024);
  std::vector<Event> events;
  while (const std::size_t length = group.read(buffer))
    EXPECT_TRUE(parseEvents({buffer.data(), length}, events));
  return events;
}

// Runs `work` on a thread that has lost the capabilities, which are a thread's own.
void without(std::vector<int> capabilities, const std::function<void()>& work) {
  std::thread([&] {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
    for (const int capability : capabilities)
      data[capability / 32].effective &= ~(1U << (capability % 32));
    ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
    work();
  }).join();
}

struct OnAMount : testing::Test {
  std::unique_ptr<LoopMount> mount;

  void mountOrSkip(const std::string& type) {
    if (const std::string why = LoopMount::whyNot(type); !why.empty()) GTEST_SKIP() << why;
    mount = std::make_unique<LoopMount>(type);
    if (refusal(mount->path()).find("CAP_SYS_ADMIN") != std::string::npos)
      GTEST_SKIP() << "fanotify needs CAP_SYS_ADMIN";
  }
};

struct FanotifyGroupTest : OnAMount, testing::WithParamInterface<const char*> {
  void SetUp() override { mountOrSkip(GetParam()); }
};
std::string typeOf(const testing::TestParamInfo<const char*>& type) {
  return type.param;
}
INSTANTIATE_TEST_SUITE_P(On, FanotifyGroupTest, testing::Values("ext4", "xfs", "btrfs", "tmpfs"),
                         typeOf);

TEST_P(FanotifyGroupTest, TellsOfChangesAnywhereOnTheFileSystem) {
  fs::create_directory(*mount / "d");
  FanotifyGroup group(*mount / "d");
  write(*mount / "f");
  const std::vector<Event> events = readAll(group);
  ASSERT_EQ(events.size(), 1u);
  fsf_fid root{}, file{};
  ASSERT_EQ(identify(AT_FDCWD, mount->path().c_str(), root), 0);
  ASSERT_EQ(identify(AT_FDCWD, (*mount / "f").c_str(), file), 0);
  EXPECT_EQ(events[0].mask, FAN_CREATE | FAN_MODIFY | FAN_CLOSE_WRITE);
  EXPECT_EQ(events[0].pid, getpid());
  EXPECT_EQ(events[0].folder, root);
  EXPECT_EQ(events[0].name, "f");
  EXPECT_EQ(events[0].object, file);
}

TEST_P(FanotifyGroupTest, CountsTheQueuedEventsWithoutReadingThem) {
  FanotifyGroup group(mount->path());
  EXPECT_EQ(group.queued(), 0u);
  write(*mount / "a");
  write(*mount / "a name that is longer");
  EXPECT_EQ(group.queued(), 2u);
  EXPECT_EQ(readAll(group).size(), 2u);
  EXPECT_EQ(group.queued(), 0u);
}

TEST_P(FanotifyGroupTest, TakesNoMoreAfterTheMarkIsGoneButGivesWhatIsQueued) {
  FanotifyGroup group(mount->path());
  write(*mount / "before");
  group.unmark();
  write(*mount / "after");
  const std::vector<Event> events = readAll(group);
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].name, "before");
}

TEST_P(FanotifyGroupTest, DoesNotKeepTheFileSystemFromBeingUnmounted) {
  FanotifyGroup group(mount->path());
  write(*mount / "before");
  mount->unmount();
  EXPECT_EQ(readAll(group).size(), 1u);
}

using FanotifyRefusal = OnAMount;

TEST_F(FanotifyRefusal, OverlayGivesNoFileHandles) {
  mountOrSkip("overlay");
  if (IsSkipped()) return;
  EXPECT_EQ(refusal(mount->path()),
            "cannot watch " + mount->path() +
                ": its file system (overlay) gives no file handles; kddc scan and kddc rescan work "
                "there");
}

TEST_F(FanotifyRefusal, ProcGivesNoFileHandles) {
  EXPECT_EQ(refusal("/proc"),
            "cannot watch /proc: its file system (proc) gives no file handles; kddc scan and kddc "
            "rescan work there");
}

TEST_F(FanotifyRefusal, ABtrfsSubvolumeRefusesTheMark) {
  mountOrSkip("btrfs");
  if (IsSkipped()) return;
  const std::string path = *mount / "sub";
  if (std::system(("btrfs subvolume create " + path + " >/dev/null 2>&1").c_str()) != 0)
    GTEST_SKIP() << "the btrfs tool is missing";
  EXPECT_EQ(refusal(path), "cannot watch " + path +
                               ": a Btrfs subvolume cannot be watched by itself; watch the file "
                               "system's top level (mount it with subvolid=5); kddc scan and kddc "
                               "rescan work there");
}

TEST_F(FanotifyRefusal, WithoutTheRightToOpenHandles) {
  mountOrSkip("tmpfs");
  if (IsSkipped()) return;
  std::string text;
  without({CAP_DAC_READ_SEARCH, CAP_SYS_ADMIN}, [&] { text = refusal(mount->path()); });
  EXPECT_EQ(text, "cannot watch " + mount->path() +
                      ": that needs the capability CAP_DAC_READ_SEARCH; run it as root");
}

TEST_F(FanotifyRefusal, WithoutTheRightToWatch) {
  mountOrSkip("tmpfs");
  if (IsSkipped()) return;
  std::string text;
  without({CAP_SYS_ADMIN}, [&] { text = refusal(mount->path()); });
  EXPECT_EQ(text, "cannot watch " + mount->path() +
                      ": that needs the capability CAP_SYS_ADMIN; run it as root, outside of any "
                      "user namespace");
}

TEST_F(FanotifyRefusal, WhatIsNoFolderOrIsNotThere) {
  EXPECT_EQ(refusal("/nowhere"), "cannot watch /nowhere: No such file or directory");
  EXPECT_EQ(refusal("/proc/version"), "cannot watch /proc/version: Not a directory");
}

}  // namespace
}  // namespace kddc::test
