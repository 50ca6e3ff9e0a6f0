// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the disk says of names, files and folders, and of what lies inside the volume.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/file_handle.h"
#include "platform/unique_fd.h"
#include "records/fsf_fid.h"
#include "tests/driver/live_disk_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

// Of live_disk_hold_test.cpp too: a suite is instantiated once.
std::string typeOnDisk(const testing::TestParamInfo<const char*>& info) {
  return info.param;
}
INSTANTIATE_TEST_SUITE_P(On, LiveDiskTest, testing::Values("ext4", "xfs", "btrfs", "tmpfs"),
                         typeOnDisk);
INSTANTIATE_TEST_SUITE_P(On, LiveDiskAnywhere, testing::Values("tmpfs"), typeOnDisk);

TEST_P(LiveDiskTest, FindsANameWithAllThatIsKnownOfItsFile) {
  ASSERT_EQ(chmod(write("a", "12345").c_str(), 0640), 0);
  const Look look = disk().lookUp(root(), "a");
  struct stat st {};
  ASSERT_EQ(stat(path("a").c_str(), &st), 0);
  ASSERT_EQ(look.sight, Sight::kThere);
  EXPECT_EQ(look.fid, fidAt(path("a")));
  EXPECT_EQ(look.st.st_mode, 0100640u);
  EXPECT_EQ(look.st.st_size, 5);
  EXPECT_EQ(look.st.st_ino, st.st_ino);
  EXPECT_EQ(look.st.st_nlink, 1u);
  EXPECT_EQ(look.st.st_ctim.tv_sec, st.st_ctim.tv_sec);
  EXPECT_EQ(look.st.st_ctim.tv_nsec, st.st_ctim.tv_nsec);
  EXPECT_FALSE(look.isStub);
}

TEST_P(LiveDiskTest, LooksAtAFileByItsIdentifierWhereverItIs) {
  const fsf_fid fid = fidAt(write("a", "12345"));
  LiveDisk disk = this->disk();
  folder("d");
  fs::rename(path("a"), path("d/b"));
  const Look look = disk.lookAt(fid);
  ASSERT_EQ(look.sight, Sight::kThere);
  EXPECT_EQ(look.fid, fid);
  EXPECT_EQ(look.st.st_size, 5);
}

TEST_P(LiveDiskTest, AmongManyNamesThatAreNotThereFindsThoseThatAre) {
  write("d-there");
  const fsf_fid d = fidAt(folder("d"));
  for (int i = 0; i < 3000; i += 3) write("d/" + std::to_string(i));
  LiveDisk disk = this->disk();
  for (int i = 0; i < 3000; ++i)
    EXPECT_EQ(disk.lookUp(d, std::to_string(i)).sight, i % 3 == 0 ? Sight::kThere : Sight::kAbsent);
  EXPECT_EQ(disk.lookUp(root(), "d-there").sight, Sight::kThere);
}

TEST_P(LiveDiskTest, WhatIsNewInAFolderThatWasBusyIsFoundInTheNextBatch) {
  const fsf_fid d = fidAt(folder("d"));
  LiveDisk disk = this->disk();
  for (int i = 0; i < 100; ++i) disk.lookUp(d, std::to_string(i));
  write("d/50");
  disk.forget();
  EXPECT_EQ(disk.lookUp(d, "50").sight, Sight::kThere);
  EXPECT_EQ(disk.lookUp(d, "51").sight, Sight::kAbsent);
}

TEST_P(LiveDiskAnywhere, AFolderTooLargeToBeListedForABatchIsLookedUpInNameByName) {
  const fsf_fid d = fidAt(folder("d"));
  for (int i = 0; i < 10000; ++i) write("d/" + std::to_string(i));
  LiveDisk disk = this->disk();
  for (int i = 0; i < 100; ++i)
    EXPECT_EQ(disk.lookUp(d, "no" + std::to_string(i)).sight, Sight::kAbsent);
  for (int i = 0; i < 10000; i += 99)
    EXPECT_EQ(disk.lookUp(d, std::to_string(i)).sight, Sight::kThere) << i;
}

