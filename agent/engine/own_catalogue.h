// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a catalogue must be before it is written: ours, and nothing but a catalogue. Whoever only
// reads may read somebody else's.
//
// Threads: any. Failures: Failure, which says what is wrong and what to do.
#pragma once

#include <string>

namespace kddc {

// The folder is our own (see own_folder.h), and so is each file of the catalogue in it: a plain
// file, ours or root's, that others may not write and that has no second name. A folder, or a file,
// that does not exist is nobody else's.
void requireOwnFiles(const std::string& folder);

// The same, and the databases hold tables and indexes only. A trigger would run with our rights
// whenever a row is written.
void requireOwnCatalogue(const std::string& folder);

}  // namespace kddc
