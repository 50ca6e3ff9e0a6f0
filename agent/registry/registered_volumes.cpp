// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/registry/registered_volumes.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "agent/engine/sqlite_query.h"
#include "agent/errors.h"
#include "agent/own_folder.h"
#include "platform/exceptions.h"
#include "platform/platform_info.h"
#include "platform/registry_folder.h"
#include "volumes/registry_database.h"

namespace kddc {
namespace {

std::string registryPath() {
  return registryFolder() + "/DataClassification/volume_db.kd";
}

// What SQLite says is for programmers; these are the failures that somebody can do something about.
std::string reasonOf(const UDCException& e) {
  constexpr char kHeld[] = "another process holds it; try again later";
  const int number = e.GetErrorNumber();
  if (e.GetType() == 0) return number == EWOULDBLOCK ? kHeld : std::strerror(number);
  switch (number & 0xff) {  // the primary code
    case SQLITE_NOTADB:
    case SQLITE_CORRUPT:
      return fmt::format("it is damaged ({}); move it away and run: kddc volumes refresh",
                         e.GetMessage());
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return kHeld;
    case SQLITE_READONLY:
      return "it is read-only";
    case SQLITE_FULL:
      return "the disk is full; make room and try again";
    default:
      return e.GetMessage();
  }
}

// Runs `work`; what the database refuses becomes a sentence.
template <class Work>
decltype(auto) onRegistry(const char* doing, Work&& work) {
  try {
    return work();
  } catch (const UDCException& e) {
    throw Failure(fmt::format("cannot {} the registry {}: {}", doing, registryPath(), reasonOf(e)));
  }
}

// What the process may do counts: a service reads by a capability, which access(2) leaves out.
bool may(int mode, const std::string& path) {
  return faccessat(AT_FDCWD, path.c_str(), mode, AT_EACCESS) == 0;
}

// Where nothing may be written no log can be made beside the database, which SQLite wants even to
// read it. What a crash has left in one is read as ever; an empty one is left by mere readers.
ReadConnection::Medium mediumOf(const std::string& path) {
  struct stat log {};
  const bool hasLog = stat((path + "-wal").c_str(), &log) == 0 && log.st_size > 0;
  const bool readOnly = !may(W_OK, path.substr(0, path.rfind('/'))) && !hasLog;
  return readOnly ? ReadConnection::Medium::kReadOnly : ReadConnection::Medium::kWritable;
}

// A registry that an older version made, or nobody yet, lacks tables; that is no damage.
bool hasTable(const ReadConnection& registry, std::string_view name) {
  Query tables(registry, "SELECT upper(name) FROM sqlite_master WHERE type='table'");
  while (tables.step())
    if (tables.text(0) == name) return true;
  return false;
}

// Calls `take` with each row that `sql` finds in the table; a table that is missing has none.
template <class Take>
void forEachRow(const char* table, const char* sql, Take&& take) {
  const std::string path = registryPath();
  if (!may(F_OK, path) && errno == ENOENT) return;
  onRegistry("read", [&] {
    if (!may(R_OK, path)) throw UDCException("forEachRow", 0, "", errno);
    const ReadConnection registry(path, mediumOf(path));
    if (!hasTable(registry, table)) return;
    for (Query rows(registry, sql); rows.step();) take(rows);
  });
}

}  // namespace

std::vector<RegisteredVolume> registeredVolumes() {
  std::vector<RegisteredVolume> volumes;
  forEachRow("VOLUME",
             "SELECT ROWID,MOUNT_POINT,DEVLABEL,FSTYPE,PATH_TO_DB,LOCAL FROM VOLUME ORDER BY ROWID",
             [&](const Query& row) {
               volumes.push_back({row.integer(0), std::string(row.text(1)),
                                  std::string(row.text(2)), std::string(row.text(3)),
                                  std::string(row.text(4)), row.integer(5) != 0});
             });
  return volumes;
}

// For those who do not depend on it: a user who may not read the registry has catalogues all the
// same.
std::vector<RegisteredVolume> registeredVolumesIfReadable() {
  if (!may(R_OK, registryPath())) return {};
  return registeredVolumes();
}

std::optional<std::string> registeredCatalogue(const std::string& mountPoint) {
  for (const RegisteredVolume& volume : registeredVolumesIfReadable())
    if (volume.mountPoint == mountPoint && !volume.catalogue.empty()) return volume.catalogue;
  return std::nullopt;
}

std::map<std::string, std::string> knownIdentities() {
  std::map<std::string, std::string> identities;
  forEachRow("IDENTITY", "SELECT MOUNT_POINT,UUID FROM IDENTITY",
             [&](const Query& row) { identities.emplace(row.text(0), row.text(1)); });
  return identities;
}

RegistryMode registryMode() {
  std::string mode = "monitor";
  KDPlatformInfo::getString("DataClassification", "VolumesMode", &mode);
  if (mode == "monitor") return RegistryMode::kMonitor;
  if (mode == "filter") return RegistryMode::kFilter;
  throw Failure("the setting VolumesMode is \"" + mode + "\"; it must be monitor or filter");
}

const char* tableOf(RegistryMode mode) {
  return mode == RegistryMode::kMonitor ? "MONITOR" : "FILTER";
}

std::set<std::string> listedNames(RegistryMode mode) {
  std::set<std::string> names;
  forEachRow(tableOf(mode), (std::string("SELECT VOLNAME FROM ") + tableOf(mode)).c_str(),
             [&](const Query& row) { names.emplace(row.text(0)); });
  return names;
}

bool mayEditRegistry() {
  return may(W_OK, std::filesystem::path(registryPath()).parent_path()) &&
         may(W_OK, registryPath());
}

std::map<std::string, KdMntEntry> mountsByPlace() {
  std::map<std::string, KdMntEntry> mounts;
  for (KdMntEntry& entry : KdMntTab::getAll()) mounts[entry.mountPoint] = std::move(entry);
  return mounts;
}

RegistryEditor::RegistryEditor() {
  requireOwnFolder(settledPath(registryFolder() + "/DataClassification"));
  // Of a damaged one this tells the reason, which an opening for writing does not.
  registeredVolumes();
  db_ = onRegistry("open", [] { return openRegistry(); });
  run("CREATE TABLE IF NOT EXISTS IDENTITY(MOUNT_POINT TEXT PRIMARY KEY,UUID TEXT)");
}

void RegistryEditor::close() {
  onRegistry("write", [&] { db_->closedb(false); });
}

std::list<std::string> RegistryEditor::names(RegistryMode mode) {
  return onRegistry("read", [&] {
    db_->exec_query_get_table((std::string("SELECT VOLNAME FROM ") + tableOf(mode)).c_str());
    return firstColumn(*db_);
  });
}

void RegistryEditor::putName(RegistryMode mode, const std::string& mountPoint) {
  run(fmt::format("INSERT INTO {} VALUES({})", tableOf(mode), sqlLiteral(mountPoint)));
}

void RegistryEditor::dropName(RegistryMode mode, const std::string& mountPoint) {
  run(fmt::format("DELETE FROM {} WHERE VOLNAME={}", tableOf(mode), sqlLiteral(mountPoint)));
}

void RegistryEditor::setCatalogue(const std::string& mountPoint, const std::string& folder) {
  run(fmt::format("UPDATE VOLUME SET PATH_TO_DB={} WHERE MOUNT_POINT={}", sqlLiteral(folder),
                  sqlLiteral(mountPoint)));
}

void RegistryEditor::setIdentity(const std::string& mountPoint, const std::string& identity) {
  run(fmt::format("INSERT OR REPLACE INTO IDENTITY VALUES({},{})", sqlLiteral(mountPoint),
                  sqlLiteral(identity)));
}

void RegistryEditor::run(const std::string& sql) {
  onRegistry("write", [&] { db_->exec_query(sql.c_str()); });
}

}  // namespace kddc
