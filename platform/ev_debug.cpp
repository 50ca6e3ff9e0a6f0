// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/ev_debug.h"

#include <cstdio>
#include <string>
#include <utility>

#include "platform/printable.h"

EvDebug dbg;

namespace {

// Measured, then written: paths make lines of any length.
std::string format(const char* text, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, text, arguments);
  std::string line(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  std::vsnprintf(line.data(), line.size() + 1, text, again);
  va_end(again);
  return line;
}

void writeErrors(const EvDebug::Line& line) {
  if (line.kind != EvDebug::Line::kError) return;
  std::fprintf(stderr, "%s: %s\n", kddc::printable(line.tag).c_str(),
               kddc::printable(line.text).c_str());
}

}  // namespace

EvDebug::Sink EvDebug::SetSink(Sink sink) {
  const std::lock_guard lock(mutex_);
  return std::exchange(sink_, std::move(sink));
}

void EvDebug::Debug(const char* tag, const char* format, ...) {
  if (!Enabled(1)) return;
  va_list arguments;
  va_start(arguments, format);
  deliver(Line::kDebug, 1, tag, format, arguments);
  va_end(arguments);
}

void EvDebug::DebugLvl(const char* tag, int level, const char* format, ...) {
  if (!Enabled(level)) return;
  va_list arguments;
  va_start(arguments, format);
  deliver(Line::kDebugLvl, level, tag, format, arguments);
  va_end(arguments);
}

void EvDebug::Error(const char* tag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  deliver(Line::kError, 0, tag, format, arguments);
  va_end(arguments);
}

// The text is made before the lock is taken; one line at a time, so that those of two threads do
// not mix and a sink need not lock.
void EvDebug::deliver(Line::Kind kind, int level, const char* tag, const char* format,
                      va_list arguments) {
  const std::string text = ::format(format, arguments);
  const Line line{kind, level, tag, text};
  const std::lock_guard lock(mutex_);
  if (sink_)
    sink_(line);
  else
    writeErrors(line);
}
