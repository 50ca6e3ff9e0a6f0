// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The command line: from the words to one command, and from its end to an exit code.
#pragma once

namespace kddc {

// Parses the words, runs the command they name and returns the exit code: 0 done, 1 a difference or
// a failed check was found, 2 the words make no sense, 3 the work could not be done. Whatever goes
// wrong is one line on standard error; nothing is thrown.
int runCommandLine(int argc, char** argv);

}  // namespace kddc
