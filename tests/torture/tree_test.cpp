// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "tests/torture/tree.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "tests/support/loop_mount.h"
#include "tests/support/temp_folder.h"

namespace kddc::torture {
namespace {

using test::LoopMount;
using test::TempFolder;
using testing::ElementsAre;

// What `find -printf FORMAT` says of each entry, by path.
std::map<std::string, std::string> found(const std::string& root, const std::string& format) {
  const std::string command = "find " + root + " -printf '%P\\0" + format + "\\0'";
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string all;
  for (int c = 0; (c = std::fgetc(pipe.get())) != EOF;) all += static_cast<char>(c);
  std::map<std::string, std::string> entries;
  for (std::size_t at = 0; at < all.size();) {
    const std::string path = all.c_str() + at;
    const std::string facts = all.c_str() + at + path.size() + 1;
    entries[path.empty() ? "." : path] = facts;
    at += path.size() + facts.size() + 2;
  }
  return entries;
}

std::vector<std::string> pathsOf(const Tree& tree) {
  std::vector<std::string> paths;
  for (const auto& [path, facts] : tree) paths.push_back(path);
  return paths;
}

TEST(TreeWalk, AgreesWithFindOnWhateverBytesNamesHold) {
  const TempFolder temp;
  for (const std::string name :
       {"line\nbreak", "-rf", "it's", "\"", "\xff\xfe", "\x01", " ", "...", "a\\b"})
    temp.write(name, name);
  temp.write(std::string(255, 'x'), "");
  std::filesystem::create_directory(temp / "folder");
  std::filesystem::create_symlink("of 12 bytes.", temp / "folder/link");
  std::filesystem::create_hard_link(temp / "it's", temp / "folder/\xc3\xa9");
  ASSERT_EQ(mkfifo((temp / "folder/fifo").c_str(), 0600), 0);
  std::map<std::string, std::string> walked;
  for (const auto& [path, facts] : TreeWalk::of(temp.path())) {
    char text[100];
    std::snprintf(text, sizeof text, "%c %o %u %u %u %ld", "fdlcbps"[facts.type],
                  facts.mode & 07777, facts.uid, facts.gid, facts.nlink,
                  static_cast<long>(facts.size));
    walked[path] = text;
  }
  EXPECT_EQ(walked.size(), 15u);
  EXPECT_EQ(walked, found(temp.path(), "%y %m %U %G %n %s"));
}

TEST(TreeWalk, AnIdentifierIsTheKernelsHandleBehindItsTypeAndLength) {
  if (const std::string why = LoopMount::whyNot("ext4"); !why.empty()) GTEST_SKIP() << why;
  const LoopMount volume("ext4");
  // The root of an ext4 is inode 2 of generation 0.
  EXPECT_EQ(TreeWalk::of(volume.path()).at(".").fid,
            "010800000200000000000000000000000000000000000000");
}

TEST(TreeWalk, TimesKeepTheirLow32Bits) {
  const TempFolder temp;
  temp.write("old", "");
  const timespec times[2] = {{-2, 0}, {-2, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (temp / "old").c_str(), times, 0), 0);
  EXPECT_EQ(TreeWalk::of(temp.path()).at("old").mtime, 4294967294u);
}

TEST(TreeWalk, LeavesOutTheFoldersNamedAndWhatIsMounted) {
  if (const std::string why = LoopMount::whyNot("tmpfs"); !why.empty()) GTEST_SKIP() << why;
  const LoopMount volume("tmpfs");
  for (const char* name : {"a", "b", "b/c", "mounted"})
    std::filesystem::create_directory(volume / name);
  ASSERT_EQ(::mount("none", (volume / "mounted").c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_THAT(pathsOf(TreeWalk::of(volume.path(), {volume / "b"})), ElementsAre(".", "a"));
  ASSERT_EQ(::umount2((volume / "mounted").c_str(), 0), 0);
  EXPECT_THAT(pathsOf(TreeWalk::of(volume.path(), {volume / "b/c", volume / "gone"})),
              ElementsAre(".", "a", "b", "mounted"));
}

TEST(TreeWalk, GoesDeeperThanAPathReaches) {
  const TempFolder temp;
  const std::string name(250, 'd');
  UniqueFd at(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int depth = 0; depth < 40; ++depth) {
    ASSERT_EQ(mkdirat(at.get(), name.c_str(), 0700), 0);
    at.reset(openat(at.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  EXPECT_EQ(TreeWalk::of(temp.path()).size(), 41u);
}

}  // namespace
}  // namespace kddc::torture
