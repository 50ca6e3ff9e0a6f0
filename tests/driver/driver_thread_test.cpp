// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "driver/driver.h"
#include "tests/support/driver_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

INSTANTIATE_TEST_SUITE_P(On, DriverTest, testing::Values("tmpfs", "ext4"), typeOf);

TEST_P(DriverTest, SaysWhatHappenedSinceItWasMade) {
  write("a");
  fs::create_directory(path("d"));
  start();
  barrier();
  EXPECT_THAT(taken(), ElementsAre("CREATE a", "SETATTR", "MKDIR d", "SETATTR", "SETATTR", "NOOP"));
  fs::rename(path("a"), path("d/b"));
  barrier();
  EXPECT_THAT(taken(), ElementsAre("RENAME a b", "SETATTR", "SETATTR", "SETATTR", "NOOP"));
  fs::remove(path("d/b"));
  fs::remove(path("d"));
  barrier();
  // They may have been one batch or two, so the folder's own attributes may have been seen.
  const auto lines = taken();
  EXPECT_THAT(lines, testing::Contains("REMOVE b 0 x0"));
  EXPECT_THAT(lines, testing::Contains("RMDIR d"));
  EXPECT_THAT(doubts, testing::IsEmpty());
}

TEST_P(DriverTest, DropsTheChangesOfItsOwnProcess) {
  options.ownPid = getpid();
  make();
  write("a");
  start();
  barrier();
  EXPECT_THAT(taken(), ElementsAre("NOOP"));
}

TEST_P(DriverTest, ReachesABarrierAfterEverythingBeforeIt) {
  start();
  for (int i = 0; i < 100; ++i) {
    const std::string name = "file" + std::to_string(i);
    write(name);
    const std::uint64_t sequence = barrier();
    const std::lock_guard lock(mutex);
    ASSERT_EQ(records.back().decoded().cmd, FLR_JRN_NOOP);
    EXPECT_EQ(records.back().decoded().seq_num, sequence);
    EXPECT_TRUE(std::any_of(records.begin(), records.end(), [&](const Record& record) {
      return lineOf(record) == "CREATE " + name;
    }));
    records.clear();
  }
}

TEST_P(DriverTest, SaysOneNoopWhenNothingMoreHappens) {
  start();
  write("a");
  waitUntil([&] { return !records.empty() && records.back().decoded().cmd == FLR_JRN_NOOP; });
  EXPECT_THAT(taken(), testing::Contains("CREATE a"));
  // Nothing is said any more: the next record is that of the next change.
  write("b");
  waitUntil([&] { return !records.empty(); });
  EXPECT_NE(taken().front(), "NOOP");
}

TEST_P(DriverTest, AnswersALookAndSaysWhereItsAnswerEnds) {
  write("a");
  make();
  start();
  const std::uint64_t number = driver->look(fidAt(mount->path()), "a");
  EXPECT_EQ(number, 1u);
  driver->lookAt(fidAt(path("a")));
  driver->look(fidAt(mount->path()), "none");
  barrier();
  EXPECT_THAT(taken(), ElementsAre("CREATE a", "SETATTR", "UNSTUB", "SETATTR", "UNSTUB",
                                   "REMOVE none 0 x0", "NOOP"));
  const Driver::Served served = driver->finished();
  EXPECT_GE(served.request, 3u);  // the barrier itself may not be told yet
  EXPECT_GE(served.sequence, 106u);
  EXPECT_EQ(driver->device(), mount->device());
}

