// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A look at a database file through a connection of the test's own, independent of the library.
#pragma once

#include <sqlite3.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace kddc::test {

class DatabaseView {
 public:
  explicit DatabaseView(const std::string& path, bool create = false) {
    const int flags = SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
    if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK)
      throw std::runtime_error("cannot open " + path);
  }
  ~DatabaseView() { sqlite3_close_v2(db_); }
  DatabaseView(const DatabaseView&) = delete;
  DatabaseView& operator=(const DatabaseView&) = delete;

  // Runs `text`; the rows come as "a|b|c", a NULL as "NULL".
  std::vector<std::string> rows(const std::string& text) {
    std::vector<std::string> rows;
    const auto collect = [](void* out, int columns, char** values, char**) {
      std::string row;
      for (int i = 0; i < columns; ++i) {
        if (i > 0) row += '|';
        row += values[i] ? values[i] : "NULL";
      }
      static_cast<std::vector<std::string>*>(out)->push_back(row);
      return 0;
    };
    if (sqlite3_exec(db_, text.c_str(), collect, &rows, nullptr) != SQLITE_OK)
      throw std::runtime_error(text + ": " + sqlite3_errmsg(db_));
    return rows;
  }
  // The one cell of the one row.
  std::string cell(const std::string& text) {
    const auto all = rows(text);
    return all.size() == 1 ? all[0] : std::to_string(all.size()) + " rows";
  }
  sqlite3* handle() { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

}  // namespace kddc::test
