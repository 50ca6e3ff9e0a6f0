// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/database_opening.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <system_error>

#include "platform/wal_index_guard.h"

namespace kddc {
namespace {

struct Setting {
  int option;
  int value;
};

// A text in double quotes is never taken for a string: a misspelt column is an error.
constexpr Setting kSettings[] = {
    {SQLITE_DBCONFIG_DEFENSIVE, 1},
    {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
    {SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0},
    {SQLITE_DBCONFIG_DQS_DML, 0},
    {SQLITE_DBCONFIG_DQS_DDL, 0},
};
// Far above what values and texts of ours need: what is larger was planted, to cost memory or time.
constexpr Setting kLimits[] = {
    {SQLITE_LIMIT_LENGTH, 16 * 1024 * 1024},
    {SQLITE_LIMIT_ATTACHED, 1},  // VACUUM needs it
    {SQLITE_LIMIT_EXPR_DEPTH, 100},
};

// Of an URI, the name that it stands for was looked at by the caller.
bool isSomethingElse(const std::string& path, int flags) {
  struct stat status {};
  return (flags & SQLITE_OPEN_URI) == 0 && lstat(path.c_str(), &status) == 0 &&
         !S_ISREG(status.st_mode);
}

}  // namespace

std::string withResolvedFolder(const std::string& path) {
  const std::filesystem::path given(path);
  std::error_code ignored;
  const auto folder =
      std::filesystem::canonical(given.has_parent_path() ? given.parent_path() : ".", ignored);
  return ignored ? path : (folder / given.filename()).string();
}

int openDatabase(const std::string& path, int flags, sqlite3** handle) {
  if (isSomethingElse(path, flags)) return SQLITE_CANTOPEN;
  const int result = sqlite3_open_v2(path.c_str(), handle, flags | SQLITE_OPEN_NOFOLLOW, nullptr);
  if (result != SQLITE_OK) return result;
  guardWalIndex(*handle);
  for (const auto& [option, value] : kSettings) sqlite3_db_config(*handle, option, value, nullptr);
  for (const auto& [limit, value] : kLimits) sqlite3_limit(*handle, limit, value);
  return sqlite3_exec(*handle, "PRAGMA cell_size_check=1", nullptr, nullptr, nullptr);
}

void distrustSchema(sqlite3* handle) {
  sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(handle, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_drop_modules(handle, nullptr);
}

}  // namespace kddc