TEST_P(DriverTest, ListsAFolderWithAllBelowItWhileChangesGoOn) {
  std::set<std::string> expected;
  for (int d = 0; d < 10; ++d) {
    fs::create_directory(path("d" + std::to_string(d)));
    expected.insert("MKDIR d" + std::to_string(d) + " listed");
    for (int f = 0; f < 100; ++f) {
      const std::string name = std::to_string(d) + "-" + std::to_string(f);
      write("d" + std::to_string(d) + "/" + name);
      expected.insert("CREATE " + name + " listed");
    }
  }
  make();
  driver->list(fidAt(mount->path()));
  start();
  write("new");
  barrier();
  std::set<std::string> listed;
  bool sawNew = false;
  for (const std::string& line : taken()) {
    if (line.ends_with(" listed")) listed.insert(line);
    if (line.starts_with("CREATE new")) sawNew = true;
  }
  listed.erase("CREATE new listed");
  EXPECT_EQ(listed, expected);
  EXPECT_TRUE(sawNew);
}

TEST_P(DriverTest, ResolvesWhatIsGoneOutsideOrInside) {
  fs::create_directory(path("volume"));
  fs::create_directory(path("outside"));
  write("outside/o");
  write("volume/i");
  write("volume/g");
  const fsf_fid outside = fidAt(path("outside/o")), inside = fidAt(path("volume/i")),
                gone = fidAt(path("volume/g"));
  fs::remove(path("volume/g"));
  options.roots = {path("volume")};
  make();
  driver->resolve(inside);
  driver->resolve(outside);
  driver->resolve(gone);
  start();  // all three wait by then
  // What lies inside lets the others pass, and when no event comes its name is said.
  waitUntil([&] { return driver->finished().request >= 3; });
  const auto said = taken();
  ASSERT_GE(said.size(), 3U);
  EXPECT_THAT(said[0], StartsWith("REMOVE  0 x1"));
  EXPECT_THAT(said[1], StartsWith("REMOVE  0 x0"));
  EXPECT_THAT(said[2], StartsWith("CREATE i"));
  EXPECT_THAT(doubts, IsEmpty());
}

TEST_P(DriverTest, FollowsAnotherFolderAndLetsGoOfOne) {
  fs::create_directory(path("one"));
  fs::create_directory(path("two"));
  fs::create_directory(path("two/own"));
  write("one/a");
  write("two/b");
  const fsf_fid a = fidAt(path("one/a")), b = fidAt(path("two/b"));
  options.roots = {path("one")};
  make();
  start();
  driver->resolve(b);
  barrier();
  EXPECT_THAT(taken(), ElementsAre("REMOVE  0 x1", "NOOP"));  // outside

  driver->addRoot(path("two"), {fidAt(path("two/own"))});
  barrier();
  taken();
  write("two/own/ours");
  driver->dropRoot(fidAt(path("one")));
  driver->dropRoot(fidAt(path("two")));  // the last one stays
  driver->resolve(a);
  barrier();
  EXPECT_THAT(taken(), ElementsAre("REMOVE  0 x1", "NOOP"));
  driver->look(fidAt(path("two")), "b");
  driver->look(fidAt(path("two")), "own");
  barrier();
  EXPECT_THAT(taken(), ElementsAre("CREATE b", "SETATTR", "UNSTUB", "REMOVE own 0 x0", "NOOP"));
}

TEST_P(DriverTest, ResolveSaysFirstWhatIsQueued) {
  write("a");
  const fsf_fid a = fidAt(path("a"));
  make();
  fs::rename(path("a"), path("b"));
  fs::remove(path("b"));
  driver->resolve(a);
  start();
  barrier();
  const auto lines = taken();
  EXPECT_LT(std::find(lines.begin(), lines.end(), "REMOVE b 0 x0") - lines.begin(),
            std::find(lines.begin(), lines.end(), "REMOVE  0 x0") - lines.begin());
}

TEST_P(DriverTest, NumbersItsRecordsWithoutGaps) {
  start();
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      write(std::to_string(i % 20));
      fs::remove(path(std::to_string(i % 20)));
    }
  });
  for (int i = 0; i < 200; ++i) driver->look(fidAt(mount->path()), std::to_string(i % 20));
  writer.join();
  barrier();
  stop();
  std::uint64_t next = 100;
  for (const Record& record : records) {
    ASSERT_EQ(record.decoded().seq_num, next++);
    ASSERT_EQ(record.decoded().devt, mount->device());
  }
  EXPECT_EQ(driver->nextSequence(), next);
  EXPECT_EQ(driver->counts().records, records.size());
  EXPECT_GT(driver->counts().events, 0u);
}

