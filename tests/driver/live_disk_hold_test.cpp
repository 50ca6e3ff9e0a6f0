// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the disk holds open and lets go of: unmounts, mounts on top, and descriptors that run out.
// On which file systems, live_disk_looks_test.cpp says.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "tests/driver/live_disk_fixture.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

std::size_t openDescriptors() {
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

// Whether nobody uses a device: as mkfs would, asks for it alone.
bool isFree(const std::string& device) {
  return static_cast<bool>(UniqueFd(open(device.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC)));
}

TEST_P(LiveDiskTest, WhatIsMountedBelowIsAbsent) {
  const fsf_fid hidden = fidAt(folder("d/hidden")), file = fidAt(write("d/hidden/file"));
  folder("bound");
  write("f");
  const fsf_fid plain = fidAt(path("f"));
  LiveDisk disk = this->disk();
  ASSERT_EQ(::mount("none", path("d").c_str(), "tmpfs", 0, ""), 0);
  ASSERT_EQ(::mount(mount->path().c_str(), path("bound").c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount("/dev/null", path("f").c_str(), nullptr, MS_BIND, nullptr), 0);
  for (const char* name : {"d", "bound", "f"})
    EXPECT_EQ(disk.lookUp(root(), name).sight, Sight::kAbsent) << name;
  for (const fsf_fid& fid : {hidden, file, plain})
    EXPECT_EQ(disk.whereabouts(fid), Whereabouts::kOutside);
  for (const char* name : {"d", "bound", "f"}) umount2(path(name).c_str(), 0);
  disk.forget();
  for (const char* name : {"d", "bound", "f"})
    EXPECT_EQ(disk.lookUp(root(), name).sight, Sight::kThere) << name;
  for (const fsf_fid& fid : {hidden, file, plain})
    EXPECT_EQ(disk.whereabouts(fid), Whereabouts::kInside);
}

TEST_P(LiveDiskTest, OfAFileWithTwoNamesOneMountHidesOne) {
  write("a");
  ASSERT_EQ(link(path("a").c_str(), path("b").c_str()), 0);
  ASSERT_EQ(::mount("/dev/null", path("a").c_str(), nullptr, MS_BIND, nullptr), 0);
  LiveDisk disk = this->disk();
  EXPECT_EQ(disk.lookUp(root(), "a").sight, Sight::kAbsent);
  EXPECT_EQ(disk.lookUp(root(), "b").sight, Sight::kThere);
  umount2(path("a").c_str(), 0);
}

TEST_P(LiveDiskTest, AVolumeCanBeUnmountedAtOnceAndItsDeviceIsFreeWhenThatShows) {
  const fsf_fid d = fidAt(folder("d")), f = fidAt(write("d/f", "12345"));
  LiveDisk disk = this->disk();
  ASSERT_EQ(disk.lookUp(d, "f").sight, Sight::kThere);  // leaves the folder open
  const std::string device = mount->loopDevice();
  mount->unmount();
  EXPECT_EQ(disk.lookAt(f).st.st_size, 5);  // of the same batch
  EXPECT_TRUE(device.empty() || !isFree(device));
  disk.forget();
  expectUnknown(disk, d, f);
  EXPECT_FALSE(disk.isHeld());
  EXPECT_TRUE(device.empty() || isFree(device));
}

TEST_P(LiveDiskTest, WhatWasLetGoOfIsUnmountedForGoodAtOnce) {
  const fsf_fid d = fidAt(folder("d")), f = fidAt(write("d/f", "12345"));
  LiveDisk disk = this->disk();
  ASSERT_EQ(disk.lookUp(d, "f").sight, Sight::kThere);
  disk.letGo();
  EXPECT_FALSE(disk.isHeld());
  ASSERT_EQ(disk.lookUp(d, "f").sight, Sight::kThere);
  EXPECT_TRUE(disk.isHeld());
  disk.letGo();
  const std::string device = mount->loopDevice();
  mount->unmount();
  EXPECT_TRUE(device.empty() || isFree(device));
  expectUnknown(disk, d, f);
}

TEST_P(LiveDiskTest, AnotherFileSystemAtTheSamePlaceIsNotLookedAt) {
  const fsf_fid d = fidAt(folder("d")), f = fidAt(write("d/f", "12345"));
  LiveDisk disk = this->disk();
  disk.letGo();
  LoopMount other(type() == "ext4" ? "tmpfs" : "ext4");
  ASSERT_EQ(::mount(other.path().c_str(), mount->path().c_str(), nullptr, MS_BIND, nullptr), 0);
  expectUnknown(disk, d, f);
  ASSERT_EQ(umount2(mount->path().c_str(), 0), 0);
  EXPECT_EQ(disk.lookUp(d, "f").sight, Sight::kThere);
  disk.forget();
  ASSERT_EQ(::mount(other.path().c_str(), mount->path().c_str(), nullptr, MS_BIND, nullptr), 0);
  expectUnknown(disk, d, f);
  ASSERT_EQ(umount2(mount->path().c_str(), 0), 0);
}

TEST_P(LiveDiskAnywhere, OneFolderStaysOpenUntilItIsForgotten) {
  folder("d");
  folder("e");
  write("d/f");
  LiveDisk disk = this->disk();
  const std::size_t before = openDescriptors();
  const fsf_fid d = fidAt(path("d")), e = fidAt(path("e")), f = fidAt(path("d/f"));
  for (int i = 0; i < 50; ++i) {
    disk.lookUp(d, "f");
    disk.lookUp(d, "none");
    disk.lookUp(e, "none");
    disk.lookAt(f);
    disk.whereabouts(f);
    std::vector<std::string> names;
    disk.list(d)->read(names);
  }
  EXPECT_EQ(openDescriptors(), before + 1);
  disk.forget();
  EXPECT_EQ(openDescriptors(), before);
}

// As long as it lives, no descriptor is left.
class NoDescriptors {
 public:
  NoDescriptors() {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &saved_), 0);
    // Descriptors are numbered from the lowest that is free.
    const rlimit none{static_cast<rlim_t>(UniqueFd(dup(0)).get()), saved_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  ~NoDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &saved_), 0); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit saved_{};
};

TEST_P(LiveDiskAnywhere, WithoutDescriptorsLeftNothingIsTakenForAbsent) {
#ifdef KDDC_ADDRESS_SANITIZER
  GTEST_SKIP() << "the sanitizer needs descriptors to look at an object with virtual functions";
#endif
  const fsf_fid f = fidAt(write("f"));
  const fsf_fid top = root();
  LiveDisk disk = this->disk();
  std::optional<NoDescriptors> none(std::in_place);
  const Look byName = disk.lookUp(top, "f"), byFid = disk.lookAt(f);
  const Whereabouts where = disk.whereabouts(f);
  none.reset();
  EXPECT_EQ(byName.sight, Sight::kUnknown);
  EXPECT_EQ(byName.error, EMFILE);
  EXPECT_EQ(byFid.sight, Sight::kUnknown);
  EXPECT_EQ(where, Whereabouts::kUnknown);
}

TEST_P(LiveDiskAnywhere, WithoutDescriptorsLeftAFolderIsNotTakenForEmpty) {
#ifdef KDDC_ADDRESS_SANITIZER
  GTEST_SKIP() << "the sanitizer needs descriptors to look at an object with virtual functions";
#endif
  const fsf_fid top = root();
  LiveDisk disk = this->disk();
  std::optional<NoDescriptors> none(std::in_place);
  const auto listing = disk.list(top);
  none.reset();
  std::vector<std::string> names;
  EXPECT_EQ(listing->read(names), -EMFILE);
}

}  // namespace
}  // namespace kddc::test
