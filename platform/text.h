// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Names on their way into a database: to UTF-8, and into SQL text.
//
// Threads: every call may come from any thread. Failures: none but lack of memory.
#pragma once

#include <string>

#include "platform/export.h"

// The name converted from the encoding of the current locale (setlocale or uselocale of the caller)
// to UTF-8. Nothing is ever lost: in a UTF-8 or ASCII locale the bytes are given back unchanged,
// and so they are where they are not valid in the locale's encoding.
KDDC_API std::string mbeToUtf(const char* name);

// `text` with every single quote doubled, as it must stand between the quotes of an SQL literal.
// The quotes around it are the caller's.
KDDC_API std::string AppendSingleQuote(const std::string& text);
