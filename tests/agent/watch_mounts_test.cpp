// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc watch while its volumes are unmounted, mounted again, and replaced by others.
#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "platform/unique_fd.h"
#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;
using testing::HasSubstr;

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
    fs::create_directories(folder);
    for (int i = 0; i < files; ++i) write(folder + "/" + std::to_string(i));
  }
  // As a user does, who does not want to wait.
  void unmount() {
    const auto began = steady_clock::now();
    ASSERT_NO_THROW(mount->unmount());
    EXPECT_LT(steady_clock::now() - began, std::chrono::seconds(1));
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

// --- A volume goes.

TEST_F(WatchMounts, AnUnmountSucceedsAtOnceAndTheDeviceIsFree) {
  const auto program = watch({volume, second});
  write(volume + "/file");
  const std::string device = mount->loopDevice();
  unmount();
  EXPECT_TRUE(becomesFree(*program, device));
  expectSecondFollows("a");
}

TEST_F(WatchMounts, OneThatIsUnmountedIsNotLiveAndTheOtherIs) {
  write(volume + "/file");
  const auto program = watch({volume, second});
  unmount();
  waitUntilNotLive(*program);
  expectSecondFollows("a");
  stop(*program);
}

TEST_F(WatchMounts, RegisteredVolumesAreNoDifferent) {
  registerVolumes();
  const auto program = watch({});
  unmount();
  waitUntilNotLive(*program);
  expectSecondFollows("a");
  mount->mount();
  write(volume + "/a");
  waitUntilExact(*program);
}

TEST_F(WatchMounts, AnUnmountRightAfterChangesSucceeds) {
  const auto program = watch({volume, second});
  for (int round = 0; round < 5; ++round) {
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 3; ++writer)
      writers.emplace_back([&, writer] {
        const std::string folder = volume + "/" + std::to_string(writer);
        fill(folder, 300);
        fs::rename(folder + "/7", folder + "/renamed");
      });
    for (std::thread& writer : writers) writer.join();
    unmount();
    waitUntilNotLive(*program);
    expectSecondFollows("round " + std::to_string(round));
    mount->mount();
    waitUntilExact(*program);
  }
}

TEST_F(WatchMounts, AFlushOfOneThatIsAwayFailsAtOnceAndSoDoesOneThatWaits) {
  const auto program = watch({volume, second});
  unmount();
  waitUntilNotLive(*program);
  const auto began = steady_clock::now();
  const Outcome outcome = run({"flush", volume});
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_THAT(outcome.err, HasSubstr(volume));
  EXPECT_LT(steady_clock::now() - began, std::chrono::seconds(10));
  EXPECT_EQ(run({"rescan", volume}).exitCode, 3);
  stop(*program);
}

TEST_F(WatchMounts, AnswersFromTheCatalogueOfOneThatIsAwayAreStillGiven) {
  write(volume + "/file");
  const auto program = watch({volume, second});
  unmount();
  waitUntilNotLive(*program);
  EXPECT_EQ(listed(), (Words{".", "file", "lost+found"}));
  EXPECT_EQ(run({"changes", volume, "--since", "1h", "--no-flush"}).exitCode, 0);
}

TEST_F(WatchMounts, ItEndsInGoodOrderWhileOneIsAwayAndTheNextStartIsExact) {
  write(volume + "/file");
  auto program = watch({volume, second});
  unmount();
  waitUntilNotLive(*program);
  stop(*program);
  mount->mount();
  write(volume + "/later");
  program = watch({volume, second});
  expectExact();
  expectExact(second);
}

TEST_F(WatchMounts, OfAWatchOfOneVolumeTheProcessStaysWhenItIsUnmounted) {
  const auto program = watch();
  unmount();
  waitUntilNotLive(*program);
  mount->mount();
  write(volume + "/a");
  waitUntilExact(*program);
  stop(*program);
}

// --- It comes back.

