// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/walk.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>

#include "platform/file_handle.h"
#include "tests/support/loop_mount.h"
#include "tests/support/walk_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

TEST_F(WalkTest, EveryEntryIsReportedOnceBelowTheRoot) {
  folder("a/b/c");
  folder("a/empty");
  temp.write("a/one", "1");
  temp.write("a/b/two", "22");
  temp.write("three", "");
  const Seen seen = walk();
  EXPECT_THAT(seen.paths(), UnorderedElementsAre(".", "a", "a/b", "a/b/c", "a/empty", "a/one",
                                                 "a/b/two", "three"));
  EXPECT_EQ(seen.counts.entries, 8u);
  EXPECT_EQ(seen.counts.lostFolders, 0u);
}

TEST_F(WalkTest, TheRootComesFirstUnderTheNameGiven) {
  temp.write("file", "");
  std::vector<std::string> names;
  walkTree(UniqueFd(open(temp.path().c_str(), O_RDONLY | O_DIRECTORY)), "/some/volume", options,
           [&](const WalkedEntry& entry) { names.emplace_back(entry.name); });
  EXPECT_THAT(names, ElementsAre("/some/volume", "file"));
}

TEST_F(WalkTest, AttributesAndIdentifierAreThoseOfTheFile) {
  const std::string path = temp.write("file", "some text");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  const Seen seen = walk();
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  fsf_fid fid{};
  ASSERT_EQ(identify(AT_FDCWD, path.c_str(), fid), 0);
  const Seen::Entry& entry = seen.entries.at("file");
  EXPECT_EQ(entry.st.st_dev, st.st_dev);
  EXPECT_EQ(entry.st.st_ino, st.st_ino);
  EXPECT_EQ(entry.st.st_mode, 0100640u);
  EXPECT_EQ(entry.st.st_nlink, 1u);
  EXPECT_EQ(entry.st.st_uid, st.st_uid);
  EXPECT_EQ(entry.st.st_gid, st.st_gid);
  EXPECT_EQ(entry.st.st_size, 9);
  EXPECT_EQ(entry.st.st_blocks, st.st_blocks);
  EXPECT_EQ(entry.st.st_atime, st.st_atime);
  EXPECT_EQ(entry.st.st_mtime, st.st_mtime);
  EXPECT_EQ(entry.st.st_ctime, st.st_ctime);
  EXPECT_EQ(std::memcmp(entry.fid.data, fid.data, sizeof fid.data), 0);
}

TEST_F(WalkTest, NamesOfAnyBytesComeThroughUnchanged) {
  const std::set<std::string> names = {
      "new\nline", "tab\t",    " ",        "-0",      "\"quoted\\'",
      "\xff\xfe",  "\xc3\x28", "\x1b[31m", "..three", std::string(255, 'x')};
  for (const std::string& name : names) temp.write(name, "");
  std::set<std::string> seen;
  for (const std::string& path : walk().paths()) seen.insert(path);
  seen.erase(".");
  EXPECT_EQ(seen, names);
}

TEST_F(WalkTest, EveryByteThatANameMayHoldComesThrough) {
  std::set<std::string> names;
  for (int byte = 1; byte < 256; ++byte)
    if (byte != '/' && byte != '.') names.insert(std::string(1, static_cast<char>(byte)));
  for (const std::string& name : names) temp.write(name, "");
  std::set<std::string> seen;
  for (const std::string& path : walk().paths()) seen.insert(path);
  seen.erase(".");
  EXPECT_EQ(seen, names);
}

TEST_F(WalkTest, HardLinksAreReportedUnderEachNameWithOneIdentifier) {
  const std::string path = temp.write("a", "");
  folder("sub");
  ASSERT_EQ(::link(path.c_str(), (temp / "sub/b").c_str()), 0);
  const Seen seen = walk();
  const fsf_fid& a = seen.entries.at("a").fid;
  const fsf_fid& b = seen.entries.at("sub/b").fid;
  EXPECT_EQ(std::memcmp(a.data, b.data, sizeof a.data), 0);
  EXPECT_EQ(seen.entries.at("a").st.st_nlink, 2u);
}

