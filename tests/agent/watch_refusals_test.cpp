// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What kddc watch says, in one line, where it cannot watch; and what others say while it does.
#include <sys/mount.h>
#include <unistd.h>

#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

constexpr uid_t kStranger = 65534;

struct WatchRefusals : WatchTest {
  void expectRefusal(const Outcome& outcome, const std::string& sentence) const {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
  void expectScanWorks(const std::string& path) const {
    const Outcome outcome = run({"scan", "-q", path});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
  }
  static std::string userOf(const Program& program) {
    return "process " + std::to_string(program.pid()) + " (kddc watch)";
  }
};

TEST_F(WatchRefusals, OneProcessWatchesAVolume) {
  const auto program = watch();
  const std::string sentence = volume + " is watched by " + userOf(*program) + "; stop it first";
  expectRefusal(run({"watch", volume}), sentence);
  expectRefusal(run({"watch", volume, "--catalogue", temp / "other"}), sentence);
  // The first one has not noticed.
  std::ofstream(*this / "file") << "text";
  flush();
  EXPECT_EQ(listed(), (Words{".", "file"}));
  EXPECT_EQ(status()["rescan_count"], 0);
}

TEST_F(WatchRefusals, ACatalogueHasOneKeeper) {
  const auto program = watch();
  const std::string catalogue = catalogueOf(volume);
  const std::string sentence = catalogue + " is in use by " + userOf(*program) + "; stop it first";
  expectRefusal(run({"scan", volume}), sentence);
  // Who has another state folder does not meet the process, but its catalogue.
  for (const char* command : {"watch", "rescan", "scan"})
    expectRefusal(Program::run({command, volume, "--catalogue", catalogue, "--state", temp / "s"}),
                  sentence);
  flush();
}

TEST_F(WatchRefusals, AFileSystemWithoutFileHandlesIsNotWatched) {
  expectRefusal(run({"watch", "/proc"}),
                "cannot watch /proc: its file system (proc) gives no file handles; kddc scan and "
                "kddc rescan work there");
}

TEST_F(WatchRefusals, AnOverlayIsNotWatchedButScanned) {
  if (const std::string why = LoopMount::whyNot("overlay"); !why.empty()) GTEST_SKIP() << why;
  const LoopMount overlay("overlay");
  std::ofstream(overlay / "file") << "text";
  expectRefusal(run({"watch", overlay.path()}),
                "cannot watch " + overlay.path() +
                    ": its file system (overlay) gives no file handles; kddc scan and kddc rescan "
                    "work there");
  expectScanWorks(overlay.path());
  EXPECT_EQ(listed(overlay.path()), (Words{".", "file"}));
}

TEST_F(WatchRefusals, ABtrfsSubvolumeIsNotWatchedButScanned) {
  if (const std::string why = LoopMount::whyNot("btrfs"); !why.empty()) GTEST_SKIP() << why;
  const LoopMount top("btrfs");
  const std::string inside = top / "inside";
  if (std::system(("btrfs subvolume create " + inside + " >/dev/null 2>&1").c_str()) != 0)
    GTEST_SKIP() << "btrfs-progs is not installed";
  expectRefusal(
      run({"watch", inside}),
      "cannot watch " + inside +
          ": a Btrfs subvolume cannot be watched by itself; watch the file system's top level "
          "(mount it with subvolid=5); kddc scan and kddc rescan work there");
  expectScanWorks(inside);
  std::ofstream(top / "file") << "text";
  const auto program = watch({top.path()});
  flush(top.path());
  EXPECT_THAT(listed(top.path()), testing::Contains("file"));
}

TEST_F(WatchRefusals, WatchingNeedsPrivileges) {
  fs::create_directory(*this / "own");
  fs::permissions(temp.path(), fs::perms(0755));
  fs::permissions(fs::path(volume).parent_path(), fs::perms(0755));
  fs::create_directory(state);
  for (const std::string& folder : {*this / "own", state})
    ASSERT_EQ(chown(folder.c_str(), kStranger, kStranger), 0);
  const auto asNobody = [] {
    if (setgid(kStranger) != 0 || setuid(kStranger) != 0) _exit(126);
  };
  const Words words = {*this / "own", "--state", state};
  const auto runAsNobody = [&](const std::string& command) {
    return Program::run({command, "-q", words[0], words[1], words[2]}, asNobody);
  };
  const Outcome probe = Program::run({"--version"}, asNobody);
  if (probe.exitCode == 127) GTEST_SKIP() << "others may not run the program where it lies";
  expectRefusal(runAsNobody("watch"),
                "cannot watch " + words[0] +
                    ": that needs the capability CAP_DAC_READ_SEARCH; run it as root");
  EXPECT_EQ(runAsNobody("scan").exitCode, 0);
}

TEST_F(WatchRefusals, OneVolumeThatCannotBeWatchedEndsAllAndIsNamed) {
  expectRefusal(run({"watch", volume, "/proc"}),
                "cannot watch /proc: its file system (proc) gives no file handles; kddc scan and "
                "kddc rescan work there");
  expectRefusal(run({"watch", volume, *this / "none"}),
                "cannot use the volume " + (*this / "none") + ": No such file or directory");
  EXPECT_FALSE(fs::exists(catalogueOf(volume)));
}

TEST_F(WatchRefusals, OneCatalogueFolderIsOfOneVolume) {
  const Outcome outcome = run({"watch", volume, "/", "--catalogue", temp / "c"});
  EXPECT_EQ(outcome.exitCode, 2) << outcome;
  EXPECT_EQ(outcome.err,
            "kddc: --catalogue: names the catalogue of one volume only; see kddc --help\n");
}

}  // namespace
}  // namespace kddc::test
