// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/errors.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <system_error>

#include "platform/exceptions.h"
#include "platform/printable.h"

namespace kddc {
namespace {

std::string ofDatabase(int code, const std::string& message) {
  switch (code & 0xff) {  // the primary code
    case SQLITE_FULL:
      return "the disk is full; make room and try again";
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return fmt::format("the catalogue is damaged ({}); rebuild it with: kddc scan", message);
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return "the catalogue is in use by another process; try again later";
    default:
      return fmt::format("{} (SQLite {}: {})", message, code, sqlite3_errstr(code));
  }
}

std::string ofLibrary(const UDCException& e) {
  if (e.GetType() == 3) return ofDatabase(e.GetErrorNumber(), e.GetMessage());
  if (e.GetErrorNumber() == 0) return e.GetMessage();
  return fmt::format("{}: {}", e.GetMessage(), std::strerror(e.GetErrorNumber()));
}

}  // namespace

Failure systemFailure(const std::string& what, int error) {
  return Failure(what + ": " + std::strerror(error), error);
}

std::string describeCurrentException() {
  try {
    throw;
  } catch (const UDCException& e) {
    return ofLibrary(e);
  } catch (const KdException& e) {
    return e.getMessage();
  } catch (const std::bad_alloc&) {
    return "out of memory";
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "an unknown error";
  }
}

int errnoOfCurrentException() {
  try {
    throw;
  } catch (const Failure& e) {
    return e.error();
  } catch (const std::system_error& e) {
    return e.code().value();
  } catch (const UDCException& e) {
    return e.GetType() == 0 ? e.GetErrorNumber() : 0;
  } catch (...) {
    return 0;
  }
}

void complain(const std::string& sentence) {
  fmt::print(stderr, "kddc: {}\n", printable(sentence));
}

}  // namespace kddc
