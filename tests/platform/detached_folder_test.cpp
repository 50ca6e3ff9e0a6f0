// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Folders that are held open, and what happens to the mounts around them.
#include "platform/detached_folder.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "platform/file_handle.h"
#include "platform/mount_changes.h"
#include "records/fsf_fid.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

struct Detached : testing::TestWithParam<const char*> {
  std::optional<LoopMount> mount;

  void SetUp() override {
    if (const std::string why = LoopMount::whyNot(GetParam()); !why.empty()) GTEST_SKIP() << why;
    mount.emplace(GetParam());
    for (const char* name : {"a/b", "c", "link"})
      std::filesystem::create_directories(*mount / name);
  }
  void cover(const std::string& name, const char* type = "tmpfs") const {
    ASSERT_EQ(::mount("none", (*mount / name).c_str(), type, 0, nullptr), 0) << name;
  }
  void uncover(const std::string& name) const {
    ASSERT_EQ(::umount2((*mount / name).c_str(), 0), 0) << name;
  }
  static std::vector<std::string> namesOf(const DetachedFolder& folder) {
    std::vector<std::string> names;
    const auto places = folder.covered();
    for (const CoveredPlace& place : places.value()) names.push_back(place.name);
    return names;
  }
};
using DetachedAnywhere = Detached;

std::string typeOf(const testing::TestParamInfo<const char*>& info) {
  return info.param;
}
INSTANTIATE_TEST_SUITE_P(On, Detached, testing::Values("ext4", "xfs", "btrfs", "tmpfs"), typeOf);
INSTANTIATE_TEST_SUITE_P(On, DetachedAnywhere, testing::Values("tmpfs"), typeOf);

TEST_P(Detached, OutlivesTheVisibleMountWhichGoesAtOnce) {
  const DetachedFolder whole(mount->path()), part(*mount / "a");
  mount->unmount();
  EXPECT_EQ(faccessat(whole.fd(), "a/b", F_OK, 0), 0);
  EXPECT_EQ(faccessat(part.fd(), "b", F_OK, 0), 0);
  EXPECT_FALSE(std::filesystem::exists(*mount / "a"));
}

TEST_P(Detached, OpensFilesByTheirIdentifiers) {
  std::ofstream(*mount / "a/file") << "text";
  fsf_fid fid{};
  ASSERT_EQ(identify(AT_FDCWD, (*mount / "a/file").c_str(), fid), 0);
  const DetachedFolder folder(mount->path());
  mount->unmount();
  EXPECT_TRUE(UniqueFd(openByFid(folder.fd(), fid, O_PATH)));
}

TEST_P(Detached, TellsTheNamesThatSomethingIsMountedOn) {
  std::ofstream(*mount / "file") << "text";
  cover("a/b");
  cover("c");
  ASSERT_EQ(::mount("/dev/null", (*mount / "file").c_str(), nullptr, MS_BIND, nullptr), 0);
  fsf_fid a{};
  ASSERT_EQ(identify(AT_FDCWD, (*mount / "a").c_str(), a), 0);
  const DetachedFolder folder(mount->path());
  EXPECT_THAT(namesOf(folder), UnorderedElementsAre("b", "c", "file"));
  const auto covered = folder.covered().value();
  ASSERT_NE(findCovered(covered, a, "b"), nullptr);
  EXPECT_EQ(findCovered(covered, a, "c"), nullptr);

  const fsf_fid hidden = findCovered(covered, a, "b")->fid;
  uncover("a/b");
  fsf_fid b{};
  ASSERT_EQ(identify(AT_FDCWD, (*mount / "a/b").c_str(), b), 0);
  EXPECT_EQ(hidden, b);
  EXPECT_THAT(namesOf(folder), UnorderedElementsAre("c", "file"));
  uncover("c");
  uncover("file");
}

TEST_P(DetachedAnywhere, WhatIsMountedOnAMountOrBesideTheFolderCoversNothingInIt) {
  cover("a");
  std::filesystem::create_directory(*mount / "a/b");
  cover("a/b");
  EXPECT_THAT(namesOf(DetachedFolder(mount->path())), UnorderedElementsAre("a"));
  EXPECT_THAT(namesOf(DetachedFolder(*mount / "c")), IsEmpty());
  EXPECT_THAT(namesOf(DetachedFolder(*mount / "a")), UnorderedElementsAre("b"));
  uncover("a/b");
  uncover("a");
}

TEST_P(DetachedAnywhere, IsFoundThroughASymbolicLink) {
  std::filesystem::create_directory_symlink("a", *mount / "to a");
  cover("a/b");
  EXPECT_THAT(namesOf(DetachedFolder(*mount / "to a")), UnorderedElementsAre("b"));
  uncover("a/b");
}

TEST_P(DetachedAnywhere, ASecondMountOfTheSameFilesCoversItsOwnPlacesOnly) {
  TempFolder other;
  ASSERT_EQ(::mount(mount->path().c_str(), other.path().c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount("none", (other / "c").c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_THAT(namesOf(DetachedFolder(mount->path())), IsEmpty());
  EXPECT_THAT(namesOf(DetachedFolder(other.path())), UnorderedElementsAre("c"));
  ::umount2((other / "c").c_str(), 0);
  ::umount2(other.path().c_str(), 0);
}

TEST_P(DetachedAnywhere, OnceTheVisibleMountHasGoneOrIsHiddenNothingIsToldOfIt) {
  const DetachedFolder folder(mount->path());
  ASSERT_EQ(::mount("none", mount->path().c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_FALSE(folder.covered());
  ASSERT_EQ(::umount2(mount->path().c_str(), 0), 0);
  EXPECT_TRUE(folder.covered());
  ASSERT_EQ(::umount2(mount->path().c_str(), MNT_DETACH), 0);
  EXPECT_FALSE(folder.covered());
}

// For good, so only a child may do that.
bool dropTheRightToMount() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2]{};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].effective &= ~(1U << CAP_SYS_ADMIN);
  return syscall(SYS_capset, &header, data) == 0;
}

TEST_P(DetachedAnywhere, WithoutTheRightToItTheFolderIsOpenedAsEver) {
  cover("c");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(20);
    if (!dropTheRightToMount()) _exit(9);
    const DetachedFolder folder(mount->path());
    const bool isVisible = faccessat(folder.fd(), "a", F_OK, 0) == 0;
    _exit(isVisible && folder.covered().value().empty() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  uncover("c");
}

TEST_P(DetachedAnywhere, WhatIsNoFolderCannotBeOpened) {
  std::ofstream(*mount / "file") << "text";
  for (const auto& [name, error] : {std::pair("none", ENOENT), {"file", ENOTDIR}}) {
    try {
      DetachedFolder folder(*mount / name);
      ADD_FAILURE() << name;
    } catch (const std::system_error& e) {
      EXPECT_EQ(e.code().value(), error);
      EXPECT_THAT(e.what(), testing::HasSubstr("cannot open " + *mount / name));
    }
  }
}

TEST_P(DetachedAnywhere, AChangeOfTheMountTableIsToldOnce) {
  MountChanges changes;
  EXPECT_FALSE(changes.any());
  cover("c");
  EXPECT_TRUE(changes.any());
  EXPECT_FALSE(changes.any());
  uncover("c");
  EXPECT_TRUE(changes.any());
  const DetachedFolder folder(mount->path());  // mounts nothing that anybody sees
  EXPECT_FALSE(changes.any());
}

}  // namespace
}  // namespace kddc::test
