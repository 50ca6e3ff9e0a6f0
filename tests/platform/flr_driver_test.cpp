// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Identifiers of real files on real file systems.
#include "platform/flr_driver.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/exceptions.h"
#include "tests/support/loop_mount.h"

namespace {

using ::testing::HasSubstr;

struct Expected {
  const char* fsType;
  unsigned char handleType;
  unsigned char handleLength;
  bool survivesUnmount;
};

std::ostream& operator<<(std::ostream& out, const Expected& expected) {
  return out << expected.fsType;
}

std::vector<unsigned char> labelBytesOf(const fsf_fid& fid) {
  return {fid.data, fid.data + 24};
}
std::vector<unsigned char> bytesAt(const std::string& path, bool followLinks = false) {
  return labelBytesOf(FlrDriver().getFID(path, followLinks));
}

void touch(const std::string& path) {
  std::ofstream file(path);
}

KdException failureOf(const std::string& path) {
  try {
    FlrDriver().getFID(path, false);
  } catch (const KdException& e) {
    return e;
  }
  return KdException("", "no exception", "", 0, 0);
}

class Identifiers : public ::testing::TestWithParam<Expected> {
 protected:
  void SetUp() override {
    const std::string why = kddc::test::LoopMount::whyNot(GetParam().fsType);
    if (!why.empty()) GTEST_SKIP() << why;
    volume_.emplace(GetParam().fsType);
  }
  std::string at(const std::string& name) const { return *volume_ / name; }

  std::optional<kddc::test::LoopMount> volume_;
};

TEST_P(Identifiers, HoldTypeLengthAndHandleAndEndInZeros) {
  touch(at("file"));
  alignas(file_handle) unsigned char buffer[sizeof(file_handle) + 128] = {};
  auto* handle = reinterpret_cast<file_handle*>(buffer);
  handle->handle_bytes = 128;
  int mountId = 0;
  ASSERT_EQ(name_to_handle_at(AT_FDCWD, at("file").c_str(), handle, &mountId, 0), 0);

  const auto fid = bytesAt(at("file"));
  EXPECT_EQ(fid[0], GetParam().handleType);
  EXPECT_EQ(fid[1], GetParam().handleLength);
  EXPECT_EQ(fid[2], 0);
  EXPECT_EQ(fid[3], 0);
  EXPECT_EQ(handle->handle_bytes, GetParam().handleLength);
  EXPECT_EQ(std::memcmp(&fid[4], handle->f_handle, GetParam().handleLength), 0);
  for (std::size_t i = 4u + GetParam().handleLength; i < 24; ++i) EXPECT_EQ(fid[i], 0) << i;
}

TEST_P(Identifiers, StayTheSameWhenTheFileIsRenamedOrMoved) {
  touch(at("file"));
  const auto before = bytesAt(at("file"));
  std::filesystem::create_directory(at("folder"));
  std::filesystem::rename(at("file"), at("folder/renamed"));
  EXPECT_EQ(bytesAt(at("folder/renamed")), before);
}

TEST_P(Identifiers, AreTheSameForHardLinksAndDifferForDifferentFiles) {
  touch(at("file"));
  touch(at("other"));
  std::filesystem::create_directory(at("folder"));
  std::filesystem::create_hard_link(at("file"), at("folder/link"));
  EXPECT_EQ(bytesAt(at("folder/link")), bytesAt(at("file")));
  EXPECT_NE(bytesAt(at("other")), bytesAt(at("file")));
  EXPECT_NE(bytesAt(at("folder")), bytesAt(at("file")));
}

TEST_P(Identifiers, StayTheSameOverAnUnmount) {
  if (!GetParam().survivesUnmount) GTEST_SKIP() << "nothing of it survives";
  touch(at("file"));
  std::filesystem::create_directory(at("folder"));
  const auto file = bytesAt(at("file"));
  const auto folder = bytesAt(at("folder"));
  const auto root = bytesAt(volume_->path());
  volume_->unmount();
  volume_->mount();
  EXPECT_EQ(bytesAt(at("file")), file);
  EXPECT_EQ(bytesAt(at("folder")), folder);
  EXPECT_EQ(bytesAt(volume_->path()), root);
}

TEST_P(Identifiers, AreNotUsedAgainForAFileThatTakesTheSamePlace) {
  touch(at("file"));
  const auto before = bytesAt(at("file"));
  std::filesystem::remove(at("file"));
  touch(at("file"));
  EXPECT_NE(bytesAt(at("file")), before);
}

TEST_P(Identifiers, AreThoseOfASymbolicLinkOrOfItsTargetAsAsked) {
  touch(at("file"));
  std::filesystem::create_symlink("file", at("link"));
  EXPECT_EQ(bytesAt(at("link"), true), bytesAt(at("file")));
  EXPECT_NE(bytesAt(at("link"), false), bytesAt(at("file")));
}

TEST_P(Identifiers, AreGivenForFifosAndDanglingLinksWithoutOpeningThem) {
  ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
  std::filesystem::create_symlink("nowhere", at("dangling"));
  EXPECT_EQ(bytesAt(at("fifo"))[1], GetParam().handleLength);
  EXPECT_EQ(bytesAt(at("dangling"))[1], GetParam().handleLength);
}

INSTANTIATE_TEST_SUITE_P(On, Identifiers,
                         ::testing::Values(Expected{"ext4", 0x01, 8, true},
                                           Expected{"xfs", 0x81, 12, true},
                                           Expected{"btrfs", 0x4d, 20, true},
                                           Expected{"tmpfs", 0x01, 12, false}),
                         [](const auto& test) { return std::string(test.param.fsType); });

TEST(FlrDriver, RefusesAFileSystemWithoutHandlesAndNamesIt) {
  const std::string why = kddc::test::LoopMount::whyNot("overlay");
  if (!why.empty()) GTEST_SKIP() << why;
  kddc::test::LoopMount volume("overlay");
  touch(volume / "file");
  const KdException failure = failureOf(volume / "file");
  EXPECT_EQ(failure.getMessage(),
            "cannot identify " + (volume / "file") +
                ": its file system (overlay) gives no file handles; kddc cannot identify files "
                "there");
  EXPECT_EQ(failure.getCode(), EOPNOTSUPP);
  EXPECT_EQ(failure.getFunction(), "FlrDriver :: getFID");
}

TEST(FlrDriver, RefusesHandlesOfMoreThanTwentyBytesAndNamesTheFileSystem) {
  const std::string why = kddc::test::LoopMount::whyNot("overlay");
  if (!why.empty()) GTEST_SKIP() << why;
  kddc::test::LoopMount volume("overlay", "index=on,nfs_export=on");
  touch(volume / "file");
  const KdException failure = failureOf(volume / "file");
  EXPECT_EQ(failure.getMessage(),
            "cannot identify " + (volume / "file") +
                ": its file system (overlay) gives file handles of more than 20 bytes; kddc cannot "
                "identify files there");
  EXPECT_EQ(failure.getCode(), EOVERFLOW);
}

TEST(FlrDriver, SaysWhatFailedForAPathThatIsNotThere) {
  const KdException failure = failureOf("/nonexistent/file");
  EXPECT_EQ(failure.getMessage(), "cannot identify /nonexistent/file: No such file or directory");
  EXPECT_EQ(failure.getCode(), ENOENT);
  EXPECT_THAT(failure.getFile(), HasSubstr("platform/flr_driver.cpp"));
  EXPECT_GT(failure.getLine(), 0);
  EXPECT_EQ(failureOf("").getCode(), ENOENT);
  EXPECT_EQ(failureOf("/dev/null/file").getCode(), ENOTDIR);
}

}  // namespace
