// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Plain text files that name volumes, one mount point a line.
//
// Of every line the last byte is dropped, whatever it is: a last line without a newline loses a
// byte of its text. A line longer than 2047 bytes is taken as several lines of 2047, so each of
// them loses its last byte. Every other byte, a NUL or one that is no UTF-8 included, is kept.
//
// Threads: any. Failures: none are told; of a file that cannot be opened the list is empty, of one
// that cannot be read to its end it holds what was read.
#pragma once

#include <list>
#include <string>

#include "platform/export.h"

// Replaces `volumes` by the lines of the file at `path`, in their order; an empty line is an empty
// entry and duplicates are kept.
KDDC_API void ReadVolListFromFile(const std::string& path, std::list<std::string>& volumes);

// The same for a hook file of a fail-over, whose lines are a mount point, a tab and another word:
// of each line only the first word is an entry. A line without a word is skipped.
KDDC_API void ReadVolListFromFailOverHookFile(const std::string& path,
                                              std::list<std::string>& volumes);
