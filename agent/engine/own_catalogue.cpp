// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/own_catalogue.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "agent/engine/catalogue_folder.h"
#include "agent/engine/sqlite_query.h"
#include "agent/errors.h"
#include "agent/own_folder.h"
#include "platform/exceptions.h"

namespace kddc {
namespace {

// A planted row may call itself a table and be a trigger: its text alone is what SQLite goes by.
constexpr char kStrangers[] =
    "SELECT name FROM sqlite_master WHERE sql NOT GLOB 'CREATE TABLE *' AND "
    "sql NOT GLOB 'CREATE INDEX *' AND sql NOT GLOB 'CREATE UNIQUE INDEX *' LIMIT 1";

void requireOwnFile(const std::string& path) {
  struct stat file;
  if (lstat(path.c_str(), &file) != 0) {
    if (errno == ENOENT) return;
    throw systemFailure("cannot use " + path, errno);
  }
  const auto refuse = [&](const std::string& why) { throw Failure(path + " " + why); };
  if (!S_ISREG(file.st_mode)) refuse("is no file but a link, or something else; remove it");
  if (file.st_uid != 0 && file.st_uid != geteuid())
    refuse("belongs to another user; make a new catalogue in another folder");
  if ((file.st_mode & 022) != 0)
    refuse("may be written by others; close it with: chmod go-w " + path);
  if (file.st_nlink > 1) refuse("is a file with further names; put a copy in its place");
}

bool isDamage(const UDCException& e) {
  const int code = e.GetErrorNumber() & 0xff;
  return code == SQLITE_NOTADB || code == SQLITE_CORRUPT;
}

// A damaged database has no schema for anybody; whoever opens it finds out.
void requireOwnSchema(const std::string& folder, const char* database) try {
  if (access((folder + database).c_str(), F_OK) != 0) return;
  const ReadConnection connection(folder + database);
  Query strangers(connection, kStrangers);
  if (strangers.step())
    throw Failure(
        fmt::format("the catalogue in {} holds {}, which is neither table nor index and "
                    "no part of a catalogue; make a new one with: kddc scan",
                    folder, strangers.text(0)));
} catch (const UDCException& e) {
  if (!isDamage(e)) throw;
}

}  // namespace

void requireOwnFiles(const std::string& folder) {
  requireOwnFolder(folder);
  for (const char* database : {kFilesDatabase, kFidDatabase})
    for (const char* suffix : kDatabaseSuffixes) requireOwnFile(folder + database + suffix);
}

void requireOwnCatalogue(const std::string& folder) {
  requireOwnFiles(folder);
  during("cannot use the catalogue in " + folder, [&] {
    for (const char* database : {kFilesDatabase, kFidDatabase}) requireOwnSchema(folder, database);
  });
}

}  // namespace kddc
