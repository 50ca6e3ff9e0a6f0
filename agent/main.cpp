// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The program kddc.
#include <sqlite3.h>
#include <sys/stat.h>

#include <csignal>

#include "agent/command_line.h"
#include "agent/last_words.h"

int main(int argc, char** argv) {
  umask(077);  // what we make is nobody else's business
  kddc::sayLastWords();
  std::signal(SIGPIPE, SIG_IGN);  // a reader that has had enough is met as EPIPE
  // SQLite counts every allocation under one lock unless told not to: 7 % of a scan's inserts.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  return kddc::runCommandLine(argc, argv);
}
