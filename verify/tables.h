// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How a comparison with the disk asks the two databases of an open catalogue, and how its
// operations end when something fails. Private.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <utility>

#include "platform/logged.h"
#include "platform/udc_dbms.h"

namespace kddc {

// Writes an SQL text into the catalogue's buffer. Throws std::length_error when it does not fit.
[[gnu::format(printf, 2, 3)]] inline const char* sqlText(std::span<char> buffer, const char* format,
                                                         ...) {
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
  va_end(arguments);
  if (length < 0 || static_cast<std::size_t>(length) >= buffer.size())
    throw std::length_error("SQL text is longer than its buffer");
  return buffer.data();
}

// What a query found. The cells are valid until the next query of the same database.
struct Found {
  unsigned rows;
  std::span<const char* const> cells;  // of the first row

  bool oneRow() const { return rows == 1; }
  bool hasNull() const { return std::ranges::find(cells, nullptr) != cells.end(); }
  // A text that is no number is 0, and a negative number stands for the unsigned one it was.
  unsigned long long number(std::size_t cell) const {
    return std::strtoull(cells[cell], nullptr, 10);
  }
};

inline Found find(UDC_DBMS& db, const char* sql) {
  db.exec_query_get_table(sql);
  if (db.rowCount == 0) return {0, {}};
  const auto columns = static_cast<std::size_t>(db.columnCount);
  return {static_cast<unsigned>(db.rowCount), db.table.subspan(columns, columns)};
}

// Runs `operation`; what leaves it is logged under `tag`, and a KdException, which says no more
// than its message here, goes on as a UDCException of type 5.
template <class Operation>
decltype(auto) loggedAsOurs(const char* tag, Operation&& operation) {
  try {
    return logged(tag, std::forward<Operation>(operation));
  } catch (const KdException& e) {
    dbg.Error(tag, "eRRoR -- %s ", e.getMessage().c_str());
    throw UDCException(tag, 5, e.getMessage(), 0);
  }
}

}  // namespace kddc
