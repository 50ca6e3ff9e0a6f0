// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a rescan makes of the rows: those of what differs follow the disk, all others stay as they
// are, to the last column.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <stdexcept>
#include <string>

#include "agent/errors.h"
#include "tests/support/loop_mount.h"
#include "tests/support/rescan_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(RescanTest, WhereNothingDiffersNoRowIsTouched) {
  const auto before = volume.dump();
  EXPECT_EQ(rescan(), "0 0 0 0");
  EXPECT_EQ(volume.dump(), before);
}

TEST_F(RescanTest, ANewFileIsAddedAndItsFolderChanges) {
  volume.file("d/new", "12345");
  rescan();
  expectStampedNow("new");
  expectStampedNow("d");
  for (const char* other : {"a", "b", "e", "c"}) expectUntouched(other);
}

TEST_F(RescanTest, ANewFolderComesWithAllBelowIt) {
  volume.folder("n/m");
  volume.file("n/m/x", "1");
  volume.file("n/y");
  EXPECT_THAT(rescan(), testing::StartsWith("4 "));
  for (const char* name : {"n", "m", "x", "y"}) expectStampedNow(name);
}

TEST_F(RescanTest, WhatIsNewIsStampedNowHoweverOldItIs) {
  volume.file("new");
  const timespec old[2] = {{1111, 0}, {2222, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (volume / "new").c_str(), old, 0), 0);
  rescan();
  expectStampedNow("new");
}

