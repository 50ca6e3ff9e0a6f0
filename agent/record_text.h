// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Decoded records in the forms in which the program shows them.
#pragma once

#include <fmt/format.h>

#include "records/journal_record.h"

namespace kddc {

// The text of printRawCmd, byte for byte, and a newline.
void appendText(const FlrJrnCommandRaw& record, fmt::memory_buffer& out);

// The same, made harmless for a terminal: names as `printable` writes them, data with a dot for
// each byte that is no printable ASCII character.
void appendHarmlessText(const FlrJrnCommandRaw& record, fmt::memory_buffer& out);

// One JSON object, all of header and payload, and a newline. Numbers are unsigned, as they travel;
// a time is [seconds, nanoseconds]; a name that is not UTF-8 and every data block is given in
// base64.
void appendJson(const FlrJrnCommandRaw& record, fmt::memory_buffer& out);

}  // namespace kddc
