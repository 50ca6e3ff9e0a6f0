// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Several volumes on several file systems, kept by one kddc watch.
#include <sstream>
#include <thread>

#include "tests/support/unread_pipe.h"
#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

struct WatchVolumes : WatchTest {
  WatchVolumes() : WatchTest("ext4") {}

  std::optional<LoopMount> secondMount;
  std::string second;

  void SetUp() override {
    WatchTest::SetUp();
    if (IsSkipped()) return;
    secondMount.emplace("ext4");
    second = secondMount->path();
  }
  static void write(const std::string& path, const std::string& text = "") {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }
  void expectBothExact() const {
    for (const std::string& path : {volume, second}) {
      flush(path);
      EXPECT_EQ(listed(path), onDisk(path));
    }
  }
  // devt, next and expected of each file system, by devt.
  std::map<unsigned long long, std::pair<unsigned long long, unsigned long long>> numbers() const {
    std::map<unsigned long long, std::pair<unsigned long long, unsigned long long>> numbers;
    std::ifstream file(queueFile(".numbers"));
    for (unsigned long long devt = 0, next = 0, expected = 0; file >> devt >> next >> expected;)
      numbers[devt] = {next, expected};
    return numbers;
  }
  std::size_t rescans(const std::string& path) const { return status(path)["rescan_count"]; }
};

TEST_F(WatchVolumes, TwoFileSystemsAreKeptByOneProcess) {
  write(volume + "/before");
  const auto program = watch({volume, second});
  write(volume + "/a");
  write(second + "/b", "text");
  fs::create_directories(second + "/folder/sub");
  fs::rename(volume + "/before", volume + "/renamed");
  flush(volume);
  EXPECT_EQ(listed(volume), (Words{".", "a", "lost+found", "renamed"}));
  flush(second);
  EXPECT_EQ(listed(second), (Words{".", "b", "folder", "folder/sub", "lost+found"}));
  for (const std::string& path : {volume, second}) {
    const auto answer = status(path);
    EXPECT_EQ(answer["state"], "live");
    EXPECT_EQ(answer["process"], program->pid());
    EXPECT_EQ(answer["rescan_count"], 0);
  }
  stop(*program);
  EXPECT_EQ(program->err(), "");
}

TEST_F(WatchVolumes, WorkOnBothAtOnceEndsExactly) {
  const auto work = [](const std::string& path, int seed) {
    for (int i = 0; i < 1500; ++i) {
      const std::string folder = path + "/d" + std::to_string((i * 7 + seed) % 13);
      fs::create_directories(folder);
      write(folder + "/" + std::to_string(i), "text");
      std::error_code ignored;
      if (i % 4 == 0) fs::rename(folder, path + "/e" + std::to_string(i % 5), ignored);
      if (i % 9 == 0) fs::remove_all(path + "/e" + std::to_string(i % 3), ignored);
    }
  };
  std::thread first(work, volume, 1), other(work, second, 2);
  const auto program = watch({volume, second});
  first.join();
  other.join();
  expectBothExact();
  EXPECT_EQ(program->err(), "");  // no number was missing, nothing was in doubt
}

TEST_F(WatchVolumes, ARestartComparesBothAndNumbersGoOnForEach) {
  auto program = watch({volume, second});
  write(volume + "/a");
  for (int i = 0; i < 50; ++i) write(second + "/" + std::to_string(i));
  stop(*program);
  const auto before = numbers();
  ASSERT_EQ(before.size(), 2U);
  const auto firstNext = before.at(mount->device()).first;
  const auto secondNext = before.at(secondMount->device()).first;
  EXPECT_LT(firstNext, secondNext);

  write(volume + "/b");
  fs::remove(second + "/7");
  program = watch({second, volume});  // in any order; the queue is another one then
  expectBothExact();
  stop(*program);
  program = watch({volume, second});
  expectBothExact();
  EXPECT_EQ(rescans(volume), 1U);
  EXPECT_EQ(rescans(second), 1U);
  stop(*program);
  EXPECT_EQ(program->err(), "");
  EXPECT_GT(numbers().at(mount->device()).first, firstNext);
  EXPECT_GT(numbers().at(secondMount->device()).first, secondNext);
}

TEST_F(WatchVolumes, ASecondSignalSavesTheRecordsOfBoth) {
  UnreadPipe printed;
  const auto program = launch({volume, second, "--print"}, printed.asOutput());
  ASSERT_EQ(printed.line(), "ready\n");
  for (int i = 0; i < 500; ++i) {
    write(volume + "/file " + std::to_string(i));
    write(second + "/file " + std::to_string(i));
  }
  program->signal(SIGINT);
  ASSERT_TRUE(program->waitUntil([&] { return marks(*program) < 2; }));  // it drains
  program->signal(SIGINT);
  EXPECT_EQ(program->finish().exitCode, 0);
  for (const auto& [devt, pair] : numbers()) EXPECT_LT(pair.second, pair.first) << devt;

  const auto next = watch({volume, second});
  expectBothExact();
  EXPECT_EQ(next->err(), "");
  EXPECT_EQ(rescans(volume), 1U);
  EXPECT_EQ(rescans(second), 1U);
}

TEST_F(WatchVolumes, OneOfTwoMayBeWatchedAloneLater) {
  stop(*watch({volume, second}));
  auto program = watch({volume});
  write(volume + "/a");
  flush(volume);
  EXPECT_EQ(status(second)["state"], "not watched");
  stop(*program);
  write(second + "/b");
  program = watch({volume, second});
  expectBothExact();
  EXPECT_EQ(program->err(), "");
}

TEST_F(WatchVolumes, WhatIsPrintedOfSeveralVolumesHasItsWholePath) {
  const auto program = watch({volume, second, "--print"});
  write(volume + "/a");
  flush(volume);
  write(second + "/b");
  flush(second);
  EXPECT_THAT(program->out(), HasSubstr("added " + volume + "/a\n"));
  EXPECT_THAT(program->out(), HasSubstr("added " + second + "/b\n"));
}

TEST_F(WatchVolumes, OwnFilesOnOneOfThemAreNotCatalogued) {
  state = second + "/state";
  options.state = state;
  const auto program = watch({volume, second});
  write(volume + "/a");
  write(second + "/b");
  flush(volume);
  flush(second);
  EXPECT_EQ(listed(volume), (Words{".", "a", "lost+found"}));
  EXPECT_EQ(listed(second), (Words{".", "b", "lost+found"}));
  stop(*program);
}

TEST_F(WatchVolumes, TwoFoldersOfOneFileSystemAreTwoVolumes) {
  fs::create_directory(volume + "/one");
  fs::create_directory(volume + "/two");
  const auto program = watch({volume + "/one", volume + "/two", second});
  write(volume + "/one/file");
  flush(volume + "/one");
  fs::rename(volume + "/one/file", volume + "/two/file");
  flush(volume + "/one");
  flush(volume + "/two");
  EXPECT_EQ(listed(volume + "/one"), (Words{"."}));
  EXPECT_EQ(listed(volume + "/two"), (Words{".", "file"}));
  write(second + "/file");
  flush(second);
  EXPECT_EQ(listed(second), (Words{".", "file", "lost+found"}));
}

}  // namespace
}  // namespace kddc::test
