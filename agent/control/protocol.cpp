// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/control/protocol.h"

#include <fmt/format.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "agent/base64.h"
#include "agent/errors.h"
#include "platform/printable.h"

namespace kddc {
namespace {

using nlohmann::json;

// Deeper than anything that is said here; the library's own functions recurse.
constexpr int kMostNesting = 8;

struct Name {
  ControlCommand command;
  const char* name;
};
constexpr Name kCommands[] = {{ControlCommand::kFlush, "flush"},
                              {ControlCommand::kStatus, "status"},
                              {ControlCommand::kRescan, "rescan"}};

// `what` is the request or the answer.
// What is said comes from another process, perhaps of another version, so nothing is taken for
// granted but that it is a line.
json parseObject(const char* what, std::string_view line) {
  const auto refuseDepth = [&](int depth, json::parse_event_t, json&) {
    if (depth > kMostNesting) throw Failure(fmt::format("{} is nested too deeply", what));
    return true;
  };
  json object = json::parse(line, refuseDepth, false);
  if (!object.is_object()) throw Failure(fmt::format("{} is no JSON object", what));
  const auto version = object.find("version");
  if (version == object.end() || !version->is_number_integer())
    throw Failure(fmt::format("{} names no version", what));
  if (*version != kControlVersion)
    throw Failure(fmt::format("{} is of version {}; only version {} is understood here", what,
                              version->dump(), kControlVersion));
  return object;
}

ControlCommand commandOf(const json& request) {
  const auto named = request.find("command");
  for (const Name& name : kCommands)
    if (named != request.end() && *named == name.name) return name.command;
  throw Failure("the request names no command that is known; there are flush, status, rescan");
}

// Whatever bytes a sentence quotes, the line is JSON.
std::string lineOf(json object) {
  object["version"] = kControlVersion;
  return object.dump(-1, ' ', false, json::error_handler_t::replace) + '\n';
}

}  // namespace

ControlRequest parseRequest(std::string_view line) {
  const json object = parseObject("the request", line);
  ControlRequest request{commandOf(object), getBytes(object, "volume")};
  if (!request.volume.empty() && request.volume.front() != '/')
    throw Failure("the request's volume is no absolute path");
  return request;
}

std::string requestLine(const ControlRequest& request) {
  const auto name = std::ranges::find(kCommands, request.command, &Name::command);
  json object = {{"command", name->name}};
  if (!request.volume.empty()) putBytes(object, "volume", request.volume);
  return lineOf(std::move(object));
}

std::string answerLine(json members) {
  members["ok"] = true;
  return lineOf(std::move(members));
}

std::string refusalLine(std::string_view sentence) {
  return lineOf({{"ok", false}, {"error", sentence}});
}

json parseAnswer(std::string_view line) {
  json answer = parseObject("the answer", line);
  const json ok = answer.value("ok", json()), error = answer.value("error", json());
  if (ok == false && error.is_string()) throw Failure(error.get<std::string>());
  if (ok != true) throw Failure("the answer is neither yes nor no");
  answer.erase("version");
  answer.erase("ok");
  return answer;
}

// JSON holds text, and paths are bytes.
void putBytes(json& object, const std::string& name, std::string_view bytes) {
  if (isUtf8(bytes))
    object[name] = bytes;
  else
    object[name + "_base64"] = toBase64(bytes);
}

std::string getBytes(const json& object, const std::string& name) {
  const auto text = object.find(name), digits = object.find(name + "_base64");
  if (text == object.end() && digits == object.end()) return {};
  if (text != object.end() && digits == object.end() && text->is_string())
    return text->get<std::string>();
  if (text == object.end() && digits->is_string())
    if (auto bytes = fromBase64(digits->get_ref<const std::string&>())) return *std::move(bytes);
  throw Failure(fmt::format("{} is no text", name));
}

}  // namespace kddc