TEST_P(DriverTest, SaysWhatIsQueuedBeforeItStops) {
  write("a");
  driver->stop();
  driver->look(fidAt(mount->path()), "unserved");
  bool reached = false;
  driver->barrier([&](std::uint64_t) { reached = true; });
  driver->run();
  write("after");
  EXPECT_THAT(taken(), ElementsAre("CREATE a", "SETATTR", "SETATTR", "NOOP"));
  EXPECT_TRUE(reached);
}

TEST_P(DriverTest, EndsTheCaptureAndServesOn) {
  write("a");
  std::promise<std::uint64_t> ended;
  driver->endCapture([&](std::uint64_t sequence) { ended.set_value(sequence); });
  start();
  ended.get_future().get();
  EXPECT_THAT(taken(), ElementsAre("CREATE a", "SETATTR", "SETATTR", "NOOP"));
  write("b");
  barrier();
  EXPECT_THAT(taken(), ElementsAre("NOOP"));
  driver->look(fidAt(mount->path()), "b");
  barrier();
  EXPECT_THAT(taken(), ElementsAre("CREATE b", "SETATTR", "UNSTUB", "NOOP"));
}

TEST_P(DriverTest, ReportsAnOverflowAndGoesOn) {
  if (std::string(GetParam()) != "tmpfs") GTEST_SKIP() << "the queue is the same everywhere";
  long limit = 0;
  std::ifstream("/proc/sys/fs/fanotify/max_queued_events") >> limit;
  if (limit <= 0 || limit > 50000) GTEST_SKIP() << "the queue takes " << limit << " events";
  for (long i = 0; i <= limit; ++i) mknod(path(std::to_string(i)).c_str(), S_IFREG | 0600, 0);
  start();
  barrier();
  {
    const std::lock_guard lock(mutex);
    EXPECT_THAT(doubts, ElementsAre("the kernel's queue of changes overflowed"));
  }
  EXPECT_EQ(driver->counts().overflows, 1u);
  taken();
  write("after");
  barrier();
  EXPECT_THAT(taken(), testing::Contains("CREATE after"));
}

TEST_P(DriverTest, ComesBackWithTheSinksExceptionAndCanGoOn) {
  write("a");
  onRecord = [](const Record&) { throw std::runtime_error("full"); };
  EXPECT_THROW(driver->run(), std::runtime_error);
  onRecord = [](const Record&) {};
  write("b");
  start();
  barrier();
  EXPECT_THAT(taken(), testing::Contains("CREATE b"));
  EXPECT_EQ(records.size(), 0u);
}

TEST_P(DriverTest, AVolumeAtRestCanBeUnmountedAndItsDeviceIsFree) {
  const std::string device = mount->loopDevice();
  start();
  write("a");
  waitUntil([&] { return !records.empty() && records.back().decoded().cmd == FLR_JRN_NOOP; });
  mount->unmount();
  if (!device.empty()) waitUntilFree(device);
  stop();
  EXPECT_THAT(doubts, testing::IsEmpty());
}

TEST_P(DriverTest, WhatCannotBeLookedAtAnyMoreIsInDoubtAndNothingOfItIsSaid) {
  const fsf_fid top = fidAt(mount->path());
  write("a");
  const fsf_fid a = fidAt(path("a"));
  make();
  start();
  barrier();
  mount->unmount();
  driver->look(top, "a");
  driver->lookAt(a);
  driver->list(top);
  driver->resolve(a);
  taken();
  barrier();
  EXPECT_THAT(taken(), ElementsAre("NOOP"));
  EXPECT_THAT(doubts, testing::Contains("a look at the disk failed: No such device"));
}

}  // namespace
}  // namespace kddc::test
