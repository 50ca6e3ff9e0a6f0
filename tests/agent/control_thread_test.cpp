// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The socket of a process that watches, met by clients that behave and by others that do not.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/control/client.h"
#include "agent/control/server.h"
#include "agent/errors.h"
#include "tests/support/failure_of.h"
#include "tests/support/raw_client.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using std::chrono::milliseconds;
using testing::HasSubstr;
using Gone = ControlServer::Gone;

constexpr char kStatus[] = R"({"version":1,"command":"status"})";
constexpr char kFlush[] = R"({"version":1,"command":"flush"})";
constexpr char kGood[] = R"({"ok":true,"version":1,"volume":"/data"})";
constexpr char kStopped[] = R"({"error":"stopped","ok":false,"version":1})";
constexpr milliseconds kShort(30);

std::string refusal(const std::string& sentence) {
  return R"({"error":")" + sentence + R"(","ok":false,"version":1})";
}

// Answers "status" at once; "flush" waits until it is released, or until it is gone.
struct Slow {
  std::promise<void> released, entered, left;
  std::atomic<int> inside{0};

  json operator()(const ControlRequest& request, const Gone& gone) {
    if (request.command == ControlCommand::kFlush) wait(gone);
    return {{"volume", request.volume}};
  }
  void wait(const Gone& gone) {
    if (inside++ == 0) entered.set_value();
    const auto release = released.get_future();
    while (release.wait_for(milliseconds(1)) != std::future_status::ready) {
      if (!gone()) continue;
      left.set_value();
      throw Failure("stopped");
    }
  }
};

struct Control : testing::Test {
  TempFolder temp;
  std::string path = temp / "state/sockets/data-1";
  Slow slow;
  std::unique_ptr<ControlServer> server;

  void start(ControlLimits limits = {}) {
    serve([this](const ControlRequest& request, const Gone& gone) { return slow(request, gone); },
          limits);
  }
  void serve(ControlServer::Handler handler, ControlLimits limits = {}) {
    server = std::make_unique<ControlServer>(std::vector<ControlPlace>{{"/data", path}},
                                             std::move(handler), limits);
  }
  std::string failureToStart(const std::string& at) const {
    return failureOf([&] { ControlServer({{"/data", at}}, {}); });
  }
  static void expectSoon(std::promise<void>& promise) {
    ASSERT_EQ(promise.get_future().wait_for(kWatchdog), std::future_status::ready);
  }
};

// A socket that listens, and never accepts, at a short path.
UniqueFd deafSocket(const std::string& path) {
  fs::create_directories(fs::path(path).parent_path());
  fs::permissions(fs::path(path).parent_path(), fs::perms::owner_all);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(fd.get(), 5), 0);
  return fd;
}

TEST_F(Control, AnswersEachLineWithALine) {
  start();
  RawClient client(path);
  EXPECT_EQ(client.ask(kStatus), kGood);
  EXPECT_EQ(client.ask(kStatus), kGood);
  client.say(std::string(kStatus) + "\n" + kStatus + "\n");
  EXPECT_EQ(client.line(), kGood);
  EXPECT_EQ(client.line(), kGood);
}

TEST_F(Control, AnswersOneWhoHasSaidAllThatItWillSay) {
  start();
  RawClient client(path);
  client.say(std::string(kStatus) + "\n");
  client.sayNoMore();
  EXPECT_EQ(client.rest(), std::string(kGood) + "\n");
}

TEST_F(Control, ASocketSpeaksForItsVolumeAlone) {
  const std::string other = temp / "state/sockets/other-2";
  ControlServer both(
      {{"/data", path}, {"/other", other}},
      [&](const ControlRequest& request, const Gone& gone) { return slow(request, gone); });
  EXPECT_EQ(RawClient(path).ask(kStatus), kGood);
  EXPECT_EQ(RawClient(other).ask(kStatus), R"({"ok":true,"version":1,"volume":"/other"})");
  EXPECT_EQ(RawClient(other).ask(R"({"version":1,"command":"status","volume":"/data"})"),
            refusal("this socket is of /other, not of /data"));
}

TEST_F(Control, AVolumeMayComeWhileItServes) {
  start();
  RawClient client(path);
  EXPECT_EQ(client.ask(kStatus), kGood);
  const std::string other = temp / "state/sockets/other-1";
  server->add({"/other", other});
  EXPECT_EQ(RawClient(other).ask(kStatus), R"({"ok":true,"version":1,"volume":"/other"})");
  EXPECT_EQ(client.ask(kStatus), kGood);
  EXPECT_THAT(failureOf([&] { server->add({"/third", other}); }), HasSubstr("listens"));
}

