// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The socket of a process that watches, as a file: who gets to it, and whose it never takes.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/control/client.h"
#include "tests/support/control_fixture.h"
#include "tests/support/failure_of.h"
#include "tests/support/raw_client.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using std::chrono::milliseconds;
using testing::HasSubstr;

TEST_F(Control, ItsSocketIsPrivateAndGoesWithIt) {
  start();
  struct stat st;
  ASSERT_EQ(lstat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFSOCK | 0600));
  ASSERT_EQ(lstat((temp / "state/sockets").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(S_IFDIR | 0700));
  server.reset();
  EXPECT_TRUE(fs::is_empty(temp / "state/sockets"));
}

TEST_F(Control, ReplacesTheSocketOfAProcessThatDied) {
  deafSocket(path).reset();
  ASSERT_TRUE(fs::exists(path));
  EXPECT_EQ(askSocket(path, {}, kWatchdog), std::nullopt);
  start();
  EXPECT_EQ(RawClient(path).ask(kStatus), kGood);
}

TEST_F(Control, NeverReplacesTheSocketOfALivingProcess) {
  const std::string sentence = "process " + std::to_string(getpid()) + " listens on ";
  start();
  EXPECT_EQ(failureToStart(path), sentence + path + " already; stop it first");
  EXPECT_EQ(RawClient(path).ask(kStatus), kGood);
  const std::string other = temp / "state/sockets/other-2";
  const UniqueFd deaf = deafSocket(other);
  EXPECT_EQ(failureToStart(other), sentence + other + " already; stop it first");
  EXPECT_TRUE(fs::exists(other));
}

TEST_F(Control, NeverReplacesTheSocketOfAProcessThatIsTooBusyToAnswer) {
  const UniqueFd deaf = deafSocket(path);
  std::vector<Connection> crowd;
  do crowd.push_back(connectTo(path, milliseconds(1)));
  while (crowd.back().listener == Listener::kFound && crowd.size() < 100);
  ASSERT_EQ(crowd.back().listener, Listener::kBusy);
  EXPECT_EQ(failureToStart(path), "another process, busy just now, listens on " + path);
  EXPECT_EQ(failureOf([&] { askSocket(path, {}, milliseconds(20)); }),
            "kddc watch took no connection on " + path + " within 20 ms");
}

TEST_F(Control, FollowsNoLinkAndReplacesNothingElse) {
  start();
  const std::string victim = temp.write("victim", "precious"), link = temp / "state/sockets/link";
  fs::create_symlink(victim, link);
  EXPECT_EQ(failureToStart(link), link + " is no socket; remove it");
  fs::remove(link);
  fs::create_symlink(temp / "nowhere", link);
  EXPECT_EQ(failureToStart(link), link + " is no socket; remove it");
  EXPECT_FALSE(fs::exists(temp / "nowhere"));
  fs::remove(link);
  fs::create_symlink(path, link);  // not even to a socket that answers
  EXPECT_EQ(failureOf([&] { askSocket(link, {}, kWatchdog); }), link + " is no socket; remove it");
  const std::string file = temp.write("state/sockets/file", "precious");
  EXPECT_EQ(failureToStart(file), file + " is no socket; remove it");
  EXPECT_EQ(fs::file_size(victim), 8U);
  EXPECT_EQ(fs::file_size(file), 8U);
}

TEST_F(Control, UsesNoFolderThatOthersCouldUse) {
  const std::string open = temp / "open", linked = temp / "linked", foreign = temp / "foreign";
  fs::create_directory(open);
  fs::permissions(open, fs::perms::owner_all | fs::perms::group_exec);
  EXPECT_EQ(failureToStart(open + "/s"),
            "the folder " + open + " is open to others; close it with: chmod 700 " + open);
  fs::create_directory_symlink(temp.path(), linked);
  EXPECT_THAT(failureToStart(linked + "/s"), HasSubstr("cannot use the folder " + linked));
  if (geteuid() != 0) GTEST_SKIP() << "the rest needs root";
  fs::create_directory(foreign);
  ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
  EXPECT_EQ(failureToStart(foreign + "/s"), "the folder " + foreign +
                                                " belongs to another user; name another one, or "
                                                "take it over with: chown 0 " +
                                                foreign);
}

