// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue's folder seen from outside: what lies in it and who uses it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace kddc {

inline constexpr const char* kFilesDatabase = "/.db.kd";
inline constexpr const char* kFidDatabase = "/.fid.kd";
// What may stand beside a database, and the database itself.
inline constexpr const char* kDatabaseSuffixes[] = {"", ".lock", "-wal", "-shm", "-journal"};

// Whoever has one of the two databases open for writing, as "process 4121 (kddc scan)"; none when
// nobody has.
std::optional<std::string> userOf(const std::string& folder);

// Throws Failure, which names the user, when there is one.
void refuseWhileInUse(const std::string& folder);
// "process 4121 (kddc watch)", as far as the system tells; 0 is a process that is not known.
std::string describeProcess(pid_t process);

// Whether both databases are open for writing: somebody keeps the catalogue. A check, in contrast,
// opens one after the other.
bool isKept(const std::string& folder);

// Throws Failure when the folder holds anything that is no file of a catalogue. A folder that does
// not exist holds nothing.
void refuseForeignFiles(const std::string& folder);

}  // namespace kddc
