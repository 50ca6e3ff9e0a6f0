// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How kddc watch ends, and what the next one finds.
#include "tests/support/unread_pipe.h"
#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr unsigned long long kFarAhead = 1ULL << 32;

struct WatchStop : WatchTest {
  WatchStop() : WatchTest("ext4") {}

  struct Numbers {
    unsigned long long devt = 0, next = 0, expected = 0;
  };
  Numbers numbers() const {
    Numbers numbers;
    std::ifstream(queueFile(".numbers")) >> numbers.devt >> numbers.next >> numbers.expected;
    return numbers;
  }
  // The reasons of the comparisons of this process, as they stand in its status.
  Words reasons() const {
    Words reasons;
    const auto answer = status();
    for (const auto& rescan : answer["rescans"]) reasons.push_back(rescan["reason"]);
    return reasons;
  }
  std::size_t savedBlocks() const {
    std::size_t blocks = 0;
    for (const auto& entry : fs::directory_iterator(queueFile("")))
      blocks += entry.path().filename().string().starts_with("swap.");
    return blocks;
  }
};

struct WatchSignals : WatchStop, testing::WithParamInterface<int> {};
INSTANTIATE_TEST_SUITE_P(Both, WatchSignals, testing::Values(SIGTERM, SIGINT));

TEST_P(WatchSignals, ASignalEndsItInGoodOrder) {
  const auto program = watch();
  write("file");
  stop(*program, GetParam());
  EXPECT_EQ(program->err(), "");
  EXPECT_EQ(listed(), (Words{".", "file", "lost+found"}));
  EXPECT_EQ(run({"check", volume}).exitCode, 0);
  // Only a catalogue that was closed properly is taken.
  EXPECT_THAT(run({"rescan", volume}).out,
              testing::StartsWith("added 0, changed 0, moved 0, removed 0; compared 3 in "));
  EXPECT_FALSE(fs::exists(controlSocket(options, volume)));
}

TEST_F(WatchStop, TheNextStartComparesAndTouchesOnlyWhatDiffers) {
  write("changed");
  write("kept");
  write("moved");
  write("removed");
  stop(*watch());
  rows("UPDATE FILES SET TIME=7");
  const Words before = rows("SELECT NAME,INODE FROM FILES WHERE PINODE>0 ORDER BY NAME");
  write("changed", "text");
  fs::rename(*this / "moved", *this / "lost+found/arrived");
  fs::remove(*this / "removed");
  write("added");

  const auto program = watch();
  EXPECT_EQ(listed(), (Words{".", "added", "changed", "kept", "lost+found", "lost+found/arrived"}));
  // A scan would have stamped everything anew.
  EXPECT_THAT(rows("SELECT NAME,TIME=7 FROM FILES WHERE NAME IN "
                   "('added','arrived','changed','kept') ORDER BY NAME"),
              ElementsAre("added|0", "arrived|0", "changed|0", "kept|1"));
  EXPECT_THAT(reasons(), ElementsAre("it was not watched for a while"));
  const auto inode = [&](const std::string& name) {
    return rows("SELECT INODE FROM FILES WHERE NAME='" + name + "'").at(0);
  };
  EXPECT_THAT(before, ElementsAre("changed|" + inode("changed"), "kept|" + inode("kept"),
                                  "lost+found|" + inode("lost+found"), "moved|" + inode("arrived"),
                                  testing::StartsWith("removed|")));
}

TEST_F(WatchStop, NumbersOfRecordsGoOnOverARestart) {
  auto program = watch();
  write("a");
  stop(*program);
  const Numbers first = numbers();
  EXPECT_EQ(first.devt, mount->device());
  EXPECT_GT(first.next, 1U);
  program = watch();
  EXPECT_EQ(numbers().next, first.next + kFarAhead);  // for a crash
  write("b");
  flush();
  EXPECT_THAT(reasons(), ElementsAre("it was not watched for a while"));
  stop(*program);
  EXPECT_GT(numbers().next, first.next);
  EXPECT_LT(numbers().next, first.next + 100);
  EXPECT_THAT(program->err(), IsEmpty());
}

TEST_F(WatchStop, AfterACrashItComparesKeepsInodesAndGivesNoNumberTwice) {
  auto program = watch();
  write("before");
  flush();
  const Words inode = rows("SELECT INODE,TIME FROM FILES WHERE NAME='before'");
  program->signal(SIGKILL);
  EXPECT_EQ(program->finish().exitCode, 128 + SIGKILL);
  write("meanwhile");
  program = watch();
  EXPECT_EQ(program->err(), "");
  write("after");
  flush();
  EXPECT_EQ(rows("SELECT INODE,TIME FROM FILES WHERE NAME='before'"), inode);
  EXPECT_THAT(reasons(), ElementsAre("it was not watched for a while"));
  EXPECT_EQ(listed(), (Words{".", "after", "before", "lost+found", "meanwhile"}));
  stop(*program);
  EXPECT_GT(numbers().next, kFarAhead);
}

// A pipe that nobody reads holds the database thread, so that it surely still drains.
TEST_F(WatchStop, ASecondSignalSavesTheQueueInsteadOfDrainingIt) {
  UnreadPipe printed;
  const auto program = launch({volume, "--print"}, printed.asOutput());
  ASSERT_EQ(printed.line(), "ready\n");

  ASSERT_EQ(marks(*program), 1U);
  for (int i = 0; i < 2000; ++i) write("file " + std::to_string(i));
  program->signal(SIGTERM);
  ASSERT_TRUE(program->waitUntil([&] { return marks(*program) == 0; }));  // it drains
  EXPECT_EQ(run({"flush", volume}).err,
            "kddc: the process that watches " + volume + " is stopping\n");
  program->signal(SIGTERM);
  const Outcome outcome = program->finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_LT(listed().size(), 2000U);
  EXPECT_GT(savedBlocks(), 0U);
  EXPECT_LT(numbers().expected, numbers().next);

  const auto next = watch();
  EXPECT_EQ(listed(), onDisk(volume));
  EXPECT_EQ(next->err(), "");
  EXPECT_THAT(reasons(), ElementsAre("it was not watched for a while"));
}

TEST_F(WatchStop, AReaderThatHasSeenEnoughEndsIt) {
  UnreadPipe printed;
  const auto program = launch({volume, "--print"}, printed.asOutput());
  ASSERT_EQ(printed.line(), "ready\n");
  printed.closeReader();
  write("file");
  const Outcome outcome = program->finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.err, "");
  EXPECT_EQ(listed(), (Words{".", "file", "lost+found"}));
}

}  // namespace
}  // namespace kddc::test