TEST_P(LiveDiskTest, AFileThatIsGoneIsAbsent) {
  const fsf_fid fid = fidAt(write("a"));
  const fsf_fid folderFid = fidAt(folder("d"));
  LiveDisk disk = this->disk();
  fs::remove(path("a"));
  fs::remove(path("d"));
  EXPECT_EQ(disk.lookAt(fid).sight, Sight::kAbsent);
  EXPECT_EQ(disk.lookAt(folderFid).sight, Sight::kAbsent);
  EXPECT_EQ(disk.lookUp(root(), "a").sight, Sight::kAbsent);
  EXPECT_EQ(disk.lookUp(folderFid, "x").sight, Sight::kAbsent);
  EXPECT_EQ(disk.whereabouts(fid), Whereabouts::kGone);
}

TEST_P(LiveDiskTest, AFileThatIsOpenWithoutANameIsAbsentOrHasNoLinks) {
  const fsf_fid fid = fidAt(write("a"));
  const UniqueFd held(open(path("a").c_str(), O_RDONLY));
  fs::remove(path("a"));
  const Look look = disk().lookAt(fid);
  EXPECT_TRUE(look.sight == Sight::kAbsent || look.st.st_nlink == 0);
}

TEST_P(LiveDiskTest, AFolderThatIsOpenWithoutANameIsAbsentOrHasNoLinks) {
  const fsf_fid fid = fidAt(folder("d"));
  const UniqueFd held(open(path("d").c_str(), O_RDONLY));
  fs::remove(path("d"));
  const Look look = disk().lookAt(fid);
  EXPECT_TRUE(look.sight == Sight::kAbsent || look.st.st_nlink == 0);
}

TEST_P(LiveDiskTest, ReadsTheTextOfASymbolicLinkAndNeverFollowsIt) {
  const std::string text(4000, 't');
  LiveDisk disk = this->disk();
  fs::create_symlink("a", path("s"));
  write("a");
  const Look look = disk.lookUp(root(), "s");
  EXPECT_EQ(look.linkText, "a");
  EXPECT_TRUE(S_ISLNK(look.st.st_mode));
  EXPECT_EQ(disk.lookAt(look.fid).linkText, "a");
  if (type() != "xfs" && symlink(text.c_str(), path("long").c_str()) == 0) {
    EXPECT_EQ(disk.lookUp(root(), "long").linkText, text);
  }
}

TEST_P(LiveDiskTest, KnowsAStub) {
  if (setxattr(write("a").c_str(), "trusted.stub", "", 0, 0) != 0)
    GTEST_SKIP() << "no trusted attributes on " << type();
  LiveDisk disk = this->disk();
  EXPECT_TRUE(disk.lookUp(root(), "a").isStub);
  EXPECT_TRUE(disk.lookAt(fidAt(path("a"))).isStub);
}

TEST_P(LiveDiskTest, TellsInsideFromOutside) {
  folder("volume/own");
  folder("outside");
  LiveDisk disk = this->disk("volume", {fidAt(path("volume/own"))});
  EXPECT_EQ(disk.whereabouts(fidAt(path("volume"))), Whereabouts::kInside);
  EXPECT_EQ(disk.whereabouts(fidAt(folder("volume/d/e"))), Whereabouts::kInside);
  EXPECT_EQ(disk.whereabouts(fidAt(write("volume/d/f"))), Whereabouts::kInside);
  EXPECT_EQ(disk.whereabouts(fidAt(write("volume/f"))), Whereabouts::kInside);
  EXPECT_EQ(disk.whereabouts(root()), Whereabouts::kOutside);
  EXPECT_EQ(disk.whereabouts(fidAt(path("outside"))), Whereabouts::kOutside);
  EXPECT_EQ(disk.whereabouts(fidAt(write("outside/f"))), Whereabouts::kOutside);
  EXPECT_EQ(disk.whereabouts(fidAt(write("f"))), Whereabouts::kOutside);
  EXPECT_EQ(disk.whereabouts(fidAt(write("volume/own/f"))), Whereabouts::kOutside);
  EXPECT_EQ(disk.whereabouts(fidAt(folder("volume/own/d"))), Whereabouts::kOutside);
}

