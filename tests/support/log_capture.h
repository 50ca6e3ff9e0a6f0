// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Collects what the library logs while it lives.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "platform/ev_debug.h"

namespace kddc::test {

class LogCapture {
 public:
  explicit LogCapture(int level) {
    dbg.SetLevel(level);
    previous_ = dbg.SetSink([this](const EvDebug::Line& line) {
      const char* kind = line.kind == EvDebug::Line::kError ? "error" : "debug";
      lines_.push_back(std::string(kind) + " " + std::to_string(line.level) + " " +
                       std::string(line.tag) + ": " + std::string(line.text));
    });
  }
  ~LogCapture() {
    dbg.SetSink(std::move(previous_));
    dbg.SetLevel(0);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Each line as "<error|debug> <level> <tag>: <text>".
  const std::vector<std::string>& lines() const { return lines_; }
  bool has(const std::string& line) const {
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
  }
  // Whether some line holds `text`.
  bool mentions(const std::string& text) const {
    return std::any_of(lines_.begin(), lines_.end(), [&](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  }

 private:
  std::vector<std::string> lines_;
  EvDebug::Sink previous_;
};

}  // namespace kddc::test
