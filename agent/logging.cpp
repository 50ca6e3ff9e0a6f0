// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/logging.h"

#include <fmt/format.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <algorithm>
#include <array>
#include <memory>

#include "platform/ev_debug.h"
#include "platform/printable.h"

namespace kddc {
namespace {

// The library's level for each -v; its deepest is 7.
constexpr std::array kLevels = {0, 2, 5, 7};

void writeLine(spdlog::logger& logger, const EvDebug::Line& line) {
  const auto level = line.kind == EvDebug::Line::kError ? spdlog::level::err
                     : line.level <= 1                  ? spdlog::level::info
                                                        : spdlog::level::debug;
  logger.log(level, "{}: {}", printable(line.tag), printable(line.text));
}

}  // namespace

void startLogging(int verbosity) {
  if (verbosity <= 0) {
    dbg.SetSink([](const EvDebug::Line&) {});
    return;
  }
  const auto logger =
      std::make_shared<spdlog::logger>("kddc", std::make_shared<spdlog::sinks::stderr_sink_mt>());
  logger->set_level(spdlog::level::debug);
  logger->set_pattern("%Y-%m-%d %H:%M:%S.%e %l %v");
  dbg.SetSink([logger](const EvDebug::Line& line) { writeLine(*logger, line); });
  dbg.SetLevel(kLevels[std::min(static_cast<std::size_t>(verbosity), kLevels.size() - 1)]);
}

}  // namespace kddc
