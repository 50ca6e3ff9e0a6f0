// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The library's log: printf-like lines under a tag, handed to one sink.
//
// Lines come in three kinds: errors, which are always delivered, debug lines, which count as level
// 1, and lines with a level of their own. A line above the level set costs one comparison; a caller
// that must build an expensive argument first asks Enabled.
//
// Threads: every call may come from any thread. The sink runs under a lock, so lines reach it whole
// and one at a time, and it must not log itself. Failures: none are reported; logging never throws
// unless the sink does.
#pragma once

#include <atomic>
#include <cstdarg>
#include <functional>
#include <mutex>
#include <string_view>

#include "platform/export.h"

class KDDC_API EvDebug {
 public:
  struct Line {
    enum Kind { kDebug, kDebugLvl, kError } kind;
    int level;                   // 0 for errors, 1 for debug lines, else the level given
    std::string_view tag, text;  // valid during the call of the sink
  };
  using Sink = std::function<void(const Line&)>;

  // Replaces the sink and returns the previous one; when it returns, the previous one is no longer
  // in use. The default sink writes errors to standard error and drops the rest.
  Sink SetSink(Sink sink);
  // Lines above `level` are dropped before they are formatted. The default is 0: errors only.
  void SetLevel(int level) { level_.store(level, std::memory_order_relaxed); }
  bool Enabled(int level) const { return level <= level_.load(std::memory_order_relaxed); }

  [[gnu::format(printf, 3, 4)]] void Debug(const char* tag, const char* format, ...);
  [[gnu::format(printf, 4, 5)]] void DebugLvl(const char* tag, int level, const char* format, ...);
  [[gnu::format(printf, 3, 4)]] void Error(const char* tag, const char* format, ...);

 private:
  void deliver(Line::Kind kind, int level, const char* tag, const char* format, va_list arguments);

  std::atomic<int> level_{0};
  std::mutex mutex_;
  Sink sink_;  // empty: the default
};

// The one log of the process.
KDDC_API extern EvDebug dbg;