TEST_F(Control, PathsMayBeLong) {
  path = temp / std::string(200, 'a') + "/" + std::string(200, 'b') + "/" + std::string(64, 'c') +
         "-0123456789abcdef";
  start();
  EXPECT_EQ(RawClient(path).ask(kStatus), kGood);
  EXPECT_EQ(askSocket(path, {}, kWatchdog), json({{"volume", "/data"}}));
  const std::string tooLong = fs::path(path).parent_path().string() + "/" + std::string(108, 'd');
  EXPECT_THAT(failureToStart(tooLong), HasSubstr("its last part is too long"));
}

// What somebody else gets to read, in a process of its own.
std::string asAnotherUser(const std::string& path) {
  int pipe[2];
  if (::pipe(pipe) != 0) return "no pipe";
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    const bool isThere = setuid(65534) == 0 &&
                         connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    char bytes[200];
    ssize_t count = 0;
    if (isThere && send(fd, Control::kStatus, sizeof Control::kStatus - 1, MSG_NOSIGNAL) >= 0)
      send(fd, "\n", 1, MSG_NOSIGNAL);
    if (isThere) count = recv(fd, bytes, sizeof bytes, 0);
    if (write(pipe[1], bytes, static_cast<std::size_t>(count > 0 ? count : 0)) < 0) _exit(1);
    _exit(isThere ? 0 : 1);
  }
  close(pipe[1]);
  char bytes[200];
  const ssize_t count = ::read(pipe[0], bytes, sizeof bytes);
  close(pipe[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (status != 0) return "no connection";
  return {bytes, static_cast<std::size_t>(count)};
}

TEST_F(Control, AnswersNoOtherUserEvenWhereTheFilesWouldLetHimIn) {
  if (geteuid() != 0) GTEST_SKIP() << "becoming another user needs root";
  start();
  EXPECT_EQ(asAnotherUser(path), "no connection");
  for (std::string open = path; open.size() >= temp.path().size();
       open = fs::path(open).parent_path())
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
  EXPECT_EQ(asAnotherUser(path), "");
  EXPECT_EQ(RawClient(path).ask(kStatus), kGood);
}

// Another user's process that listens at the path; ends with the object.
class ForeignListener {
 public:
  explicit ForeignListener(const std::string& path) {
    int ready[2];
    if (::pipe(ready) != 0) throw std::runtime_error("no pipe");
    child_ = fork();
    if (child_ == 0) {
      alarm(60);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      path.copy(address.sun_path, sizeof address.sun_path - 1);
      const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
      if (setuid(65534) != 0 ||
          bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
          listen(fd, 8) != 0 || write(ready[1], "!", 1) != 1)
        _exit(1);
      for (;;) pause();
    }
    close(ready[1]);
    char byte;
    isListening = ::read(ready[0], &byte, 1) == 1;
    close(ready[0]);
  }
  ~ForeignListener() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
  }
  ForeignListener(const ForeignListener&) = delete;
  ForeignListener& operator=(const ForeignListener&) = delete;

  bool isListening = false;

 private:
  pid_t child_;
};

// An answer that somebody else gives could say that a catalogue is current which is not.
TEST_F(Control, BelievesNoOtherUserWhoListensInOurFolder) {
  if (geteuid() != 0) GTEST_SKIP() << "becoming another user needs root";
  const std::string folder = temp / "state/sockets";
  fs::create_directories(folder);
  for (std::string open = folder; open.size() >= temp.path().size();
       open = fs::path(open).parent_path())
    ASSERT_EQ(chmod(open.c_str(), 0777), 0);
  const ForeignListener other(path);
  ASSERT_TRUE(other.isListening);
  EXPECT_EQ(failureOf([&] { askSocket(path, {}, kWatchdog); }),
            "user 65534 answers on " + path + ", who may not; remove it");
  // In a folder of his own he may: root may ask anybody's process.
  ASSERT_EQ(chown(folder.c_str(), 65534, 65534), 0);
  EXPECT_EQ(connectTo(path, kWatchdog).listener, Listener::kFound);
}

}  // namespace
}  // namespace kddc::test
