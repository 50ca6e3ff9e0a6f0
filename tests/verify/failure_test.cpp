// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What ends a comparison before its end: files without identifiers, folders that cannot be read,
// databases that refuse. This program has a readdir of its own, which fails where a test asks.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <functional>

#include "platform/exceptions.h"
#include "tests/support/verified_volume.h"

namespace {

std::string unreadable;  // the folder whose readdir fails

}  // namespace

extern "C" dirent* readdir(DIR* dirp) {
  char path[4096];
  const std::string link = "/proc/self/fd/" + std::to_string(::dirfd(dirp));
  const ssize_t length = ::readlink(link.c_str(), path, sizeof path);
  if (!unreadable.empty() && length > 0 &&
      std::string(path, static_cast<std::size_t>(length)).ends_with(unreadable)) {
    errno = EIO;
    return nullptr;
  }
  static const auto real = reinterpret_cast<dirent* (*)(DIR*)>(::dlsym(RTLD_NEXT, "readdir"));
  return real(dirp);
}

namespace {

using kddc::test::VerifiedVolume;
using testing::ElementsAre;
using testing::HasSubstr;

struct VerifyFailure : VerifiedVolume {
  void SetUp() override { begin("tmpfs"); }
  void TearDown() override { unreadable.clear(); }

  // What `operation` throws, and before it the lines other than banners.
  Lines failure(const std::function<void()>& operation) {
    std::string thrown = "nothing";
    Lines lines = said([&] {
      try {
        operation();
      } catch (const UDCException& e) {
        thrown = std::to_string(e.GetType()) + " " + e.GetMessage();
      }
    });
    std::erase_if(lines, [](const std::string& line) {
      return line.starts_with("debug 1 DCSqliteDB :: Verify: ");
    });
    lines.push_back(thrown);
    return shortened(lines);
  }
  Lines failureOfVerify() {
    return failure([&] { db->Verify(path("")); });
  }
};

TEST_F(VerifyFailure, ACatalogueThatIsNotOpenIsRefused) {
  db->CloseHandle(0, false);
  const Lines lines = failureOfVerify();
  EXPECT_THAT(lines, ElementsAre(HasSubstr("error 0 DCSqliteDB :: Verify: eRRoR -- Function["
                                           "DCSqliteDB :: Verify] Type[1] Error[0] "),
                                 testing::EndsWith("/catalogue is not open")));
}

TEST_F(VerifyFailure, AVolumeWithoutFileHandlesEndsIt) {
  if (const std::string why = whyNotWith("overlay"); !why.empty()) GTEST_SKIP() << why;
  const kddc::test::LoopMount overlay("overlay");
  const std::string why = "cannot identify " + overlay.path() +
                          ": its file system (overlay) gives no file handles; "
                          "kddc cannot identify files there";
  EXPECT_THAT(failure([&] { db->Verify(overlay.path()); }),
              ElementsAre("error 0 DCSqliteDB :: VerifyFolder: eRRoR -- " + why + " ",
                          "error 0 DCSqliteDB :: Verify: eRRoR -- Function[DCSqliteDB :: "
                          "VerifyFolder <- DCSqliteDB :: Verify] Type[5] Error[0] " +
                              why,
                          "5 " + why));
}

TEST_F(VerifyFailure, AFileThatCannotBeIdentifiedIsAFailureOfItsOwn) {
  struct stat st {};
  EXPECT_THAT(failure([&] { db->VerifyFile(path("gone"), 1, "gone", st); }),
              ElementsAre("error 0 DCSqliteDB :: VerifyFile: eRRoR -- "
                          "cannot identify V/gone: No such file or directory ",
                          "5 cannot identify V/gone: No such file or directory"));
}

TEST_F(VerifyFailure, AFolderThatCannotBeReadEndsIt) {
  folder("sub");
  unreadable = "/sub";
  EXPECT_THAT(failureOfVerify(),
              ElementsAre("error 0 DCSqliteDB :: Verify: eRRoR -- Failed to "
                          "read directoryV/sub: Input/output error ",
                          "5 Failed to read directoryV/sub: Input/output error"));
  EXPECT_THAT(gids(), ElementsAre("1", "1")) << "what was marked until then stays marked";
}

TEST_F(VerifyFailure, AFolderThatVanishesBeforeItsTurnEndsIt) {
  folder("sub");
  files("UPDATE FILES SET NAME='SUB' WHERE INODE=2");
  // Reported, and removed at that moment.
  dbg.SetLevel(1);
  EvDebug::Sink previous = dbg.SetSink([&](const EvDebug::Line& line) {
    if (line.tag == "DCSqliteDB :: VerifyFolder") std::filesystem::remove(path("sub"));
  });
  std::string thrown;
  try {
    db->Verify(path(""));
  } catch (const UDCException& e) {
    thrown = e.GetMessage();
  }
  dbg.SetSink(std::move(previous));
  dbg.SetLevel(0);
  EXPECT_THAT(shortened({thrown}),
              ElementsAre("Failed to open dir V/sub: No such file or directory"));
}

TEST_F(VerifyFailure, AnEntryThatCannotBeLookedAtEndsIt) {
  // So deep that the path of the last folder is longer than the kernel takes.
  const std::string name(250, 'n');
  std::string below;
  unsigned long long parent = 1;
  int fd = ::open(path("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (std::size_t length = path("").size(); length < 4096; length += name.size() + 1) {
    ASSERT_EQ(::mkdirat(fd, name.c_str(), 0700), 0);
    const int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::close(std::exchange(fd, next));
    below += (below.empty() ? "" : "/") + name;
    if (path(below).size() < 4096) parent = insert(below, parent);
  }
  ::close(fd);
  const std::string message = "Failed to stat child " + name + ": File name too long";
  EXPECT_THAT(
      failureOfVerify(),
      ElementsAre("error 0 DCSqliteDB :: Verify: eRRoR -- " + message + " ", "5 " + message));
}

TEST_F(VerifyFailure, ADatabaseThatRefusesEndsItWithItsOwnWords) {
  files("ALTER TABLE FILES RENAME COLUMN GID TO OWNER");
  EXPECT_THAT(failureOfVerify(),
              ElementsAre("error 0 DCSqliteDB :: Verify: eRRoR -- Function[UDC_DBMS :: exec_query "
                          "<- DCSqliteDB :: Verify] Type[3] Error[1] no such column: GID",
                          "3 no such column: GID"));
}

TEST_F(VerifyFailure, ADatabaseThatRefusesTheRowsOfAnEntryEndsIt) {
  write("f");
  insert("f", 1);
  files("ALTER TABLE FILES RENAME COLUMN CTIME TO CHANGED");
  EXPECT_THAT(failureOfVerify(),
              ElementsAre("error 0 DCSqliteDB :: VerifyFile: eRRoR -- Function[UDC_DBMS :: "
                          "exec_query_get_table <- DCSqliteDB :: VerifyFile] Type[3] Error[1] "
                          "no such column: CTIME",
                          "error 0 DCSqliteDB :: Verify: eRRoR -- Function[UDC_DBMS :: "
                          "exec_query_get_table <- DCSqliteDB :: VerifyFile <- DCSqliteDB :: "
                          "Verify] Type[3] Error[1] no such column: CTIME",
                          "3 no such column: CTIME"));
}

}  // namespace