TEST_F(RescanTest, EveryTypeIsTaken) {
  ASSERT_EQ(symlink("wherever", (volume / "symlink").c_str()), 0);
  ASSERT_EQ(mkfifo((volume / "fifo").c_str(), 0600), 0);
  if (geteuid() == 0) {
    ASSERT_EQ(mknod((volume / "chr").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    ASSERT_EQ(mknod((volume / "blk").c_str(), S_IFBLK | 0600, makedev(7, 0)), 0);
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  (volume / "sock").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(fd);
  rescan();
}

TEST_F(RescanTest, ARemovedFileLosesItsRow) {
  volume.remove("d/b");
  EXPECT_THAT(rescan(), HasSubstr(" 0 1"));
  EXPECT_THAT(volume.change("SELECT NAME FROM FILES WHERE NAME='b'"), IsEmpty());
}

TEST_F(RescanTest, ARemovedFolderTakesAllRowsBelowItAlong) {
  volume.remove("d");
  EXPECT_EQ(rescan(), "0 1 0 4") << "the root has changed";
}

TEST_F(RescanTest, AMovedFileKeepsItsRow) {
  const long long row = inode("a");
  volume.rename("a", "d/e/z");
  EXPECT_THAT(rescan(), HasSubstr(" 1 0"));
  EXPECT_EQ(inode("z"), row);
  expectStampedNow("z");
  expectUntouched("c");
}

TEST_F(RescanTest, AMovedFolderKeepsItsRowAndItsContentsTheirs) {
  const long long d = inode("d"), e = inode("e"), b = inode("b"), c = inode("c");
  volume.folder("n");
  volume.rename("d", "n/d2");
  volume.file("n/d2/new");
  rescan();
  EXPECT_EQ(inode("d2"), d);
  EXPECT_EQ(inode("e"), e);
  EXPECT_EQ(inode("b"), b);
  EXPECT_EQ(inode("c"), c);
  for (const char* name : {"d2", "e", "b", "c"}) expectStampedNow(name);  // their paths are new
  expectUntouched("a");
}

TEST_F(RescanTest, FoldersThatChangePlacesKeepTheirRows) {
  const long long d = inode("d"), e = inode("e");
  volume.rename("d/e", "t");
  volume.rename("d", "t/d");
  volume.rename("t", "d");
  volume.rename("d/d", "d/e");
  rescan();
  EXPECT_EQ(volume.number("INODE", "NAME='d'"), e) << "what was inside is outside now";
  EXPECT_EQ(volume.number("INODE", "NAME='e'"), d);
}

TEST_F(RescanTest, FilesThatChangeNamesKeepTheirRows) {
  volume.file("x", "1");
  volume.scan();
  const long long a = inode("a"), x = inode("x");
  volume.rename("a", "t");
  volume.rename("x", "a");
  volume.rename("t", "x");
  rescan();
  EXPECT_EQ(inode("a"), x);
  EXPECT_EQ(inode("x"), a);
}

TEST_F(RescanTest, WhatMovesOutOfARemovedFolderKeepsItsRow) {
  const long long c = inode("c");
  volume.rename("d/e/c", "c2");
  volume.remove("d");
  rescan();
  EXPECT_EQ(inode("c2"), c);
}

TEST_F(RescanTest, AFileReplacedByAnotherOfThatNameGetsANewRow) {
  const long long a = inode("a");
  volume.file("t", "text");
  volume.rename("t", "a");
  EXPECT_THAT(rescan(), testing::AllOf(testing::StartsWith("1 "), testing::EndsWith(" 0 1")));
  EXPECT_NE(inode("a"), a);
}

TEST_F(RescanTest, AnotherTypeAtTheSameNameGetsANewRow) {
  volume.remove("a");
  volume.folder("a/below");
  volume.remove("d");
  volume.file("d");
  rescan();
  EXPECT_EQ(volume.number("FILE_TYPE", "NAME='a'"), 1);
  EXPECT_EQ(volume.number("FILE_TYPE", "NAME='d'"), 0);
}

TEST_F(RescanTest, HardLinksComeAndGoOneByOne) {
  const long long a = inode("a");
  volume.link("a", "d/a2");
  volume.link("a", "d/a3");
  EXPECT_THAT(rescan(), testing::StartsWith("2 "));
  EXPECT_EQ(inode("a"), a);
  for (const char* name : {"a", "a2", "a3"}) {
    EXPECT_EQ(volume.number("NLINK", std::string("NAME='") + name + "'"), 3);
    expectStampedNow(name);
  }
  const long long a3 = inode("a3");
  volume.remove("d/a2");
  EXPECT_THAT(rescan(), testing::EndsWith(" 1"));
  volume.remove("a");
  EXPECT_THAT(rescan(), testing::EndsWith(" 1"));
  EXPECT_EQ(inode("a3"), a3);
  EXPECT_EQ(volume.number("NLINK", "NAME='a3'"), 1);
}

TEST_F(RescanTest, ANameOfSeveralThatMovesLeavesTheOthers) {
  volume.link("a", "a2");
  volume.scan();
  const long long a = inode("a");
  volume.rename("a2", "d/a3");
  rescan();
  EXPECT_EQ(inode("a"), a);
  volume.rename("a", "x");
  volume.rename("d/a3", "y");
  rescan();
}

TEST_F(RescanTest, AttributesFollowTheDisk) {
  ASSERT_EQ(chmod((volume / "a").c_str(), 0400), 0);
  EXPECT_EQ(rescan(), "0 1 0 0");
  expectStampedNow("a");
  volume.file("d/b", "longer");
  rescan();
  expectStampedNow("b");
  if (geteuid() == 0) {
    ASSERT_EQ(lchown((volume / "d/e/c").c_str(), 4000000000U, 17), 0);
    rescan();
    expectStampedNow("c");
  }
  const timespec old[2] = {{1111, 0}, {2222, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, (volume / "d/e").c_str(), old, 0), 0);
  rescan();
  expectStampedNow("e");
}

TEST_F(RescanTest, ATimeOfChangeAloneCountsAsAChangeAndIsStampedNow) {
  volume.change("UPDATE FILES SET CTIME=CTIME-10000 WHERE NAME='a'");
  volume.change("UPDATE FILES SET CTIME=CTIME+10000 WHERE NAME='b'");
  EXPECT_EQ(rescan(), "0 2 0 0");
  expectStampedNow("a");
  expectStampedNow("b");
  expectUntouched("c");
}

TEST_F(RescanTest, LinkCountsFollowTheDisk) {
  rescanAfter("UPDATE FILES SET NLINK=7 WHERE NAME='a'");
  expectStampedNow("a");
  expectUntouched("b");
}

TEST_F(RescanTest, BlocksAndTheTimeOfAccessAreNoReasonToTouchARow) {
  volume.change("UPDATE FILES SET ATIME=5,BLOCKSUSED=77");
  EXPECT_EQ(rescan(), "0 0 0 0");
}

TEST_F(RescanTest, StubsComeAndGo) {
  if (setxattr((volume / "a").c_str(), "user.stub", "1", 1, 0) != 0)
    GTEST_SKIP() << "no user attributes here";
  volume.rescan();
  EXPECT_EQ(volume.number("FILE_TYPE", "NAME='a'"), 8);
  EXPECT_EQ(text(volume.rescan().settled), "0 0 0 0");
  removexattr((volume / "a").c_str(), "user.stub");
  // Twice when the change time is another second by now.
  EXPECT_THAT(rescan(), testing::AnyOf("0 1 0 0", "0 2 0 0"));
  EXPECT_EQ(volume.number("FILE_TYPE", "NAME='a'"), 0);
  volume.file("away");
  setxattr((volume / "away").c_str(), "user.stub", "1", 1, 0);
  volume.rescan();
  EXPECT_EQ(volume.number("FILE_TYPE", "NAME='away'"), 8);
}

TEST_F(RescanTest, NamesMayHoldAnyBytes) {
  volume.file("\xff\xfe", "1");
  volume.file("new\nline");
  volume.file("quote'\"");
  volume.file(std::string(255, 'n'));
  rescan();
  volume.rename("\xff\xfe", "\x01\x80");
  volume.remove("new\nline");
  rescan();
}

TEST_F(RescanTest, OwnFoldersAndWhatIsMountedAreLeftOut) {
  if (const std::string why = LoopMount::whyNot("tmpfs"); !why.empty()) GTEST_SKIP() << why;
  volume.folder("own");
  volume.folder("mounted");
  struct stat st;
  ASSERT_EQ(stat((volume / "own").c_str(), &st), 0);
  volume.options.leaveOut.push_back({st.st_dev, st.st_ino});
  ASSERT_EQ(::mount("none", (volume / "mounted").c_str(), "tmpfs", 0, nullptr), 0);
  volume.file("mounted/x");
  volume.rescan();
  EXPECT_THAT(volume.change("SELECT NAME FROM FILES WHERE NAME IN ('own','mounted','x')"),
              IsEmpty());
  ::umount2((volume / "mounted").c_str(), MNT_DETACH);
}

TEST_F(RescanTest, AFolderThatCannotBeReadLeavesTheCatalogueAsItWas) {
  if (geteuid() == 0) GTEST_SKIP() << "root may read everything";
  volume.file("new");
  chmod((volume / "d").c_str(), 0);
  const auto before = volume.dump();
  EXPECT_THROW(volume.rescan(), Failure);
  EXPECT_EQ(volume.dump(), before);
  chmod((volume / "d").c_str(), 0755);
}

TEST_F(RescanTest, TheReferenceTimeIsTheBeginningOfTheRescan) {
  const std::time_t now = std::time(nullptr);
  rescanQuietly(volume.open(), volume.path(), volume.options, volume.catalogue(), now - 5, {});
  EXPECT_THAT(volume.change("SELECT TIME,GRACEFUL_SHUTDOWN,FULL_SCAN FROM TIME"),
              ElementsAre(std::to_string(now - 605) + "|1|1"));
}

TEST_F(RescanTest, WhatEndsTheWalkLeavesTheCatalogueAsItWas) {
  volume.file("new");
  volume.remove("a");
  const auto before = volume.dump();
  EXPECT_THROW(rescanQuietly(
                   volume.open(), volume.path(), volume.options, volume.catalogue(), 1000,
                   {.progress = [](std::uint64_t) { throw std::domain_error("no"); }, .check = {}}),
               std::domain_error);
  EXPECT_EQ(volume.dump(), before);
  EXPECT_THAT(volume.change("SELECT GRACEFUL_SHUTDOWN FROM TIME"), ElementsAre("1"));
  rescan();
}

TEST_F(RescanTest, NobodyElseMayHaveTheCatalogueOpen) {
  DCSqliteDB other(volume.catalogue());
  ASSERT_TRUE(other.OpenHandle(false, false));
  try {
    volume.rescan();
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_THAT(failure.what(), HasSubstr(" is in use by "));
  }
}

TEST(RescanOnExt4, FindsMovesByIdentifier) {
  if (const std::string why = LoopMount::whyNot("ext4"); !why.empty()) GTEST_SKIP() << why;
  LoopMount mount("ext4");
  ScannedVolume volume(mount.path());
  volume.folder("d/e");
  volume.file("d/e/c", "1");
  volume.scan();
  const long long d = volume.inodeOf("d"), c = volume.inodeOf("c");
  volume.rename("d", "x");
  volume.file("x/new");
  volume.rename("x/e/c", "y");
  volume.rescan();
  volume.expectSame();
  EXPECT_EQ(volume.inodeOf("x"), d);
  EXPECT_EQ(volume.inodeOf("y"), c);
}

TEST(RescanOnOverlay, WorksWithoutFileHandles) {
  if (const std::string why = LoopMount::whyNot("overlay"); !why.empty()) GTEST_SKIP() << why;
  LoopMount mount("overlay");
  ScannedVolume volume(mount.path());
  volume.folder("d");
  volume.file("d/a", "1");
  volume.scan();
  const long long a = volume.inodeOf("a");
  volume.rename("d/a", "b");
  volume.file("c");
  volume.rescan();
  volume.expectSame();
  EXPECT_EQ(volume.inodeOf("b"), a);
}

}  // namespace
}  // namespace kddc::test
