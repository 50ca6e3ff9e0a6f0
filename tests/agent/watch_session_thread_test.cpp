// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A watch session within this process, so that a test can act in the middle of what it does.
#include <gmock/gmock.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "agent/catalogue_place.h"
#include "agent/errors.h"
#include "agent/live/watch_session.h"
#include "tests/support/loop_mount.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

struct WatchSessionTest : testing::Test {
  void SetUp() override {
    alarm(120);
    if (const std::string why = LoopMount::whyNot("ext4"); !why.empty()) GTEST_SKIP() << why;
    mount.emplace("ext4");
    volume = realVolumePath(mount->path());
    std::filesystem::remove(volume + "/lost+found");
  }
  void TearDown() override {
    if (session) session->stop();
    if (running.joinable()) running.join();
    alarm(0);
  }

  // Starts it and waits until it is live; `progress` is called during comparisons.
  void begin(const std::function<void()>& progress) {
    WatchPlan plan;
    plan.volumes = {{volume, catalogue, state / "lock"}};
    plan.stateFolder = state.path();
    plan.queueFolder = state / "queue";
    plan.numbersFile = state / "numbers";
    plan.stubAttribute = "trusted.stub";
    WatchListeners listeners;
    listeners.note = [](const std::string&) {};
    listeners.progress = [progress](std::uint64_t) { progress(); };
    session = std::make_unique<WatchSession>(std::move(plan), std::move(listeners), manager);
    std::promise<void> live;
    running = std::thread([&] { session->run([&] { live.set_value(); }); });
    live.get_future().wait();
  }
  // The alarm ends it when that never comes.
  static void waitUntil(const std::function<bool()>& condition) {
    while (!condition()) poll(nullptr, 0, 1);
  }
  static bool never() { return false; }

  std::optional<LoopMount> mount;
  const TempFolder state{inMemory()};
  const std::string catalogue = state / "catalogue";
  std::string volume;
  ServiceManager manager{[](const std::string&) {}};
  std::unique_ptr<WatchSession> session;
  std::thread running;
};

TEST_F(WatchSessionTest, ARescanCountsWhatItDidAlsoWhenTheCatalogueIsOpenedAnewMeanwhile) {
  std::atomic<bool> replaces = false;
  begin([&] {
    if (!replaces.exchange(false)) return;
    fs::rename(catalogue, state / "before");
    fs::copy(state / "before", catalogue, fs::copy_options::recursive);
    waitUntil([&] {
      return session->status(volume).staleReason == "its catalogue was removed or replaced";
    });
  });
  // By another process: what we change ourselves is none of the session's business.
  ASSERT_EQ(std::system(("cd " + volume + " && touch 1 2 3").c_str()), 0);
  ASSERT_TRUE(session->flush(volume, never));
  replaces = true;
  const auto counts = session->rescan(volume, never);
  ASSERT_TRUE(counts);
  EXPECT_FALSE(replaces);
  EXPECT_EQ(counts->settled.added, 0U);
  EXPECT_EQ(counts->settled.removed, 0U);
  EXPECT_EQ(counts->compared.walk.entries, 4U);
}

// What all the threads of a session, and those that ask it, do at the same time.
TEST_F(WatchSessionTest, AnswersWhileItsVolumeComesAndGoes) {
  begin([] {});
  std::atomic<bool> isOver = false;
  const auto over = [&] { return isOver.load(); };
  std::atomic<int> failures = 0;
  const auto keepAsking = [&](const std::function<void()>& question) {
    return std::thread([&, question] {
      while (!isOver) {
        try {
          question();
        } catch (const Failure&) {  // it is not there at the moment
          ++failures;
        }
        poll(nullptr, 0, 1);  // paces the questions
      }
    });
  };
  std::thread asking[] = {keepAsking([&] { session->flush(volume, over); }),
                          keepAsking([&] { session->rescan(volume, over); }),
                          keepAsking([&] { session->status(volume), session->states(); })};
  for (int round = 0; round < 3; ++round) {
    const std::string name = volume + "/" + std::to_string(round);
    EXPECT_EQ(std::system(("touch " + name).c_str()), 0);
    while (::umount(volume.c_str()) != 0) poll(nullptr, 0, 1);  // once nobody looks at it
    const int before = failures;
    waitUntil([&] { return failures > before; });
    mount->mount();
    waitUntil([&] { return session->status(volume).state == VolumeStatus::State::kLive; });
  }
  isOver = true;
  for (std::thread& thread : asking) thread.join();
  ASSERT_TRUE(session->flush(volume, never));
  EXPECT_EQ(session->status(volume).rows, 4U);
}

}  // namespace
}  // namespace kddc::test
