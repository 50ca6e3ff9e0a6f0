// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A full disk is an error, also where SQLite writes through memory: the index of its write-ahead
// log is a mapped file (-shm), and where the file system finds no place for what is written there
// the kernel kills the process (SIGBUS). That each page of the file has its place once does not
// help where blocks are smaller than pages (ext4 on a small disk), nor where what has reached the
// disk needs another place when it is written to again (Btrfs). Private.
#pragma once

struct sqlite3;

namespace kddc {

// From now on the connection makes sure that its log's index can be written to each time that it is
// about to, and fails with SQLITE_FULL where there is no room. Before anything was read through it.
void guardWalIndex(sqlite3* handle);

}  // namespace kddc
