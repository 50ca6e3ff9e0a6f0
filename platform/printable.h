// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Names made harmless. Whoever may make a file may give it any name; on a terminal its bytes could
// move the cursor, change what was written before or answer for the user, and in a log begin a line
// that nobody wrote. Private.
#pragma once

#include <string>
#include <string_view>

namespace kddc {

// `text` with everything that could steer a terminal or break a line written as \n, \t or \xNN:
// control bytes, the controls U+0080 to U+009F, and all bytes above 7f when they are not UTF-8.
std::string printable(std::string_view text);

// The same of a whole JSON text, for a name in it may hold DEL and the controls U+0080 to U+009F:
// they become \u00NN, which means the same.
std::string printableJson(std::string json);

// Whether `text` is well-formed UTF-8.
bool isUtf8(std::string_view text);

}  // namespace kddc
