// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Stubs on real file systems, and whether a live driver could run.
#include "platform/hsm.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "platform/exceptions.h"
#include "platform/flr_driver.h"
#include "platform/stub_attribute.h"
#include "platform/unique_fd.h"
#include "tests/support/loop_mount.h"
#include "tests/support/temp_folder.h"

namespace {

class Stubs : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const std::string why = kddc::test::LoopMount::whyNot(GetParam());
    if (!why.empty()) GTEST_SKIP() << why;
    ::setenv("KELDARA_REGISTRY_ROOT", registry_.path().c_str(), 1);
    volume_.emplace(GetParam());
    makeFile("file");
  }
  void TearDown() override { ::unsetenv("KELDARA_REGISTRY_ROOT"); }

  std::string at(const std::string& name) const { return *volume_ / name; }
  void makeFile(const std::string& name) const { std::ofstream file(at(name)); }
  void mark(const std::string& name, const char* attribute) const {
    ASSERT_EQ(::setxattr(at(name).c_str(), attribute, "1", 1, 0), 0) << std::strerror(errno);
  }
  fsf_fid fidOf(const std::string& name) const { return FlrDriver().getFID(at(name), false); }
  int isStub(const std::string& name) { return hsm_.isStub(volume_->device(), fidOf(name)); }

  kddc::test::TempFolder registry_;
  std::optional<kddc::test::LoopMount> volume_;
  RQHSMLowLevelRQFS hsm_;
};

TEST_P(Stubs, AreRegularFilesThatCarryTheAttribute) {
  EXPECT_EQ(isStub("file"), 0);
  mark("file", "trusted.hsm.stub");
  EXPECT_EQ(isStub("file"), 1);
  ASSERT_EQ(::removexattr(at("file").c_str(), "trusted.hsm.stub"), 0);
  EXPECT_EQ(isStub("file"), 0);
}

TEST_P(Stubs, AreNeverFoldersLinksOrFifos) {
  std::filesystem::create_directory(at("folder"));
  mark("folder", "trusted.hsm.stub");
  mark("file", "trusted.hsm.stub");
  std::filesystem::create_symlink("file", at("link"));
  ASSERT_EQ(::mkfifo(at("fifo").c_str(), 0600), 0);
  EXPECT_EQ(isStub("folder"), 0);
  EXPECT_EQ(isStub("link"), 0);
  EXPECT_EQ(isStub("fifo"), 0);
}

TEST_P(Stubs, CarryTheAttributeThatTheSettingsName) {
  registry_.write("settings.ini", "[DataClassification]\nStubAttribute = trusted.other\n");
  mark("file", "trusted.hsm.stub");
  EXPECT_EQ(isStub("file"), 0);
  mark("file", "trusted.other");
  EXPECT_EQ(isStub("file"), 1);
}

TEST_P(Stubs, AreStaleOnceRemoved) {
  const fsf_fid fid = fidOf("file");
  std::filesystem::remove(at("file"));
  EXPECT_EQ(hsm_.isStub(volume_->device(), fid), -ESTALE);
}

TEST_P(Stubs, AreUnknownWhileTheirVolumeIsUnmountedAndFoundAgainWhereItIsMountedNext) {
  mark("file", "trusted.hsm.stub");
  const fsf_fid fid = fidOf("file");
  const dev_t device = volume_->device();
  EXPECT_EQ(hsm_.isStub(device, fid), 1);
  volume_->unmount();  // also shows that no call keeps a descriptor on it
  EXPECT_EQ(hsm_.isStub(device, fid), -ENODEV);
  if (std::string(GetParam()) == "tmpfs") return;
  volume_->mount();
  EXPECT_EQ(hsm_.isStub(volume_->device(), fid), 1);
}

TEST_P(Stubs, AreFoundThroughAnotherMountWhenTheKnownOneIsCoveredOrGone) {
  mark("file", "trusted.hsm.stub");
  const fsf_fid fid = fidOf("file");
  const dev_t device = volume_->device();
  EXPECT_EQ(hsm_.isStub(device, fid), 1);
  std::filesystem::create_directory(registry_ / "elsewhere");
  const std::string elsewhere = registry_ / "elsewhere";
  ASSERT_EQ(::mount(volume_->path().c_str(), elsewhere.c_str(), nullptr, MS_BIND, nullptr), 0);
  volume_->unmount();
  EXPECT_EQ(hsm_.isStub(device, fid), 1);
  ASSERT_EQ(::umount2(elsewhere.c_str(), 0), 0);
}

TEST_P(Stubs, CannotBeAskedForWithBytesThatAreNoIdentifier) {
  fsf_fid hostile = fidOf("file");
  hostile.data[1] = 21;
  EXPECT_EQ(hsm_.isStub(volume_->device(), hostile), -EINVAL);
  EXPECT_EQ(hsm_.isStub(volume_->device(), fsf_fid{}), -EINVAL);
}

