// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "volumes/registry_database.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/ev_debug.h"
#include "platform/exceptions.h"
#include "platform/mount_table.h"
#include "platform/registry_folder.h"
#include "platform/text.h"

namespace kddc {
namespace {

struct Schema {
  const char* file;
  const char* table;  // when it is there, nothing is made
  const char* make;
};

constexpr Schema kRegistry{
    .file = "volume_db.kd",
    .table = "VOLUME",
    .make =
        "CREATE TABLE VOLUME(DEVLABEL TEXT,MOUNT_POINT TEXT,FSTYPE TEXT,DEVTYPE INTEGER,"
        "BLOCKSIZE INTEGER,DRIVER_SUPPORT_POSSIBLE TEXT,PATH_TO_DB TEXT,SCAN_PROGRESS TEXT,"
        "INCR_SCAN_PROGRESS TEXT,CURRENT_SCAN_TIME INTEGER,LAST_SCAN_TIME INTEGER,"
        "SCAN_END_TIME INTEGER,ROW_COUNT INTEGER,CHANGE_COUNT INTEGER,LOCAL INTEGER,"
        "MONITORED INTEGER,FILTER_INODE INTEGER,FILTER_INODE1 INTEGER,DB_CREATION_TIME TEXT);"
        "CREATE TABLE IF NOT EXISTS FILTER(VOLNAME TEXT);"
        "CREATE TABLE IF NOT EXISTS MONITOR(VOLNAME TEXT)"};

constexpr Schema kFsTypes{
    .file = "fstype_db.kd",
    .table = "FSTYPE",
    .make =
        "CREATE TABLE FSTYPE(FSTYPE TEXT,DRIVER_SUPPORT_POSSIBLE TEXT);"
        "INSERT INTO FSTYPE VALUES('ext4','Y'),('xfs','Y'),('btrfs','Y'),('tmpfs','Y')"};

// All columns by name: a registry of another version may have them in another order.
constexpr char kInsert[] =
    "INSERT INTO VOLUME(DEVLABEL,MOUNT_POINT,FSTYPE,DEVTYPE,BLOCKSIZE,DRIVER_SUPPORT_POSSIBLE,"
    "PATH_TO_DB,SCAN_PROGRESS,INCR_SCAN_PROGRESS,CURRENT_SCAN_TIME,LAST_SCAN_TIME,SCAN_END_TIME,"
    "ROW_COUNT,CHANGE_COUNT,LOCAL,MONITORED,FILTER_INODE,FILTER_INODE1,DB_CREATION_TIME) VALUES (";

// Failures show when the database is opened.
std::string madeFolder() {
  const std::string registry = registryFolder();
  std::string folder = registry + "/DataClassification";
  std::error_code ignored;
  std::filesystem::create_directories(std::filesystem::path(registry).parent_path(), ignored);
  for (const std::string& path : {registry, folder}) mkdir(path.c_str(), 0700);
  return folder;
}

std::unique_ptr<UDC_DBMS> open(const char* tag, const Schema& schema) {
  const std::string path = madeFolder() + "/" + schema.file;
  auto db = std::make_unique<UDC_DBMS>(path, 2, 120, false);
  errno = 0;  // opendb does not say why; a file that could be locked but is no database leaves none
  if (!db->opendb(false)) {
    const int error = errno;
    throw UDCException(tag, 0, error, error ? std::strerror(error) : "no database",
                       "Unable to open " + path);
  }
  const std::string ask = "SELECT 1 FROM sqlite_master WHERE type='table' AND upper(name)=";
  db->exec_query_get_table((ask + sqlLiteral(schema.table)).c_str());
  if (db->rowCount == 0) {
    db->exec_query(schema.make);
    db->Commit();
  }
  return db;
}

// The number keeps catalogues of several volumes apart in one folder.
std::string newCatalogueFolder(const NewVolume& volume) {
  std::string folder = volume.dbFolder == "NULL" ? volume.mountPoint : volume.dbFolder;
  if (folder != "/") folder += "/";
  return folder + ".DATACLASS_" + std::to_string(static_cast<unsigned int>(volume.number));
}

std::string catalogueFolder(const NewVolume& volume) {
  constexpr char kTag[] = "create_volume_insert_query";
  if (volume.local != 0) return newCatalogueFolder(volume);
  const char* mountPoint = volume.mountPoint.c_str();
  dbg.Debug(kTag, "%s is a Shared volume ", mountPoint);
  std::string path;
  // An empty value would be a volume without a catalogue for ever.
  if (!GetFailOverDbPath(mountPoint, path) || path.empty()) return newCatalogueFolder(volume);
  dbg.Debug(kTag, "Trying to reuse the DB:%s for %s ", path.c_str(), mountPoint);
  return path;
}

}  // namespace

std::unique_ptr<UDC_DBMS> openRegistry() {
  return open("openRegistry", kRegistry);
}

std::unique_ptr<UDC_DBMS> openFsTypes() {
  return open("openFsTypes", kFsTypes);
}

std::string sqlLiteral(const std::string& text) {
  return "'" + AppendSingleQuote(text) + "'";
}

std::list<std::string> firstColumn(const UDC_DBMS& db) {
  std::list<std::string> column;
  const auto columns = static_cast<std::size_t>(db.columnCount);
  for (std::size_t cell = columns; cell < db.table.size(); cell += columns)
    column.emplace_back(db.table[cell] ? db.table[cell] : "");
  return column;
}

std::string volumeInsertQuery(const NewVolume& volume) {
  const std::string pathToDb = catalogueFolder(volume);
  struct stat st {};
  if (lstat(volume.mountPoint.c_str(), &st) != 0)
    throw UDCException("create_volume_insert_query", 0, errno, std::strerror(errno),
                       "Unable to stat the volume");

  // Neither a quote nor the lack of a character may break the statement.
  const std::string driverSupport(volume.driverSupport ? 1 : 0, volume.driverSupport);
  std::string sql = kInsert;
  for (const std::string& text : {volume.device, volume.mountPoint, volume.fsType})
    sql += sqlLiteral(text) + ",";
  sql += std::to_string(static_cast<long long>(st.st_dev)) + ",";
  sql += std::to_string(static_cast<unsigned long>(st.st_blksize)) + ",";
  sql += sqlLiteral(driverSupport) + "," + sqlLiteral(pathToDb);
  sql += ",'DC_NOT_SCANNED','DC_NOT_SCANNED',0,0,0,0,0,";
  return sql + std::to_string(volume.local) + ",1,0,0,'0')";
}

void logReason(const char* tag) {
  try {
    throw;
  } catch (const std::exception& e) {
    dbg.Debug(tag, "%s", e.what());
  } catch (const KdException& e) {
    dbg.Debug(tag, "%s", e.getMessage().c_str());
  } catch (...) {
    dbg.Debug(tag, "neither an exception of ours nor of the standard library");
  }
}

}  // namespace kddc