TEST_F(Control, SaysWhatTheHandlerCouldNotDo) {
  serve([](const ControlRequest& request, const Gone&) -> json {
    if (request.command == ControlCommand::kFlush) throw Failure("not now");
    if (request.command == ControlCommand::kRescan) return 7;  // no object
    throw std::bad_alloc();
  });
  RawClient client(path);
  EXPECT_EQ(client.ask(kFlush), refusal("not now"));
  EXPECT_EQ(client.ask(kStatus), refusal("out of memory"));
  EXPECT_THAT(client.ask(R"({"version":1,"command":"rescan"})"), HasSubstr("\"ok\":false"));
}

TEST_F(Control, GoesOnAfterALineThatMakesNoSense) {
  start();
  RawClient client(path);
  EXPECT_EQ(client.ask(""), refusal("the request is no JSON object"));
  EXPECT_EQ(client.ask("\xff"), refusal("the request is no JSON object"));
  EXPECT_EQ(client.ask(kStatus), kGood);
}

TEST_F(Control, RefusesALineOfMoreThan64KiB) {
  start();
  const std::string longest = kStatus + std::string(65536 - std::strlen(kStatus), ' ');
  EXPECT_EQ(RawClient(path).ask(longest), kGood);
  const std::string sentence = refusal("a request has at most 65536 bytes");
  for (const std::string& line : {longest + " \n", std::string(65537, ' ') + "\n",
                                  std::string(65537, '{'), std::string(5'000'000, 'x')}) {
    RawClient client(path);
    client.say(line);
    EXPECT_EQ(client.rest(), sentence + "\n");
  }
}

TEST_F(Control, DropsAClientThatSaysNothingOrHalfALine) {
  start({.patience = kShort});
  for (const char* begun : {"", "{\"version\":1,"}) {
    RawClient client(path);
    client.say(begun);
    EXPECT_EQ(client.rest(), "");
  }
  RawClient idle(path);
  EXPECT_EQ(idle.ask(kStatus), kGood);
  EXPECT_EQ(idle.rest(), "");
}

TEST_F(Control, DropsAClientThatSaysALineByteByByteForTooLong) {
  start({.patience = milliseconds(200)});
  RawClient client(path);
  for (int i = 0; !client.isReadable(milliseconds(1)); ++i) {
    ASSERT_LT(i, 2000) << "each byte defers the end";
    client.say(" ");
  }
  EXPECT_EQ(client.rest(), "");
}

TEST_F(Control, DropsAClientThatNeverReadsAndServesOthersMeanwhile) {
  const std::string much(8 << 20, 'x');
  serve(
      [&](const ControlRequest& request, const Gone&) -> json {
        if (request.command == ControlCommand::kFlush) return {{"much", much}};
        return {{"volume", request.volume}};
      },
      {.patience = kShort});
  RawClient lazy(path);
  lazy.say(std::string(kFlush) + "\n" + kFlush + "\n");
  ASSERT_TRUE(lazy.isReadable(kWatchdog));
  EXPECT_EQ(RawClient(path).ask(kStatus), kGood);
  ASSERT_TRUE(lazy.isLeft(kWatchdog));
  EXPECT_LT(lazy.rest().size(), much.size());
}

TEST_F(Control, OneThatWaitsHoldsUpNobody) {
  start();
  RawClient waiting(path);
  waiting.say(std::string(kFlush) + "\n");
  expectSoon(slow.entered);
  EXPECT_EQ(RawClient(path).ask(kStatus), kGood);
  slow.released.set_value();
  EXPECT_EQ(waiting.line(), kGood);
}

TEST_F(Control, TellsTheHandlerThatItsClientHasLeft) {
  start();
  RawClient client(path);
  client.say(std::string(kFlush) + "\n");
  expectSoon(slow.entered);
  client.leave();
  expectSoon(slow.left);
}

TEST_F(Control, AClientThatWillSayNoMoreHasNotLeft) {
  start();
  RawClient client(path);
  client.say(std::string(kFlush) + "\n");
  client.sayNoMore();
  expectSoon(slow.entered);
  EXPECT_FALSE(client.isReadable(kShort));  // the handler has asked several times by then
  slow.released.set_value();
  EXPECT_EQ(client.rest(), std::string(kGood) + "\n");
}

