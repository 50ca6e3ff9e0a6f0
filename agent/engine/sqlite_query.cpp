// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/sqlite_query.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/errors.h"
#include "platform/database_opening.h"
#include "platform/exceptions.h"

namespace kddc {
namespace {

// A reader waits for nobody but whoever is about to make, mend or put away the log.
constexpr int kBusyMilliseconds = 5000;

// A catalogue is read through once, from front to back: mapped, no page is copied.
constexpr char kMapped[] = "PRAGMA mmap_size=2147418112";

// Who can write a file that is mapped can make the reader crash, by cutting it short.
bool isOurs(const struct stat& file) {
  return (file.st_uid == 0 || file.st_uid == geteuid()) && (file.st_mode & 022) == 0;
}

// SQLite hears of a read-only medium only in a URI, where every byte may be given as %xx.
std::string uriOf(const std::string& path) {
  std::string uri = "file:";
  for (const char c : path)
    uri += c == '/' ? "/" : fmt::format("%{:02x}", static_cast<unsigned char>(c));
  return uri + "?immutable=1";
}

}  // namespace

void setTick(sqlite3* database, int steps, std::function<bool()>* tick) {
  const auto call = [](void* ticking) {
    return (*static_cast<std::function<bool()>*>(ticking))() ? 0 : 1;
  };
  sqlite3_progress_handler(database, tick ? steps : 0, call, tick);
}

ReadConnection::ReadConnection(const std::string& path, Medium medium) {
  const std::string file = withResolvedFolder(path);
  struct stat status {};
  const bool isThere = lstat(file.c_str(), &status) == 0;
  if (isThere && !S_ISREG(status.st_mode))
    throw Failure("cannot use " + path +
                  ": it is no file but a link, or something else; remove it");
  sqlite3* handle = nullptr;
  const bool isUri = medium == Medium::kReadOnly;
  const int flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX | (isUri ? SQLITE_OPEN_URI : 0);
  const int result = openDatabase(isUri ? uriOf(file) : file, flags, &handle);
  handle_.reset(handle);
  if (result != SQLITE_OK) fail(result);
  distrustSchema(handle);
  sqlite3_busy_timeout(handle, kBusyMilliseconds);
  if (isOurs(status)) run(kMapped);
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
