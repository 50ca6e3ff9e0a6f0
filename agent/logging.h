// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The library's log on standard error, and names made harmless for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace kddc {

// Sends the library's log to standard error: nothing at verbosity 0, where the program's own line
// says what went wrong; errors and ever more detail from 1 on.
void startLogging(int verbosity);

// `text` with everything that could steer a terminal or break a line written as \n, \t or \xNN:
// control bytes, and all bytes above 7f when they are not UTF-8.
std::string printable(std::string_view text);

// Whether `text` is well-formed UTF-8.
bool isUtf8(std::string_view text);

}  // namespace kddc
