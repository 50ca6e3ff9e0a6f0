// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What is said on the socket of a process that watches: JSON, one request a line, one answer a
// line.
//
//   {"version":1,"command":"flush","volume":"/data"}     {"version":1,"ok":true}
//   {"version":1,"command":"frob"}                       {"version":1,"ok":false,"error":"…"}
//
// A path that is not UTF-8 goes as "volume_base64". Members that are not known are ignored.
// Here are lines and their meaning alone: pure functions, from any thread, safe on any bytes.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace kddc {

inline constexpr int kControlVersion = 1;
// The longest line, its end not counted.
inline constexpr std::size_t kMostRequest = 64 * 1024, kMostAnswer = 1024 * 1024;

enum class ControlCommand { kFlush, kStatus, kRescan };

struct ControlRequest {
  ControlCommand command = ControlCommand::kStatus;
  std::string volume;  // its real path; empty: the volume that the socket belongs to

  friend bool operator==(const ControlRequest&, const ControlRequest&) = default;
};

// The request that a line holds. Throws Failure with the sentence to answer.
ControlRequest parseRequest(std::string_view line);
// The line of a request, its end included.
std::string requestLine(const ControlRequest& request);

// The line of a good answer with these members, an object; and of one that says why not.
std::string answerLine(nlohmann::json members);
std::string refusalLine(std::string_view sentence);
// The members of a good answer. Throws Failure: with the sentence of one that says why not, or one
// about an answer that cannot be understood.
nlohmann::json parseAnswer(std::string_view line);

// Sets `name`, or <name>_base64 where the bytes are not UTF-8.
void putBytes(nlohmann::json& object, const std::string& name, std::string_view bytes);
// Reads what putBytes has set; empty when neither is there. Throws Failure for anything else.
std::string getBytes(const nlohmann::json& object, const std::string& name);

}  // namespace kddc
