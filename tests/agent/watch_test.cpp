// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc watch as its users meet it, while all goes well.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

struct Watch : WatchTest {
  Watch() : WatchTest("ext4") {}

  // Lines printed since the last call, once all is applied; how the root changes beside is left
  // out, since that hangs on the clock.
  std::string printed(const Program& program) {
    flush();
    const std::string all = program.out();
    std::string fresh = all.substr(seen_);
    seen_ = all.size();
    for (const std::string noise = "changed .\n"; fresh.find(noise) != std::string::npos;)
      fresh.erase(fresh.find(noise), noise.size());
    return fresh;
  }
  std::string json(const std::string& path) const {
    const Outcome outcome = run({"list", "--json", volume});
    for (const std::string& line : split(outcome.out, '\n'))
      if (line.find("\"path\":\"" + path + "\"") != std::string::npos) return line;
    return "";
  }

 private:
  std::size_t seen_ = 6;  // behind "ready"
};

TEST_F(Watch, SaysReadyOnceTheFirstScanIsInTheCatalogue) {
  write("file");
  const auto program = watch();
  EXPECT_EQ(listed(), (Words{".", "file", "lost+found"}));
  EXPECT_EQ(program->out(), "ready\n");
  EXPECT_EQ(program->err(), "");
}

TEST_F(Watch, WhatHappensIsInTheCatalogueAfterAFlush) {
  const auto program = watch();
  write("file", "four");
  fs::create_directory(*this / "folder");
  flush();
  EXPECT_EQ(listed(), (Words{".", "file", "folder", "lost+found"}));
  EXPECT_THAT(json("file"), HasSubstr("\"nlink\":1,\"size\":4,"));

  write("file", "seventeen letters");
  fs::create_hard_link(*this / "file", *this / "folder/link");
  flush();
  EXPECT_EQ(listed(), (Words{".", "file", "folder", "folder/link", "lost+found"}));
  EXPECT_THAT(json("file"), HasSubstr("\"nlink\":2,\"size\":17,"));
  EXPECT_THAT(json("folder/link"), HasSubstr("\"nlink\":2,\"size\":17,"));

  fs::rename(*this / "folder", *this / "moved");
  fs::remove(*this / "file");
  fs::create_symlink("moved", *this / "symlink");
  flush();
  EXPECT_EQ(listed(), (Words{".", "lost+found", "moved", "moved/link", "symlink"}));
  EXPECT_THAT(json("moved/link"), HasSubstr("\"nlink\":1,\"size\":17,"));

  fs::remove_all(*this / "moved");
  flush();
  EXPECT_EQ(listed(), (Words{".", "lost+found", "symlink"}));
}

