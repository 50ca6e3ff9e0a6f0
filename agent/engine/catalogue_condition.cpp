// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/catalogue_condition.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <future>
#include <vector>

#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_header.h"
#include "agent/engine/sqlite_query.h"
#include "agent/errors.h"
#include "platform/exceptions.h"
#include "platform/udc_dbms.h"
#include "volumes/catalogue_files.h"

namespace kddc {
namespace {

namespace fs = std::filesystem;
using Kind = CatalogueCondition::Kind;

constexpr char kAside[] = ".corrupt-";
// So many are kept for whoever wants to know what happened; more would fill the disk.
constexpr std::size_t kMostAside = 3;

bool isThere(const std::string& file) {
  return access(file.c_str(), F_OK) == 0 || errno != ENOENT;
}

// Answers of SQLite that speak of the file and not of our means to read it.
bool meansDamage(const UDCException& e) {
  switch (e.GetErrorNumber() & 0xff) {
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
    case SQLITE_ERROR:  // no such table, no such column
      return true;
    default:
      return false;
  }
}

CatalogueCondition examineHeader(const CatalogueHeader& header) {
  if (header.version != kCatalogueVersion)
    return {Kind::kDamaged,
            fmt::format("it is of version '{}', not {}", header.version, kCatalogueVersion)};
  if (!header.fullScan) return {Kind::kNone, {}};
  if (header.volume.empty()) return {Kind::kDamaged, "it has no root"};
  return {Kind::kUsable, {}};
}

// Without a change, and so also where there is no room for one.
bool readsWhole(const std::string& database) {
  try {
    const ReadConnection connection(database);
    Query check(connection, "PRAGMA integrity_check(1)");
    return check.step() && check.text(0) == "ok";
  } catch (const UDCException& e) {
    if (!meansDamage(e)) throw;
    return false;
  }
}

// Rows that are whole keep their numbers, whatever became of the indexes. A vacuum copies those.
bool isWhole(const std::string& database) {
  if (passesCheck(database)) return true;
  try {
    UDC_DBMS db(database, 2, 0, false);
    if (!db.opendb(false)) return false;
    db.exec_query("REINDEX");
    db.closedb(false);
  } catch (const UDCException& e) {
    if (!meansDamage(e)) throw;
    return false;  // it is beyond that
  }
  return passesCheck(database);
}

// The one reads mostly indexes, the other mostly rows: together they take as long as the longer.
CatalogueCondition examinePages(const std::string& folder) {
  const std::string files = folder + kFilesDatabase, fids = folder + kFidDatabase;
  auto fidsAreWhole = std::async(std::launch::async, [&] { return isWhole(fids); });
  const bool filesAreWhole = isWhole(files);
  if (!fidsAreWhole.get()) return {Kind::kDamaged, ".fid.kd is damaged"};
  if (!filesAreWhole) return {Kind::kDamaged, ".db.kd is damaged"};
  return {Kind::kUsable, {}};
}

// From what costs least to what costs most; the pages are read last.
CatalogueCondition examine(const std::string& folder, const std::string& volumePath) {
  const bool files = isThere(folder + kFilesDatabase), fids = isThere(folder + kFidDatabase);
  if (!files && !fids) return {Kind::kNone, {}};
  if (!files || !fids)
    return {Kind::kDamaged, fmt::format("{} is missing", files ? ".fid.kd" : ".db.kd")};
  const CatalogueHeader header = readHeader(ReadConnection(folder + kFilesDatabase));
  CatalogueCondition condition = examineHeader(header);
  if (condition.kind != Kind::kUsable) return condition;
  Query(ReadConnection(folder + kFidDatabase), "SELECT FIDS_ROWID FROM FIDS LIMIT 1").step();
  // Another volume's: whoever is about to put one in its place refuses.
  if (header.volume != volumePath) return {Kind::kNone, {}};
  return examinePages(folder);
}

// Oldest first: the times have as many digits each.
std::vector<fs::path> setAsideBefore(const std::string& folder) {
  const std::string prefix = fs::path(folder).filename().string() + kAside;
  std::vector<fs::path> found;
  std::error_code error;
  for (fs::directory_iterator entry(fs::path(folder).parent_path(), error), end;
       !error && entry != end; entry.increment(error))
    if (entry->path().filename().string().starts_with(prefix)) found.push_back(entry->path());
  std::ranges::sort(found);
  return found;
}

}  // namespace

CatalogueCondition examineCatalogue(const std::string& folder, const std::string& volumePath) {
  return during("cannot examine the catalogue in " + folder, [&]() -> CatalogueCondition {
    try {
      return examine(folder, volumePath);
    } catch (const UDCException& e) {
      if (meansDamage(e)) return {Kind::kDamaged, e.GetMessage()};
      throw;
    }
  });
}

bool passesCheck(const std::string& database) {
  return VerifyDBIntegrity(database.c_str()) || readsWhole(database);
}

// A name that nobody has: two that are set aside within a second must not meet.
std::string setAside(const std::string& folder) {
  std::vector<fs::path> before = setAsideBefore(folder);
  for (std::time_t time = std::time(nullptr);; ++time) {
    const std::string aside = folder + kAside + std::to_string(time);
    if (renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
      for (std::size_t i = 0; i + kMostAside <= before.size(); ++i) RemoveDCDb(before[i]);
      return aside;
    }
    if (errno != EEXIST) throw systemFailure("cannot set aside the catalogue in " + folder, errno);
  }
}

}  // namespace kddc
