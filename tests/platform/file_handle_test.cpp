// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Identifiers made of handles and opened again, with hostile lengths among them.
#include "platform/file_handle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "platform/exceptions.h"
#include "platform/unique_fd.h"
#include "tests/support/loop_mount.h"
#include "tests/support/temp_folder.h"

namespace {

using kddc::UniqueFd;

struct alignas(file_handle) Handle {
  unsigned char bytes[sizeof(file_handle) + 64] = {};

  Handle(int type, unsigned int length) {
    get().handle_type = type;
    get().handle_bytes = length;
    std::iota(bytes + sizeof(file_handle), std::end(bytes), static_cast<unsigned char>(1));
  }
  file_handle& get() { return *reinterpret_cast<file_handle*>(bytes); }
};

std::vector<unsigned char> bytesOf(const fsf_fid& fid) {
  return {fid.data, fid.data + 24};
}

TEST(FidFromHandle, PutsTypeAndLengthFirstAndPadsWithZeros) {
  EXPECT_EQ(bytesOf(kddc::fidFromHandle(Handle(0x81, 12).get())),
            (std::vector<unsigned char>{0x81, 12, 0,  0,  1, 2, 3, 4, 5, 6, 7, 8,
                                        9,    10, 11, 12, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(bytesOf(kddc::fidFromHandle(Handle(0x4d, 20).get())),
            (std::vector<unsigned char>{0x4d, 20, 0,  0,  1,  2,  3,  4,  5,  6,  7,  8,
                                        9,    10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}));
}

TEST(FidFromHandle, RefusesWhatAnIdentifierCannotHold) {
  EXPECT_TRUE(kddc::fitsIdentifier(Handle(0xff, 20).get()));
  EXPECT_FALSE(kddc::fitsIdentifier(Handle(0x01, 21).get()));
  EXPECT_FALSE(kddc::fitsIdentifier(Handle(0x100, 8).get()));
  EXPECT_FALSE(kddc::fitsIdentifier(Handle(-1, 8).get()));
  try {
    kddc::fidFromHandle(Handle(0xf8, 32).get());
    FAIL() << "no exception";
  } catch (const KdException& e) {
    EXPECT_EQ(e.getMessage(),
              "a file handle of type 248 and 32 bytes does not fit into an identifier");
    EXPECT_EQ(e.getCode(), EOVERFLOW);
  }
}

class OpenByFid : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string why = kddc::test::LoopMount::whyNot("tmpfs");
    if (!why.empty()) GTEST_SKIP() << why;
    volume_.emplace("tmpfs");
    std::ofstream(*volume_ / "file") << "text";
    mount_.reset(::open(volume_->path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(kddc::identify(mount_.get(), "file", fid_), 0);
  }

  std::optional<kddc::test::LoopMount> volume_;
  UniqueFd mount_;
  fsf_fid fid_{};
};

TEST_F(OpenByFid, OpensTheSameFileUnderWhateverName) {
  std::filesystem::rename(*volume_ / "file", *volume_ / "renamed");
  const UniqueFd file(kddc::openByFid(mount_.get(), fid_, O_RDONLY));
  ASSERT_TRUE(file);
  char text[8] = {};
  EXPECT_EQ(::read(file.get(), text, sizeof text), 4);
  EXPECT_STREQ(text, "text");
  EXPECT_EQ(::fcntl(file.get(), F_GETFD), FD_CLOEXEC);
}

TEST_F(OpenByFid, IsTheInverseOfIdentifyAlsoForDescriptorsThatAreOnlyPaths) {
  const UniqueFd file(kddc::openByFid(mount_.get(), fid_, O_PATH));
  ASSERT_TRUE(file);
  fsf_fid again{};
  EXPECT_EQ(kddc::identify(file.get(), again), 0);
  EXPECT_EQ(bytesOf(again), bytesOf(fid_));
}

TEST_F(OpenByFid, SaysThatARemovedFileIsStale) {
  std::filesystem::remove(*volume_ / "file");
  EXPECT_EQ(kddc::openByFid(mount_.get(), fid_, O_PATH), -ESTALE);
}

TEST_F(OpenByFid, RefusesBytesThatAreNoIdentifier) {
  const auto refuses = [&](std::size_t index, unsigned char value) {
    fsf_fid hostile = fid_;
    hostile.data[index] = value;
    return kddc::openByFid(mount_.get(), hostile, O_PATH) == -EINVAL;
  };
  EXPECT_TRUE(refuses(1, 21));
  EXPECT_TRUE(refuses(1, 255));
  EXPECT_TRUE(refuses(1, 0));
  EXPECT_TRUE(refuses(2, 1));
  EXPECT_TRUE(refuses(3, 1));
}

TEST_F(OpenByFid, AnswersTheErrnoOfABadMountDescriptor) {
  EXPECT_EQ(kddc::openByFid(-1, fid_, O_PATH), -EBADF);
}

TEST_F(OpenByFid, SurvivesEveryTypeAndLengthThatAHostileRecordMayName) {
  for (unsigned int type = 0; type < 256; ++type) {
    for (unsigned int length = 0; length < 256; ++length) {
      fsf_fid hostile = fid_;
      hostile.data[0] = static_cast<unsigned char>(type);
      hostile.data[1] = static_cast<unsigned char>(length);
      const int opened = kddc::openByFid(mount_.get(), hostile, O_PATH);
      const UniqueFd closer(opened);
      if (length == 0 || length > 20) {
        EXPECT_EQ(opened, -EINVAL) << type << " " << length;
      }
    }
  }
}

TEST(Identify, AnswersTheErrnoOfANameThatIsNotThere) {
  fsf_fid fid{};
  EXPECT_EQ(kddc::identify(AT_FDCWD, "/nonexistent", fid), -ENOENT);
  EXPECT_EQ(kddc::identify(-1, fid), -EBADF);
  EXPECT_EQ(kddc::identify(AT_FDCWD, "/proc/self/stat", fid), -EOPNOTSUPP);
}

TEST(Identify, DoesNotFollowASymbolicLinkUnlessAsked) {
  const kddc::test::TempFolder folder;
  folder.write("file", "");
  std::filesystem::create_symlink("file", folder / "link");
  fsf_fid file{}, link{}, target{};
  const int result = kddc::identify(AT_FDCWD, (folder / "file").c_str(), file);
  if (result != 0) GTEST_SKIP() << "no identifiers on the temporary folder's file system";
  EXPECT_EQ(kddc::identify(AT_FDCWD, (folder / "link").c_str(), link), 0);
  EXPECT_EQ(kddc::identify(AT_FDCWD, (folder / "link").c_str(), target, true), 0);
  EXPECT_NE(bytesOf(link), bytesOf(file));
  EXPECT_EQ(bytesOf(target), bytesOf(file));
}

}  // namespace
