// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What ends a verification before its end. This program has a readdir and a flock of its own, which
// fail where a test asks.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "agent/engine/verification.h"
#include "agent/errors.h"
#include "tests/support/watch_fixture.h"

namespace {

std::string failing;  // calls on what this is a part of the path of

bool fails(int fd) {
  char path[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(fd);
  const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
  return !failing.empty() && length > 0 &&
         std::string(path, static_cast<std::size_t>(length)).find(failing) != std::string::npos;
}

template <class Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" dirent* readdir(DIR* dirp) {
  if (!fails(::dirfd(dirp))) return real<dirent*(DIR*)>("readdir")(dirp);
  errno = EIO;
  return nullptr;
}

extern "C" int flock(int fd, int operation) noexcept {
  if (!fails(fd)) return real<int(int, int)>("flock")(fd, operation);
  errno = ENOLCK;
  return -1;
}

namespace kddc::test {
namespace {

struct VerificationFailure : WatchTest {
  void SetUp() override {
    WatchTest::SetUp();
    if (IsSkipped()) return;
    std::filesystem::create_directory(*this / "d");
    write("d/b");
    ASSERT_EQ(run({"scan", "-q", volume}).exitCode, 0);
  }
  void TearDown() override { failing.clear(); }

  VerificationResult verify() const {
    return verifyVolume({.volume = volume,
                         .catalogue = catalogueOf(volume),
                         .copies = state + "/verify",
                         .leftOut = {},
                         .flush = [] { return false; },
                         .proceed = [](std::uint64_t) { return true; }});
  }
  std::string failure() const {
    try {
      verify();
      return "none";
    } catch (const Failure& e) {
      return e.what();
    }
  }
};

TEST_F(VerificationFailure, AFolderThatCannotBeReadToItsEndIsNamed) {
  EXPECT_EQ(verify().compared, 3U);
  failing = volume + "/d";
  EXPECT_EQ(failure(), "cannot read the folder " + volume + "/d: Input/output error");
}

// Whoever makes the next copy would take an unlocked one for abandoned, and remove it.
TEST_F(VerificationFailure, ACopyThatCannotBeLockedIsNotWorkedWith) {
  failing = state + "/verify/";
  EXPECT_THAT(failure(),
              testing::MatchesRegex("cannot lock " + state + "/verify/......: No locks available"));
}

}  // namespace
}  // namespace kddc::test
