// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The library's log on standard error.
#pragma once

namespace kddc {

// Sends the library's log to standard error: nothing at verbosity 0, where the program's own line
// says what went wrong; errors and ever more detail from 1 on.
void startLogging(int verbosity);

}  // namespace kddc