TEST_F(WalkTest, SpecialFilesAreReportedAndNeverOpened) {
  ASSERT_EQ(mkfifo((temp / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(symlink("/etc", (temp / "link").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", (temp / "dangling").c_str()), 0);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (temp / "socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(fd);
  const Seen seen = walk();
  EXPECT_TRUE(S_ISFIFO(seen.entries.at("fifo").st.st_mode));
  EXPECT_TRUE(S_ISLNK(seen.entries.at("link").st.st_mode));
  EXPECT_TRUE(S_ISLNK(seen.entries.at("dangling").st.st_mode));
  EXPECT_TRUE(S_ISSOCK(seen.entries.at("socket").st.st_mode));
  EXPECT_EQ(seen.counts.entries, 5u);
}

TEST_F(WalkTest, DevicesAreReportedAndNeverOpened) {
  // No driver has these numbers, so opening one would fail.
  if (mknod((temp / "char").c_str(), S_IFCHR | 0600, makedev(240, 17)) != 0)
    GTEST_SKIP() << "making devices needs CAP_MKNOD";
  ASSERT_EQ(mknod((temp / "block").c_str(), S_IFBLK | 0600, makedev(240, 18)), 0);
  const Seen seen = walk();
  EXPECT_TRUE(S_ISCHR(seen.entries.at("char").st.st_mode));
  EXPECT_TRUE(S_ISBLK(seen.entries.at("block").st.st_mode));
}

TEST_F(WalkTest, OnlyRegularFilesThatCarryTheAttributeAreStubs) {
  const std::string stub = temp.write("stub", "");
  temp.write("plain", "");
  folder("folder");
  if (setxattr(stub.c_str(), "user.stub", "1", 1, 0) != 0)
    GTEST_SKIP() << "no extended attributes in the temporary folder";
  ASSERT_EQ(setxattr((temp / "folder").c_str(), "user.stub", "1", 1, 0), 0);
  const Seen seen = walk();
  EXPECT_TRUE(seen.entries.at("stub").isStub);
  EXPECT_FALSE(seen.entries.at("plain").isStub);
  EXPECT_FALSE(seen.entries.at("folder").isStub);
}

TEST_F(WalkTest, AFolderToBeLeftOutIsNeitherReportedNorEntered) {
  folder("own/below");
  folder("other");
  temp.write("own/file", "");
  struct stat st;
  ASSERT_EQ(stat((temp / "own").c_str(), &st), 0);
  options.leaveOut = {{st.st_dev, st.st_ino}};
  EXPECT_THAT(walk().paths(), UnorderedElementsAre(".", "other"));
}

TEST_F(WalkTest, WhatIsMountedBelowIsLeftOut) {
  if (const std::string why = LoopMount::whyNot("tmpfs"); !why.empty()) GTEST_SKIP() << why;
  folder("mounted");
  folder("bound");
  folder("plain/inside");
  temp.write("bound-file", "");
  ASSERT_EQ(mount("none", (temp / "mounted").c_str(), "tmpfs", 0, nullptr), 0);
  temp.write("mounted/file", "");
  // The same device, but the same folder a second time.
  ASSERT_EQ(mount((temp / "plain").c_str(), (temp / "bound").c_str(), nullptr, MS_BIND, nullptr),
            0);
  const Seen seen = walk();
  umount((temp / "mounted").c_str());
  umount((temp / "bound").c_str());
  EXPECT_THAT(seen.paths(), UnorderedElementsAre(".", "plain", "plain/inside", "bound-file"));
  EXPECT_EQ(seen.counts.mountsLeftOut, 2u);
}

TEST_F(WalkTest, ThroughAMountOfItsOwnTheSameIsLeftOutAndUnmountingDoesNotEndIt) {
  if (const std::string why = LoopMount::whyNot("ext4"); !why.empty()) GTEST_SKIP() << why;
  LoopMount volume("ext4");
  std::filesystem::create_directories(volume / "a/mounted/hidden");
  std::filesystem::create_directories(volume / "b/mounted");
  std::ofstream(volume / "file");
  std::ofstream(volume / "bound");
  ASSERT_EQ(mount("none", (volume / "a/mounted").c_str(), "tmpfs", 0, nullptr), 0);
  ASSERT_EQ(mount("/dev/null", (volume / "bound").c_str(), nullptr, MS_BIND, nullptr), 0);
  const Seen visible = walk(volume.path());

  const DetachedFolder root(volume.path());
  options.covered = root.covered().value();
  umount((volume / "a/mounted").c_str());
  umount((volume / "bound").c_str());
  bool isFirst = true;
  Seen seen;
  seen.counts = walkTree(root.open(), "/root", options, [&](const WalkedEntry& entry) {
    if (std::exchange(isFirst, false)) volume.unmount();
    seen.add(entry);
  });
  EXPECT_THAT(seen.paths(), UnorderedElementsAre(".", "a", "b", "b/mounted", "file", "lost+found"));
  EXPECT_EQ(seen.paths(), visible.paths());
  EXPECT_EQ(seen.counts.mountsLeftOut, 2u);
}

TEST_F(WalkTest, AFileSystemWithoutUsableHandlesIsWalkedWithIdentifiersMadeOfInodes) {
  if (const std::string why = LoopMount::whyNot("overlay"); !why.empty()) GTEST_SKIP() << why;
  LoopMount volume("overlay");
  std::filesystem::create_directories(volume / "a/b");
  std::ofstream(volume / "a/file") << "text";
  const Seen seen = walk(volume.path());
  EXPECT_THAT(seen.paths(), UnorderedElementsAre(".", "a", "a/b", "a/file"));
  fsf_fid fid{};
  if (identify(AT_FDCWD, (volume / "a/file").c_str(), fid) == -EOVERFLOW) {
    EXPECT_EQ(seen.entries.at("a/file").fid.data[0], 0xff);
    EXPECT_EQ(seen.entries.at("a/file").fid.data[1], 8);
  }
}

}  // namespace
}  // namespace kddc::test