TEST_P(LiveDiskTest, WhatLiesInAnotherVolumeIsOutsideOfTheOneThatIsNamed) {
  const fsf_fid one = fidAt(folder("volume")), other = fidAt(folder("volume/inner"));
  LiveDisk disk = this->disk("volume");
  const fsf_fid file = fidAt(write("volume/f")), inner = fidAt(write("volume/inner/f"));
  EXPECT_EQ(disk.whereabouts(file, &one), Whereabouts::kInside);
  EXPECT_EQ(disk.whereabouts(file, &other), Whereabouts::kOutside);
  EXPECT_EQ(disk.whereabouts(inner, &one), Whereabouts::kInside);
  EXPECT_EQ(disk.whereabouts(inner, &other), Whereabouts::kInside);
}

TEST_P(LiveDiskTest, ListsEveryNameOnce) {
  folder("d");
  std::set<std::string> expected;
  for (int i = 0; i < 3000; ++i) {
    write("d/file number " + std::to_string(i));
    expected.insert("file number " + std::to_string(i));
  }
  LiveDisk disk = this->disk();
  const auto listing = disk.list(fidAt(path("d")));
  std::vector<std::string> all, some;
  int reads = 0;
  while (listing->read(some) > 0) {
    EXPECT_LE(some.size(), 1000u);
    all.insert(all.end(), some.begin(), some.end());
    ++reads;
  }
  EXPECT_GT(reads, 3);
  EXPECT_EQ(all.size(), expected.size());
  EXPECT_EQ(std::set<std::string>(all.begin(), all.end()), expected);
}

TEST_P(LiveDiskAnywhere, ListingWhatIsGoneOrIsNoFolderGivesNoNames) {
  const fsf_fid gone = fidAt(folder("d")), file = fidAt(write("f"));
  fs::create_symlink("/", path("s"));
  LiveDisk disk = this->disk();
  fs::remove(path("d"));
  std::vector<std::string> names = {"left over"};
  for (const fsf_fid& fid : {gone, file, fidAt(path("s")), fsf_fid{}}) {
    EXPECT_EQ(disk.list(fid)->read(names), 0);
    EXPECT_THAT(names, testing::IsEmpty());
  }
}

TEST_P(LiveDiskAnywhere, AFileIsNoFolderToLookIn) {
  EXPECT_EQ(disk().lookUp(fidAt(write("f")), "x").sight, Sight::kAbsent);
}

TEST_P(LiveDiskAnywhere, BytesThatAreNoIdentifierStandForNoFile) {
  LiveDisk disk = this->disk();
  fsf_fid hostile{};
  for (unsigned char& byte : hostile.data) byte = 0xff;
  for (const fsf_fid& fid : {fsf_fid{}, hostile}) {
    EXPECT_EQ(disk.lookAt(fid).sight, Sight::kAbsent);
    EXPECT_EQ(disk.lookUp(fid, "x").sight, Sight::kAbsent);
    EXPECT_EQ(disk.whereabouts(fid), Whereabouts::kGone);
  }
}

// File systems pass over what they do not need of a handle, and open the file all the same.
TEST_P(LiveDiskTest, AnIdentifierOfWhichAByteIsAnotherStandsForNoFile) {
  const fsf_fid fid = fidAt(write("a"));
  LiveDisk disk = this->disk();
  ASSERT_EQ(disk.lookAt(fid).sight, Sight::kThere);
  for (std::size_t at = 0; at < sizeof fid.data; ++at) {
    fsf_fid other = fid;
    other.data[at] ^= 1;
    EXPECT_EQ(disk.lookAt(other).sight, Sight::kAbsent) << "byte " << at;
  }
}

