// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The socket of a process that watches, met by clients that behave and by others that do not.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "agent/control/client.h"
#include "agent/errors.h"
#include "tests/support/control_fixture.h"
#include "tests/support/failure_of.h"
#include "tests/support/raw_client.h"

namespace kddc::test {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr char kStopped[] = R"({"error":"stopped","ok":false,"version":1})";
constexpr milliseconds kShort(30);

std::string refusal(const std::string& sentence) {
  return R"({"error":")" + sentence + R"(","ok":false,"version":1})";
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

}  // namespace
}  // namespace kddc::test