TEST_P(Stubs, CanBeAskedForByAnOpenDescriptorOfAnyKind) {
  mark("file", "trusted.hsm.stub");
  const kddc::UniqueFd path(::open(at("file").c_str(), O_PATH | O_CLOEXEC));
  const kddc::UniqueFd real(::open(at("file").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(kddc::carriesStubAttribute(path.get(), "trusted.hsm.stub"), 1);
  EXPECT_EQ(kddc::carriesStubAttribute(real.get(), "trusted.hsm.stub"), 1);
  EXPECT_EQ(kddc::carriesStubAttribute(path.get(), "trusted.other"), 0);
  EXPECT_EQ(kddc::carriesStubAttribute(-1, "trusted.hsm.stub"), -EBADF);
}

INSTANTIATE_TEST_SUITE_P(On, Stubs, ::testing::Values("ext4", "xfs", "btrfs", "tmpfs"),
                         [](const auto& test) { return std::string(test.param); });

TEST(StubAttribute, MustBeANameThatAnAttributeCanHave) {
  const kddc::test::TempFolder registry;
  ::setenv("KELDARA_REGISTRY_ROOT", registry.path().c_str(), 1);
  for (const std::string name : {"stub", "trusted.", ""}) {
    registry.write("settings.ini", "[DataClassification]\nStubAttribute = " + name + "\n");
    try {
      kddc::stubAttribute();
      ADD_FAILURE() << "no exception for " << name;
    } catch (const KdException& e) {
      EXPECT_EQ(e.getMessage(),
                "\"StubAttribute\" of section [DataClassification] must name an extended "
                "attribute, such as trusted.hsm.stub or user.stub, not \"" +
                    name + "\"");
    }
  }
  ::unsetenv("KELDARA_REGISTRY_ROOT");
}

TEST(StubProbe, AnswersForEveryObjectUntilItIsTakenBack) {
  fsf_fid seen{};
  const auto previous =
      RQHSMLowLevelRQFS::SetProbe([&](unsigned long long devt, const fsf_fid& fid) {
        seen = fid;
        return devt == 7 ? 1 : -5;
      });
  EXPECT_FALSE(previous);
  const fsf_fid asked{{1, 2, 3}};
  EXPECT_EQ(RQHSMLowLevelRQFS().isStub(7, asked), 1);
  EXPECT_EQ(seen.data[2], 3);
  EXPECT_EQ(RQHSMLowLevelRQFS().isStub(8, asked), -5);

  const auto taken = RQHSMLowLevelRQFS::SetProbe(nullptr);
  ASSERT_TRUE(taken);
  EXPECT_EQ(taken(7, asked), 1);
  EXPECT_EQ(RQHSMLowLevelRQFS().isStub(~0ull, asked), -ENODEV);
}

// The capabilities in effect, as a mask.
unsigned long long effectiveCapabilities() {
  std::ifstream status("/proc/self/status");
  for (std::string word; status >> word;)
    if (word == "CapEff:") {
      status >> word;
      return std::stoull(word, nullptr, 16);
    }
  return 0;
}

bool inFirstUserNamespace() {
  unsigned long inside = 1, outside = 1, count = 0;
  std::ifstream("/proc/self/uid_map") >> inside >> outside >> count;
  return inside == 0 && outside == 0 && count == 4294967295ul;
}

bool mayDrive() {
  const auto has = [](int capability) { return (effectiveCapabilities() >> capability & 1) != 0; };
  return has(CAP_SYS_ADMIN) && has(CAP_DAC_READ_SEARCH) && inFirstUserNamespace();
}

// Takes a capability from the calling process.
void drop(int capability) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (::syscall(SYS_capget, &header, data) != 0) ::_exit(3);
  data[capability / 32].effective &= ~(1u << (capability % 32));
  if (::syscall(SYS_capset, &header, data) != 0) ::_exit(3);
}

// What IsFSFDriverLoaded answers in a child that first runs `change`.
template <class Change>
int answerAfter(Change change) {
  const pid_t child = ::fork();
  if (child == 0) {
    change();
    ::_exit(RQHSMServiceHelper::IsFSFDriverLoaded() ? 1 : 0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(IsFSFDriverLoaded, IsTrueWithBothCapabilitiesAndFalseWithoutEither) {
  if (!mayDrive()) GTEST_SKIP() << "needs CAP_SYS_ADMIN and CAP_DAC_READ_SEARCH of the host";
  EXPECT_TRUE(RQHSMServiceHelper::IsFSFDriverLoaded());
  EXPECT_EQ(answerAfter([] {}), 1);
  EXPECT_EQ(answerAfter([] { drop(CAP_SYS_ADMIN); }), 0);
  EXPECT_EQ(answerAfter([] { drop(CAP_DAC_READ_SEARCH); }), 0);
  EXPECT_EQ(answerAfter([] {
              if (::setuid(65534) != 0) ::_exit(3);
            }),
            0);
}

TEST(IsFSFDriverLoaded, LeavesNoDescriptorBehind) {
  const auto open = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  const auto before = open();
  RQHSMServiceHelper::IsFSFDriverLoaded();
  EXPECT_EQ(open(), before);
}

}  // namespace
