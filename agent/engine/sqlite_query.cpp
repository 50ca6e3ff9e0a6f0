// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/sqlite_query.h"

#include <fmt/format.h>

#include "platform/exceptions.h"

namespace kddc {
namespace {

constexpr int kBusyMilliseconds = 5000;

// A catalogue is read through once, from front to back: mapped, no page is copied.
constexpr char kSettings[] =
    "PRAGMA mmap_size=2147418112; PRAGMA cell_size_check=1; PRAGMA trusted_schema=0";

// SQLite hears of a read-only medium only in a URI, where every byte may be given as %xx.
std::string uriOf(const std::string& path) {
  std::string uri = "file:";
  for (const char c : path)
    uri += c == '/' ? "/" : fmt::format("%{:02x}", static_cast<unsigned char>(c));
  return uri + "?immutable=1";
}

}  // namespace

ReadConnection::ReadConnection(const std::string& path, Medium medium) {
  sqlite3* handle = nullptr;
  const bool isUri = medium == Medium::kReadOnly;
  const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX | (isUri ? SQLITE_OPEN_URI : 0);
  const int result = sqlite3_open_v2((isUri ? uriOf(path) : path).c_str(), &handle, flags, nullptr);
  handle_.reset(handle);
  if (result != SQLITE_OK) fail(result);
  sqlite3_busy_timeout(handle, kBusyMilliseconds);
  run(kSettings);
}

void ReadConnection::run(const char* sql) const {
  const int result = sqlite3_exec(get(), sql, nullptr, nullptr, nullptr);
  if (result != SQLITE_OK) fail(result);
}

void ReadConnection::fail(int result) const {
  throw UDCException("ReadConnection", 3, result,
                     handle_ ? sqlite3_errmsg(get()) : sqlite3_errstr(result));
}

Query::Query(const ReadConnection& connection, const char* sql) : connection_(connection) {
  sqlite3_stmt* statement = nullptr;
  const int result = sqlite3_prepare_v2(connection.get(), sql, -1, &statement, nullptr);
  statement_.reset(statement);
  if (result != SQLITE_OK) connection.fail(result);
}

void Query::bindAt(int parameter, std::int64_t value) {
  const int result = sqlite3_bind_int64(statement_.get(), parameter, value);
  if (result != SQLITE_OK) connection_.fail(result);
}

Query& Query::bindText(int parameter, std::string_view text) {
  const int result = sqlite3_bind_text(statement_.get(), parameter, text.data(),
                                       static_cast<int>(text.size()), SQLITE_TRANSIENT);
  if (result != SQLITE_OK) connection_.fail(result);
  return *this;
}

bool Query::step() {
  const int result = sqlite3_step(statement_.get());
  if (result == SQLITE_ROW) return true;
  reset();
  if (result != SQLITE_DONE) connection_.fail(result);
  return false;
}

std::string_view Query::text(int column) const {
  const auto* bytes = sqlite3_column_text(statement_.get(), column);
  if (!bytes) return {};
  const int length = sqlite3_column_bytes(statement_.get(), column);
  return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)};
}

}  // namespace kddc