TEST_F(WatchMounts, MountedAgainItIsExactAndEntriesKeepTheirNumbers) {
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

TEST_F(WatchMounts, WhatChangedWhileItWasMountedElsewhereIsFound) {
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

TEST_F(WatchMounts, UnmountedAndMountedAgainInOneBreathItIsExact) {
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
TEST_F(WatchMounts, AFlushRightAfterAMountIsDoneWhenAllIsInTheCatalogueOrFails) {
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

TEST_F(WatchMounts, AnotherDiskAtTheSamePlaceGetsACatalogueOfItsOwn) {
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

TEST_F(WatchMounts, ALazyUnmountIsNoticedThoughTheVolumeIsStillInUse) {
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

TEST_F(WatchMounts, WithoutItsMountPointAVolumeIsAwayToo) {
  const auto program = watch({volume, second});
  unmount();
  fs::remove(volume);
  expectSecondFollows("a");
  fs::create_directory(volume);
  mount->mount();
  write(volume + "/a");
  waitUntilExact(*program);
}

TEST_F(WatchMounts, WhatLiesInTheEmptyMountPointIsNotTakenForTheVolume) {
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

TEST_F(WatchMounts, ARegisteredVolumeThatIsMountedLaterIsFollowedFromThenOn) {
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

// --- Mounts around it.

TEST_F(WatchMounts, AMountOnTopOfTheVolumeHidesItUntilItGoes) {
  write(volume + "/file");
  fs::create_directory(second + "/folder");
  const auto program = watch({volume, second});
  ASSERT_EQ(::mount((second + "/folder").c_str(), volume.c_str(), nullptr, MS_BIND, nullptr), 0);
  write(volume + "/in the other");
  ASSERT_TRUE(program->waitUntil([&] {
    return stateOf(volume) != "live" || listed() == onDisk(volume);
  })) << status();
  ASSERT_EQ(::umount2(volume.c_str(), 0), 0);
  waitUntilExact(*program);
  expectExact(second);
}

TEST_F(WatchMounts, AMountElsewhereChangesNothing) {
  const auto program = watch({volume, second});
  LoopMount elsewhere("tmpfs");
  write(elsewhere / "file");
  elsewhere.unmount();
  write(volume + "/a");
  expectExact();
  expectSecondFollows("a");
  for (const std::string& path : {volume, second})
    EXPECT_EQ(status(path)["rescan_count"], 0) << path;
  EXPECT_EQ(program->err(), "");
}

TEST_F(WatchMounts, WhatIsMountedInsideAtTheStartIsLeftOutByScanAndComparison) {
  fs::create_directories(volume + "/folder/hidden");
  write(volume + "/plain", "text");
  ASSERT_EQ(::mount("none", (volume + "/folder").c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(::mount("/dev/null", (volume + "/plain").c_str(), nullptr, MS_BIND, nullptr), 0);
  for (int start = 0; start < 2; ++start) {
    const auto program = watch();
    EXPECT_EQ(listed(), (Words{".", "lost+found"}));
    EXPECT_EQ(run({"verify", volume}).exitCode, 0);
    stop(*program);
    EXPECT_EQ(run({"rescan", volume}).exitCode, 0);
    EXPECT_EQ(listed(), (Words{".", "lost+found"}));
  }
  for (const char* name : {"/folder", "/plain"})
    ASSERT_EQ(::umount2((volume + name).c_str(), 0), 0);
  const auto program = watch();
  expectExact();
}

TEST_F(WatchMounts, WhatAMountInsideHidesIsAbsentUntilItGoes) {
  fs::create_directories(volume + "/folder/hidden");
  write(volume + "/folder/hidden/file");
  write(volume + "/plain", "text");
  const auto program = watch({volume, second});
  const auto waitUntilVerified = [&] {
    EXPECT_TRUE(program->waitUntil([&] {
      return run({"flush", volume}).exitCode == 0 && run({"verify", volume}).exitCode == 0;
    })) << run({"verify", volume});
    EXPECT_EQ(stateOf(volume), "live");
  };
  ASSERT_EQ(::mount("none", (volume + "/folder").c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(::mount("/dev/null", (volume + "/plain").c_str(), nullptr, MS_BIND, nullptr), 0);
  write(volume + "/folder/in the other");
  waitUntilVerified();
  EXPECT_EQ(listed(), (Words{".", "lost+found"}));
  const Outcome scanned = run({"scan", volume, "--catalogue", temp / "scanned"});
  ASSERT_EQ(scanned.exitCode, 0) << scanned;
  EXPECT_EQ(run({"list", "-0", volume, "--catalogue", temp / "scanned"}).out,
            run({"list", "-0", volume}).out);

  ASSERT_EQ(::umount2((volume + "/folder").c_str(), 0), 0);
  ASSERT_EQ(::umount2((volume + "/plain").c_str(), 0), 0);
  waitUntilVerified();
  expectExact();
  unmount();
}

// --- While much is under way; on a file system that is quickly filled.

struct WatchMountsMuch : WatchMounts {
  static constexpr int kMany = 30'000;
  WatchMountsMuch() : WatchMounts("tmpfs") {}
};

TEST_F(WatchMountsMuch, AnUnmountDuringTheScanSucceeds) {
  fill(volume, kMany);
  const auto program = launch({volume, second});
  ASSERT_TRUE(program->waitUntil([&] { return stateOf(volume) == "scanning"; }));
  unmount();
  waitForState(*program, second, "live");
  expectSecondFollows("a");
  mount->mount();
  write(volume + "/new");
  waitUntilExact(*program);
  stop(*program);
}

TEST_F(WatchMountsMuch, AnUnmountDuringAComparisonSucceedsAndNothingIsLost) {
  fill(volume, kMany);
  stop(*watch({volume, second}));
  const auto program = launch({volume, second});
  ASSERT_TRUE(program->waitUntil([&] { return stateOf(volume) == "rescanning"; }));
  unmount();
  waitForState(*program, second, "live");
  expectSecondFollows("a");
  EXPECT_NE(stateOf(volume), "live");
  EXPECT_EQ(listed().size(), kMany + 1U);
  stop(*program);
}

}  // namespace
}  // namespace kddc::test
