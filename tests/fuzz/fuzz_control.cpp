// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A line of the control socket, on any bytes: as a request and as an answer. What cannot be
// understood is a Failure and nothing else; what can survives being written and read again.
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "agent/control/protocol.h"
#include "agent/control/volume_status.h"
#include "agent/errors.h"
#include "tests/fuzz/fuzz.h"

using kddc::fuzz::require;

namespace {

// Without its end, which must be its only one.
std::string_view bodyOf(std::string_view line) {
  require(line.find('\n') == line.size() - 1);
  return line.substr(0, line.size() - 1);
}

void readRequest(std::string_view line) {
  const kddc::ControlRequest request = kddc::parseRequest(line);
  require(kddc::parseRequest(bodyOf(kddc::requestLine(request))) == request);
}

void readAnswer(std::string_view line) {
  const nlohmann::json answer = kddc::parseAnswer(line);
  require(kddc::parseAnswer(bodyOf(kddc::answerLine(answer))) == answer);
  const kddc::VolumeStatus status = kddc::volumeStatusFrom(answer);
  require(kddc::volumeStatusFrom(kddc::toJson(status)) == status);
}

void reading(void (*read)(std::string_view), std::string_view line) {
  try {
    read(line);
  } catch (const kddc::Failure& e) {
    try {
      kddc::parseAnswer(bodyOf(kddc::refusalLine(e.what())));
      require(false);
    } catch (const kddc::Failure& told) {
      require(e.what() == std::string_view(told.what()));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string line = kddc::fuzz::textOf(data, size);
  reading(readRequest, line);
  reading(readAnswer, line);
  return 0;
}