TEST_P(LiveDiskAnywhere, AFifoIsLookedAtWithoutWaitingForItsOtherEnd) {
  ASSERT_EQ(mkfifo(path("p").c_str(), 0600), 0);
  LiveDisk disk = this->disk();
  alarm(20);
  EXPECT_TRUE(S_ISFIFO(disk.lookUp(root(), "p").st.st_mode));
  EXPECT_TRUE(S_ISFIFO(disk.lookAt(fidAt(path("p"))).st.st_mode));
  alarm(0);
}

TEST_P(LiveDiskAnywhere, NamesOfAnyByteAreFound) {
  std::string name;
  for (int byte = 1; byte < 256; ++byte) name += static_cast<char>(byte == '/' ? 'x' : byte);
  write(name);
  EXPECT_EQ(disk().lookUp(root(), name).sight, Sight::kThere);
}

TEST_P(LiveDiskTest, VolumesSideBySideAreEachSeenWhole) {
  folder("one");
  folder("two");
  LiveDiskOptions options;
  options.roots = {path("one"), path("two")};
  options.stubAttribute = "trusted.stub";
  LiveDisk disk(std::move(options));
  const fsf_fid one = fidAt(path("one")), two = fidAt(path("two"));
  for (const fsf_fid& fid :
       {fidAt(folder("two/d")), fidAt(write("two/d/f")), fidAt(write("two/f"))}) {
    EXPECT_EQ(disk.whereabouts(fid), Whereabouts::kInside);
    EXPECT_EQ(disk.whereabouts(fid, &two), Whereabouts::kInside);
    EXPECT_EQ(disk.whereabouts(fid, &one), Whereabouts::kOutside);
  }
  EXPECT_EQ(disk.lookUp(fidAt(path("two/d")), "f").sight, Sight::kThere);
  for (const fsf_fid& fid : {fidAt(folder("d")), fidAt(write("d/f")), fidAt(write("f"))})
    EXPECT_EQ(disk.whereabouts(fid), Whereabouts::kOutside);
}

// The path that the kernel tells of a file outside may, by chance, be that of a folder inside.
TEST_P(LiveDiskTest, AFolderOutsideIsNotTakenForOneOfTheSameNameInside) {
  folder("volume/volume/d");
  folder("volume/d");
  folder("d");
  LiveDisk disk = this->disk("volume");
  EXPECT_EQ(disk.whereabouts(fidAt(write("d/f"))), Whereabouts::kOutside);
  EXPECT_EQ(disk.whereabouts(fidAt(write("volume/d/f"))), Whereabouts::kInside);
  EXPECT_EQ(disk.whereabouts(fidAt(write("volume/volume/d/f"))), Whereabouts::kInside);
}

TEST_P(LiveDiskAnywhere, WhatIsLeftOutIsAbsent) {
  folder("own");
  LiveDisk disk = this->disk("", {fidAt(path("own"))});
  EXPECT_EQ(disk.lookUp(root(), "own").sight, Sight::kAbsent);
  EXPECT_EQ(disk.lookAt(fidAt(path("own"))).sight, Sight::kAbsent);
}

TEST_P(LiveDiskAnywhere, InsideIsToldAtAnyDepth) {
  UniqueFd at(open(mount->path().c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < 1200; ++i) {
    ASSERT_EQ(mkdirat(at.get(), "1234567", 0755), 0);
    at.reset(openat(at.get(), "1234567", O_RDONLY | O_DIRECTORY));
  }
  fsf_fid fid{};
  ASSERT_EQ(identify(at.get(), fid), 0);
  EXPECT_EQ(disk().whereabouts(fid), Whereabouts::kInside);
}

TEST_P(LiveDiskAnywhere, VolumesMustLieOnOneFileSystem) {
  LiveDiskOptions options;
  options.roots = {mount->path(), "/proc"};
  EXPECT_THROW(LiveDisk{std::move(options)}, std::invalid_argument);
}

}  // namespace
}  // namespace kddc::test
