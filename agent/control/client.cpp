// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/control/client.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "agent/catalogue_place.h"
#include "agent/control/channel.h"
#include "agent/control/unix_socket.h"
#include "agent/errors.h"

namespace kddc {
namespace {

using std::chrono::milliseconds;
using Result = Channel::Result;

// A scan may have to end first.
constexpr milliseconds kFlushPatience = std::chrono::hours(24);

// "60 s", "250 ms"
std::string textOf(milliseconds time) {
  if (time % std::chrono::seconds(1) != milliseconds(0)) return fmt::format("{} ms", time.count());
  return fmt::format("{} s", std::chrono::duration_cast<std::chrono::seconds>(time).count());
}

// Who is told that there are too many clients is told so before it asks, and may find nobody to
// write to any more: the answer is read all the same.
Result converse(Channel& channel, const std::string& request, std::string& answer,
                Channel::Clock::time_point deadline) {
  if (channel.write(request, deadline) == Result::kTooLate) return Result::kTooLate;
  return channel.readLine(answer, kMostAnswer, deadline);
}

const char* textOf(Result result) {
  return result == Result::kTooLong ? "gave an answer without an end" : "ended before it answered";
}

}  // namespace

std::optional<nlohmann::json> askSocket(const std::string& socket, const ControlRequest& request,
                                        milliseconds timeout) {
  const auto deadline = Channel::Clock::now() + timeout;
  Connection connection = connectTo(socket, timeout);
  if (connection.listener == Listener::kNone) return std::nullopt;
  if (connection.listener == Listener::kBusy)
    throw Failure(
        fmt::format("kddc watch took no connection on {} within {}", socket, textOf(timeout)));
  const std::string who = fmt::format("kddc watch (process {})", peerOf(connection.socket).process);
  Channel channel(std::move(connection.socket));
  std::string answer;
  const Result result = converse(channel, requestLine(request), answer, deadline);
  if (result == Result::kTooLate)
    throw Failure(fmt::format("{} did not answer within {}", who, textOf(timeout)));
  if (result != Result::kDone) throw Failure(fmt::format("{} {}", who, textOf(result)));
  return parseAnswer(answer);
}

std::optional<nlohmann::json> ask(const Options& options, const ControlRequest& request,
                                  milliseconds timeout) {
  return askSocket(controlSocket(options, request.volume), request, timeout);
}

bool flushWatched(const Options& options, const std::string& volumePath) {
  return ask(options, {ControlCommand::kFlush, volumePath}, kFlushPatience).has_value();
}

}  // namespace kddc