TEST_F(Watch, ChangesFlushesAndPrintsWhatHasChanged) {
  write("old");
  const auto program = watch();
  rows("UPDATE FILES SET TIME=7");
  write("new");
  const Outcome outcome = run({"changes", volume, "--since", "8"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_THAT(split(outcome.out, '\n'), testing::Contains("new"));
  EXPECT_THAT(split(outcome.out, '\n'), Not(testing::Contains("old")));
  EXPECT_EQ(outcome.err, "");  // no note that nobody keeps the catalogue current
}

TEST_F(Watch, PrintsWhatChangesWhenItIsApplied) {
  const auto program = watch({volume, "--print"});
  write("file");
  EXPECT_EQ(printed(*program), "added file\n");
  write("file", "text");
  EXPECT_EQ(printed(*program), "changed file\n");
  fs::rename(*this / "file", *this / "other");
  EXPECT_EQ(printed(*program), "moved other\n");
  fs::remove(*this / "other");
  EXPECT_EQ(printed(*program), "removed other\n");
}

TEST_F(Watch, PrintsNoByteOfANameThatCouldSteerATerminal) {
  const auto program = watch({volume, "--print"});
  write("a\n\x1b[2J\t\xff\x7f\"'\\ ");
  EXPECT_EQ(printed(*program), "added a\\n\\x1b[2J\\t\\xff\\x7f\"'\\ \n");
  write("\xc3\xa4");
  EXPECT_EQ(printed(*program), "added \xc3\xa4\n");
}

TEST_F(Watch, NamesMayHoldAnyByteAndHaveAnyLength) {
  const auto program = watch();
  Words names = {".", "lost+found"};
  for (const std::string& name :
       {std::string("line\nbreak"), std::string("\"quotes\" 'and' `ticks`; --"),
        std::string("\xff\xfe\x80"), std::string(255, 'x'), std::string("%s\\0"), std::string(" ")})
    names.push_back(name);
  for (const std::string& name : Words(names.begin() + 2, names.end())) write(name);
  std::ranges::sort(names);
  flush();
  EXPECT_EQ(listed(), names);
  for (const std::string& name : names)
    if (name != "." && name != "lost+found")
      fs::rename(*this / name, *this / ("lost+found/" + name));
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
}

TEST_F(Watch, FollowsWorkThatWasUnderWayBeforeItBegan) {
  std::atomic<bool> done = false;
  std::thread work([&] {
    for (int i = 0; !done; ++i) {
      const std::string name = *this / ("d" + std::to_string(i % 7));
      fs::create_directories(name + "/sub");
      std::ofstream(name + "/sub/" + std::to_string(i)) << i;
      if (i % 3 == 0) fs::remove_all(*this / ("d" + std::to_string((i + 3) % 7)));
      if (i % 5 == 0 &&
          ::rename(name.c_str(), (*this / ("e" + std::to_string(i % 11))).c_str()) != 0)
        fs::remove_all(*this / ("e" + std::to_string(i % 11)));
    }
  });
  const auto program = watch();
  done = true;
  work.join();
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
}

TEST_F(Watch, RescanIsDoneByTheProcessThatWatches) {
  write("kept");
  write("changed");
  const auto program = watch();
  // So that there is something to find: rows that nobody's event will mend.
  rows("UPDATE FILES SET NAME='gone' WHERE NAME='kept'");
  rows("UPDATE FILES SET SIZE=5 WHERE NAME='changed'");
  const Outcome outcome = run({"rescan", volume});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_THAT(outcome.out,
              testing::StartsWith("added 0, changed 1, moved 1, removed 0; compared 4 in "));
  EXPECT_EQ(listed(), (Words{".", "changed", "kept", "lost+found"}));
  const Outcome again = run({"rescan", "--json", volume});
  EXPECT_THAT(again.out,
              testing::StartsWith(
                  R"({"added":0,"changed":0,"moved":0,"removed":0,"compared":4,"seconds":)"));
  EXPECT_EQ(status()["rescan_count"], 2);
}

TEST_F(Watch, StatusTellsThatItIsLive) {
  const auto program = watch();
  EXPECT_THAT(run({"status", volume}).out, HasSubstr("  state                 live\n"));
  const auto answer = status();
  EXPECT_EQ(answer["state"], "live");
  EXPECT_EQ(answer["process"], program->pid());
  EXPECT_EQ(answer["rows"], 2);
  stop(*program);
  EXPECT_EQ(status()["state"], "not watched");
}

TEST_F(Watch, AFolderOfAFileSystemIsAVolume) {
  fs::create_directory(*this / "inside");
  write("outside");
  const auto program = watch({*this / "inside"});
  write("inside/new");
  fs::rename(*this / "outside", *this / "inside/came");
  flush(*this / "inside");
  EXPECT_EQ(listed(*this / "inside"), (Words{".", "came", "new"}));
  fs::rename(*this / "inside/new", *this / "went");
  flush(*this / "inside");
  EXPECT_EQ(listed(*this / "inside"), (Words{".", "came"}));
}

TEST_F(Watch, AVolumeThatIsNamedTwiceIsWatchedOnce) {
  const auto program = watch({volume, *this / "lost+found/.."});
  write("file");
  flush();
  EXPECT_EQ(listed(), (Words{".", "file", "lost+found"}));
}

}  // namespace
}  // namespace kddc::test
