// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One who asks a process that watches, and what may answer him.
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>

#include "agent/control/client.h"
#include "tests/support/control_fixture.h"
#include "tests/support/failure_of.h"

namespace kddc::test {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

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
