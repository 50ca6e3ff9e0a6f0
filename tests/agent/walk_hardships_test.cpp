// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A walk through trees that are too deep, change under it, or cannot be read.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "agent/errors.h"
#include "tests/support/walk_fixture.h"

namespace kddc::test {
namespace {

struct WalkHardships : WalkTest {};

// Makes `depth` folders, one in the other, with `beside` more folders in each of them; returns the
// number of folders. By descriptor: the paths are longer than the kernel takes.
int makeDeep(const std::string& root, int depth, int beside) {
  UniqueFd at(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; i < depth; ++i) {
    for (int k = 0; k < beside; ++k) mkdirat(at.get(), ("x" + std::to_string(k)).c_str(), 0755);
    if (mkdirat(at.get(), "d", 0755) != 0) throw std::runtime_error("mkdirat");
    at.reset(openat(at.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  return depth * (beside + 1);
}

// The tools of the library cannot remove what is deeper than a path may be long.
void removeDeep(const std::string& root) {
  ASSERT_EQ(std::system(("rm -rf " + root + "/*").c_str()), 0);
}

TEST_F(WalkHardships, TreesDeeperThanAnyPathAreWalkedToTheirEnd) {
  const int folders = makeDeep(temp.path(), 2100, 0);
  WalkCounts counts = walkTree(UniqueFd(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY)), "/root",
                               options, [](const WalkedEntry&) {});
  removeDeep(temp.path());
  EXPECT_EQ(counts.entries, static_cast<std::uint64_t>(folders) + 1);
  EXPECT_EQ(counts.lostFolders, 0u);
}

TEST_F(WalkHardships, DeepTreesWithSiblingsNeedNoMoreDescriptorsThanAllowed) {
  const int folders = makeDeep(temp.path(), 600, 2);
  options.openFolders = 4;
  std::size_t most = 0;
  const WalkCounts counts = walkTree(UniqueFd(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY)),
                                     "/root", options, [&](const WalkedEntry&) {
                                       std::size_t open = 0;
                                       for (int fd = 0; fd < 256; ++fd)
                                         open += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
                                       most = std::max(most, open);
                                     });
  removeDeep(temp.path());
  EXPECT_EQ(counts.entries, static_cast<std::uint64_t>(folders) + 1);
  EXPECT_EQ(counts.lostFolders, 0u);
  EXPECT_LE(most, 16u);
}

// Runs `work` in a child process with at most `limit` descriptors; its result is the exit code.
int withDescriptors(rlim_t limit, const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    const rlimit value{limit, limit};
    setrlimit(RLIMIT_NOFILE, &value);
    alarm(60);
    _exit(work());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(WalkHardships, AProcessWithFewDescriptorsWalksDeepTreesToo) {
  const int folders = makeDeep(temp.path(), 300, 1);
  const int result = withDescriptors(64, [&] {
    const Seen seen = walk();
    return seen.counts.entries == static_cast<std::uint64_t>(folders) + 1 ? 0 : 1;
  });
  removeDeep(temp.path());
  EXPECT_EQ(result, 0);
}

TEST_F(WalkHardships, DescriptorsThatRunOutAreGivenUpOneByOne) {
  const int folders = makeDeep(temp.path(), 300, 1);
  const int result = withDescriptors(64, [&] {
    while (open("/dev/null", O_RDONLY) >= 0) {
    }
    for (int fd = 56; fd < 64; ++fd) close(fd);
    const Seen seen = walk();
    return seen.counts.entries == static_cast<std::uint64_t>(folders) + 1 ? 0 : 1;
  });
  removeDeep(temp.path());
  EXPECT_EQ(result, 0);
}

TEST_F(WalkHardships, AFolderThatCannotBeReadFailsTheWalkByName) {
  if (geteuid() != 0) GTEST_SKIP() << "acts as another user";
  folder("a/secret/below");
  ASSERT_EQ(chmod(temp.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod((temp / "a/secret").c_str(), 0700), 0);
  const int result = withDescriptors(1024, [&] {
    if (setresuid(65534, 65534, 65534) != 0) return 2;
    try {
      walk();
      return 1;
    } catch (const Failure& e) {
      return std::string(e.what()) == "cannot read /root/a/secret: Permission denied" ? 0 : 3;
    }
  });
  EXPECT_EQ(result, 0);
}

TEST_F(WalkHardships, AnExceptionOfTheSinkEndsTheWalk) {
  folder("a/b");
  struct Enough {};
  EXPECT_THROW(walkTree(UniqueFd(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY)), "/root",
                        options, [](const WalkedEntry&) { throw Enough(); }),
               Enough);
}

TEST_F(WalkHardships, AFolderReplacedAfterItWasReportedIsNotEnteredForTheOldOne) {
  folder("a/old");
  folder("b/old");
  Seen seen;
  bool replaced = false;
  seen.counts = walkTree(UniqueFd(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY)), "/root",
                         options, [&](const WalkedEntry& entry) {
                           seen.add(entry);
                           if (entry.parent < 2 || std::exchange(replaced, true)) return;
                           const std::string inA = "a/";
                           const std::string other =
                               seen.folders.at(entry.parent) == inA ? "b" : "a";
                           std::filesystem::rename(temp / other, temp / "gone");
                           folder(other + "/new");
                         });
  EXPECT_TRUE(replaced);
  EXPECT_FALSE(seen.entries.contains("a/new"));
  EXPECT_FALSE(seen.entries.contains("b/new"));
  EXPECT_EQ(seen.counts.lostFolders, 1u);
}

TEST_F(WalkHardships, AFolderMovedAwayDuringItsOwnWalkIsFoundAgain) {
  // Deep enough that the descriptor of "top" is given up before its second sub-folder is due.
  folder("from/top/s0");
  folder("from/top/s1");
  makeDeep(temp / "from/top/s0", 20, 1);
  makeDeep(temp / "from/top/s1", 20, 1);
  options.openFolders = 4;
  bool moved = false;
  int depth = 0;
  const WalkCounts counts = walkTree(UniqueFd(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY)),
                                     "/root", options, [&](const WalkedEntry& entry) {
                                       if (entry.name == "d" && ++depth == 15 && !moved) {
                                         // To where all has been listed, or it would be met twice.
                                         std::filesystem::rename(temp / "from/top", temp / "top");
                                         moved = true;
                                       }
                                     });
  EXPECT_TRUE(moved);
  EXPECT_EQ(counts.entries, 1u + 1 + 1 + 2 + 40 + 40);
  EXPECT_EQ(counts.lostFolders, 0u);
}

TEST_F(WalkHardships, ATreeThatIsBeingRemovedIsWalkedWithoutFailure) {
  for (int i = 0; i < 40; ++i)
    for (int k = 0; k < 40; ++k) {
      folder("f" + std::to_string(i) + "/g" + std::to_string(k % 8));
      temp.write("f" + std::to_string(i) + "/g" + std::to_string(k % 8) + "/x" + std::to_string(k),
                 "");
    }
  std::atomic<bool> started{false};
  std::thread remover([&] {
    started.wait(false);
    std::error_code ignored;
    for (int i = 0; i < 40; ++i)
      std::filesystem::remove_all(temp / ("f" + std::to_string(i)), ignored);
  });
  alarm(60);  // the watchdog: the walk must end
  EXPECT_NO_THROW(walkTree(UniqueFd(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY)), "/root",
                           options, [&](const WalkedEntry& entry) {
                             if (entry.parent != 0 || started.exchange(true)) return;
                             started.notify_one();
                           }));
  remover.join();
  alarm(0);
}

}  // namespace
}  // namespace kddc::test
