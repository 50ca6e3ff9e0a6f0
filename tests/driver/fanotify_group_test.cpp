// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "driver/fanotify_group.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "driver/event.h"
#include "platform/detached_folder.h"
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

TEST_P(FanotifyGroupTest, TheMarkLastsAsLongAsTheFileSystemIsMountedAnywhereOrHeldOpen) {
  const FanotifyGroup group(mount->path());
  std::optional<DetachedFolder> held(mount->path());
  const std::string other = mount->path() + ".other";
  fs::create_directory(other);
  ASSERT_EQ(::mount(mount->path().c_str(), other.c_str(), nullptr, MS_BIND, nullptr), 0);
  mount->unmount();
  EXPECT_TRUE(group.hasMark());
  ASSERT_EQ(::umount2(other.c_str(), 0), 0);
  EXPECT_TRUE(group.hasMark());
  held.reset();
  EXPECT_FALSE(group.hasMark());
  mount->mount();
  EXPECT_FALSE(group.hasMark());
}

TEST_P(FanotifyGroupTest, DoesNotKeepTheFileSystemFromBeingUnmounted) {
  FanotifyGroup group(mount->path());
  write(*mount / "before");
  mount->unmount();
  EXPECT_EQ(readAll(group).size(), 1u);
}

// Another process would have the descriptor from whoever kept it.
UniqueFd copyOf(const FanotifyGroup& group) {
  return UniqueFd(fcntl(group.fd(), F_DUPFD_CLOEXEC, 0));
}
UniqueFd otherGroup(unsigned int flags) {
  return UniqueFd(fanotify_init(flags, O_RDONLY | O_CLOEXEC));
}
std::string whyNotKept(const UniqueFd& fd, const std::string& path,
                       EventQueue queue = EventQueue::kUnlimited) {
  return FanotifyGroup::whyNotKept(fd.get(), path, queue);
}

TEST_P(FanotifyGroupTest, ThatWasKeptGivesWhatChangedWhileNobodyReadIt) {
  fs::create_directory(*mount / "d");
  UniqueFd kept;
  {
    const FanotifyGroup group(mount->path());
    kept = copyOf(group);
  }
  write(*mount / "meanwhile");
  EXPECT_EQ(whyNotKept(kept, *mount / "d"), "");
  FanotifyGroup group(*mount / "d", EventQueue::kUnlimited, std::move(kept));
  write(*mount / "later");
  const std::vector<Event> events = readAll(group);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].name, "meanwhile");
  EXPECT_EQ(events[1].name, "later");
}

TEST_P(FanotifyGroupTest, ThatWasKeptMustFollowThatFileSystemAndNoOther) {
  const LoopMount other("tmpfs");
  const FanotifyGroup group(mount->path());
  EXPECT_EQ(whyNotKept(copyOf(group), other.path()), "it follows another file system");
  EXPECT_EQ(whyNotKept(copyOf(group), mount->path()), "it follows something else");
}

TEST_P(FanotifyGroupTest, ThatWasKeptIsNoMoreUseAfterItsMarkHasGone) {
  FanotifyGroup ended(mount->path());
  ended.unmark();
  EXPECT_EQ(whyNotKept(copyOf(ended), mount->path()), "it follows nothing any more");
  const FanotifyGroup unmounted(mount->path());
  mount->unmount();
  mount->mount();
  EXPECT_EQ(whyNotKept(copyOf(unmounted), mount->path()), "it follows nothing any more");
}

TEST_P(FanotifyGroupTest, ThatWasKeptMustBeMadeAndMarkedAsOursAre) {
  const std::string path = mount->path();
  EXPECT_EQ(whyNotKept(UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)), path),
            "it is no queue of changes");
  EXPECT_EQ(whyNotKept(UniqueFd(), path), "it is no queue of changes");
  const FanotifyGroup limited(path, EventQueue::kLimited);
  EXPECT_EQ(whyNotKept(copyOf(limited), path), "its settings are others");
  EXPECT_EQ(whyNotKept(copyOf(limited), path, EventQueue::kLimited), "");
  const FanotifyGroup blocking(path);
  fcntl(blocking.fd(), F_SETFL, 0);
  EXPECT_EQ(whyNotKept(copyOf(blocking), path), "its settings are others");

  constexpr unsigned int kOurs = FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME_TARGET | FAN_NONBLOCK |
                                 FAN_CLOEXEC | FAN_UNLIMITED_QUEUE;
  constexpr unsigned int kFileSystem = FAN_MARK_ADD | FAN_MARK_FILESYSTEM;
  const UniqueFd fewer = otherGroup(kOurs);
  ASSERT_EQ(fanotify_mark(fewer.get(), kFileSystem, FAN_CREATE, AT_FDCWD, path.c_str()), 0);
  EXPECT_EQ(whyNotKept(fewer, path), "it follows something else");
  const UniqueFd folder = otherGroup(kOurs);
  ASSERT_EQ(fanotify_mark(folder.get(), FAN_MARK_ADD, FAN_CREATE, AT_FDCWD, path.c_str()), 0);
  EXPECT_EQ(whyNotKept(folder, path), "it follows something else");
  const FanotifyGroup ignores(path);
  ASSERT_EQ(fanotify_mark(ignores.fd(),
                          kFileSystem | FAN_MARK_IGNORED_MASK | FAN_MARK_IGNORED_SURV_MODIFY,
                          FAN_MODIFY, AT_FDCWD, path.c_str()),
            0);
  EXPECT_EQ(whyNotKept(copyOf(ignores), path), "it follows something else");
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
