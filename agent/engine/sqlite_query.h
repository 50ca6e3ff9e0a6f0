// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Read-only access to one database of a catalogue, for answers: no lock file is made or taken, so a
// writer is never in the way.
//
// The database may be anybody's: its triggers, views and virtual tables are not run, and it is
// mapped only when nobody but we and root can write it.
//
// Threads: one for a connection and its queries. Failures: UDCException of type 3 with SQLite's
// code and words; Failure for something that is no file.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kddc {

// Has SQLite call `tick`, unless it is null, after each so many steps of its work; false ends the
// work with SQLite's code 9 (interrupted). What it points to must outlive the connection's work.
void setTick(sqlite3* database, int steps, std::function<bool()>* tick);

class ReadConnection {
 public:
  // On a read-only medium nothing can be made beside the database, and nobody changes it.
  enum class Medium { kWritable, kReadOnly };

  // Opens the file, which must exist; a link in its place is not followed.
  explicit ReadConnection(const std::string& path, Medium medium = Medium::kWritable);

  sqlite3* get() const { return handle_.get(); }
  // Executes statements that give no rows.
  void run(const char* sql) const;
  // Throws what SQLite has to say about its last result.
  [[noreturn]] void fail(int result) const;

 private:
  struct Close {
    void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
  };
  std::unique_ptr<sqlite3, Close> handle_;
};

// A prepared query, executed as often as wanted. Text that it gives is valid until the next step or
// reset; the connection must outlive it.
class Query {
 public:
  Query(const ReadConnection& connection, const char* sql);

  // ?1, ?2, ...
  template <class... Values>
  Query& bind(Values... values) {
    int parameter = 0;
    ((void)bindAt(++parameter, static_cast<std::int64_t>(values)), ...);
    return *this;
  }
  // A text for the parameter of that number, after the values.
  Query& bindText(int parameter, std::string_view text);
  // Whether there is another row; after the last one the query is reset.
  bool step();
  void reset() { sqlite3_reset(statement_.get()); }

  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  // 32 bits as rows hold them: signed in the database, meant as unsigned.
  std::uint32_t word(int column) const { return static_cast<std::uint32_t>(integer(column)); }
  std::string_view text(int column) const;

 private:
  void bindAt(int parameter, std::int64_t value);

  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  const ReadConnection& connection_;
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
};

}  // namespace kddc