TEST_F(Control, ComesToAnEndWhileClientsWait) {
  start();
  RawClient waiting(path), silent(path), half(path);
  half.say("{");
  waiting.say(std::string(kFlush) + "\n");
  expectSoon(slow.entered);
  server.reset();
  EXPECT_EQ(waiting.rest(), std::string(kStopped) + "\n");
  EXPECT_EQ(silent.rest(), "");
  EXPECT_EQ(half.rest(), "");
}

TEST_F(Control, TellsOneTooManyToComeAgain) {
  EXPECT_EQ(ControlLimits().clients, 32U);
  EXPECT_EQ(ControlLimits().patience, milliseconds(10'000));
  start({.clients = 2});
  RawClient first(path), second(path);
  EXPECT_EQ(first.ask(kStatus), kGood);
  EXPECT_EQ(second.ask(kStatus), kGood);
  EXPECT_EQ(RawClient(path).rest(),
            refusal("kddc watch has too many clients; try again later") + "\n");
  EXPECT_EQ(failureOf([&] { askSocket(path, {}, kWatchdog); }),
            "kddc watch has too many clients; try again later");
  EXPECT_EQ(second.ask(kStatus), kGood);
  first.sayNoMore();
  EXPECT_EQ(first.rest(), "");
  EXPECT_EQ(RawClient(path).ask(kStatus), kGood);
}

TEST_F(Control, OneWhoLeavesMakesRoomForTheNext) {
  start({.clients = 1});
  for (int i = 0; i < 200; ++i) ASSERT_EQ(RawClient(path).ask(kStatus), kGood) << i;
}

TEST_F(Control, AnswersManyAtATime) {
  start();
  std::vector<std::thread> clients;
  std::atomic<int> good{0};
  for (int i = 0; i < 16; ++i)
    clients.emplace_back([&] {
      for (int k = 0; k < 20; ++k)
        if (RawClient client(path); client.ask(kStatus) == kGood) ++good;
    });
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(good, 320);
}

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
    if (isThere && send(fd, kStatus, sizeof kStatus - 1, MSG_NOSIGNAL) >= 0)
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

struct Client : Control {
  // Accepts one connection and says `bytes`, or nothing until the client has left.
  std::string askOneThatSays(std::optional<std::string> bytes, milliseconds patience) {
    const UniqueFd listening = deafSocket(path);
    std::thread other([&] {
      const UniqueFd fd(accept(listening.get(), nullptr, nullptr));
      char ignored[1000];
      while (recv(fd.get(), ignored, sizeof ignored, 0) > 0 && !bytes) {
      }
      if (bytes) send(fd.get(), bytes->data(), bytes->size(), MSG_NOSIGNAL);
    });
    const std::string failure = failureOf([&] { askSocket(path, {}, patience); });
    other.join();
    return failure;
  }
  const std::string who = "kddc watch (process " + std::to_string(getpid()) + ")";
};

TEST_F(Client, FindsNobodyWhereThereIsNoSocket) {
  EXPECT_EQ(askSocket(path, {}, kWatchdog), std::nullopt);
  temp.write("file", "");
  EXPECT_EQ(askSocket(temp / "file/s", {}, kWatchdog), std::nullopt);
}

TEST_F(Client, PassesOnTheAnswer) {
  start();
  EXPECT_EQ(askSocket(path, {}, kWatchdog), json({{"volume", "/data"}}));
  EXPECT_EQ(failureOf([&] {
              askSocket(path, {ControlCommand::kFlush, "/other"}, kWatchdog);
            }),
            "this socket is of /data, not of /other");
}

TEST_F(Client, DoesNotWaitForEver) {
  EXPECT_EQ(askOneThatSays(std::nullopt, milliseconds(20)), who + " did not answer within 20 ms");
}

TEST_F(Client, SaysSoWhenTheOtherEndDies) {
  EXPECT_EQ(askOneThatSays("", kWatchdog), who + " ended before it answered");
}

TEST_F(Client, SaysSoWhenTheAnswerMakesNoSense) {
  EXPECT_EQ(askOneThatSays("yes\n", kWatchdog), "the answer is no JSON object");
}

TEST_F(Client, SaysSoWhenTheAnswerHasNoEnd) {
  EXPECT_EQ(askOneThatSays(std::string(3 << 20, ' '), kWatchdog),
            who + " gave an answer without an end");
}

}  // namespace
}  // namespace kddc::test
