// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The scan of volumes over file systems that are really mounted.
#include <sys/mount.h>

#include <optional>

#include "tests/support/loop_mount.h"
#include "tests/support/registry_fixture.h"

namespace {

using kddc::test::LogCapture;
using kddc::test::LoopMount;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct MountedVolume : kddc::test::RegistryFixture, testing::WithParamInterface<const char*> {
  void SetUp() override {
    if (const std::string why = LoopMount::whyNot(GetParam()); !why.empty()) GTEST_SKIP() << why;
    volume.emplace(GetParam());
    scan();  // makes the registry, of an empty mount table
    registry("INSERT INTO MONITOR VALUES('" + volume->path() + "')");
    KdMntTab::SetSource("");
  }

  std::optional<LoopMount> volume;
};

std::string typeOf(const testing::TestParamInfo<const char*>& type) {
  return type.param;
}

INSTANTIATE_TEST_SUITE_P(On, MountedVolume, testing::Values("ext4", "xfs", "btrfs", "tmpfs"),
                         typeOf);

TEST_P(MountedVolume, ComesAndGoesWithTheMount) {
  scan(false);
  const std::string row = volume->path() + "|" + GetParam() + "|Y|" +
                          std::to_string(volume->device()) + "|" + blockSizeOf(volume->path()) +
                          "|" + volume->path() + "/.DATACLASS_1";
  constexpr char kColumns[] =
      "SELECT MOUNT_POINT,FSTYPE,DRIVER_SUPPORT_POSSIBLE,DEVTYPE,BLOCKSIZE,PATH_TO_DB FROM VOLUME";
  EXPECT_THAT(registry(kColumns), ElementsAre(row));

  volume->unmount();
  scan(false);
  EXPECT_THAT(volumes(), IsEmpty());

  volume->mount();
  scan(false);
  EXPECT_THAT(volumes(), ElementsAre(volume->path()));
}

TEST_P(MountedVolume, IsNotAddedWhileItIsReadOnly) {
  volume->unmount();
  volume->mount("ro");
  scan(false);
  EXPECT_THAT(volumes(), IsEmpty());
}

TEST_P(MountedVolume, KeepsItsRowWhenItBecomesReadOnly) {
  scan(false);
  volume->unmount();
  volume->mount("ro");
  scan(false);
  EXPECT_THAT(volumes(), ElementsAre(volume->path()));
}

struct RegistryOnItsOwnDisk : kddc::test::RegistryFixture {
  void SetUp() override {
    if (const std::string why = LoopMount::whyNot("tmpfs"); !why.empty()) GTEST_SKIP() << why;
    disk.emplace("tmpfs", "size=1m");
    ::setenv("KELDARA_REGISTRY_ROOT", disk->path().c_str(), 1);
    mounted({{"/dev/a", a, "ext4"}});
    scan();
  }
  // VOLUME as the disk has it.
  std::string devices() const {
    return kddc::test::DatabaseView(*disk / "DataClassification/volume_db.kd")
        .cell("SELECT group_concat(DEVLABEL) FROM VOLUME");
  }

  std::optional<LoopMount> disk;
  const std::string a = place("a");
};

TEST_F(RegistryOnItsOwnDisk, CannotBeOpenedWhenTheDiskIsReadOnly) {
  ASSERT_EQ(::mount("none", disk->path().c_str(), "", MS_REMOUNT | MS_RDONLY, nullptr), 0);
  mounted({});
  const LogCapture log(0);
  scan();
  ASSERT_THAT(log.lines(), testing::SizeIs(1));
  EXPECT_THAT(log.lines()[0], HasSubstr("eRRoR -- UDCException: "));
  EXPECT_THAT(log.lines()[0], HasSubstr("Read-only file system"));
}

TEST_F(RegistryOnItsOwnDisk, IsWholeAndOldWhenTheDiskIsFullAndFollowsWhenItIsNot) {
  {
    std::ofstream filler(*disk / "filler");
    while (filler << std::string(4096, 'x') << std::flush) {
    }
  }
  mounted({{"/dev/new", a, "ext4"}});
  {
    const LogCapture log(0);
    scan();
    EXPECT_FALSE(log.lines().empty());
  }
  std::filesystem::remove(*disk / "filler");
  EXPECT_EQ(devices(), "/dev/a");
  scan();
  EXPECT_EQ(devices(), "/dev/new");
}

}  // namespace
