// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How the platform layer fails: with a KdException that carries the place in the source. Private.
#pragma once

#include <string>
#include <system_error>
#include <utility>

#include "platform/exceptions.h"

namespace kddc {

// The text of an errno value, from any thread.
inline std::string errnoText(int number) {
  return std::generic_category().message(number);
}

// Throws a KdException of `function`; `code` is an errno, or -1 where there is none. The last two
// arguments are the caller's own place and stay at their defaults.
[[noreturn]] inline void failKd(std::string function, std::string message, int code,
                                const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  throw KdException(std::move(function), std::move(message), file, line, code);
}

}  // namespace kddc
