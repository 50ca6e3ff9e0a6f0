// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc watch while its volumes are unmounted, and while others are mounted around them.
#include <sys/mount.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/mounts_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;
using testing::HasSubstr;

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
