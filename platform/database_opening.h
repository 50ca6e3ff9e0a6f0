// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How every database is opened: the very file that is named, and with nothing believed that a
// damaged or planted one may hold. Private.
#pragma once

#include <string>

struct sqlite3;

namespace kddc {

// The path with the links of its folder resolved, and its last part as it is. SQLite refuses a path
// with a symbolic link anywhere in it when asked not to follow one, but only the last part can be
// planted by whoever may write into the folder.
std::string withResolvedFolder(const std::string& path);

// sqlite3_open_v2, of a path as withResolvedFolder gives it. Refuses (SQLITE_CANTOPEN) what is no
// regular file: a link is not followed and a pipe not waited for. On the connection no extension is
// loaded, SQLite's own tables are not written, and what the schema says may call no function that
// has effects; pages are checked as they are read, and a value has at most 16 MiB.
int openDatabase(const std::string& path, int flags, sqlite3** handle);

// From now on the connection runs no trigger, shows no view and knows no virtual table.
void distrustSchema(sqlite3* handle);

}  // namespace kddc
