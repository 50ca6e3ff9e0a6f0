// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "volumes/volume_registry.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "platform/hsm.h"
#include "platform/logged.h"
#include "volumes/catalogue_files.h"
#include "volumes/registry_database.h"

using kddc::sqlLiteral;

namespace {

constexpr char kTypesTag[] = "UDC_volume_db::supported_fs_type";

// What stands beside the type, when it is listed.
std::optional<char> driverSupportOf(const char* fsType) {
  constexpr char kQuery[] = "SELECT * FROM FSTYPE";
  const auto db = kddc::openFsTypes();
  dbg.Debug(kTypesTag, "Exec Query: %s", kQuery);
  db->exec_query_get_table(kQuery);
  const auto columns = static_cast<std::size_t>(db->columnCount);
  for (std::size_t cell = columns; columns >= 2 && cell < db->table.size(); cell += columns) {
    const char* type = db->table[cell];
    const char* support = db->table[cell + 1];
    if (type && std::strcmp(type, fsType) == 0) return support ? *support : '\0';
  }
  return std::nullopt;
}

// Deletes the row of a volume; its catalogue folder, empty when there is none.
// With several rows for one mount point nobody can say which catalogue is meant, and none is
// removed.
std::string forgetVolume(const std::string& mountPoint) {
  const std::string where = " WHERE MOUNT_POINT=" + sqlLiteral(mountPoint) + " ";
  const auto db = kddc::openRegistry();
  db->exec_query_get_table(("SELECT PATH_TO_DB FROM VOLUME" + where).c_str());
  std::string path;
  if (db->rowCount == 1) {
    path = kddc::firstColumn(*db).front();
    db->exec_query(("DELETE FROM VOLUME" + where).c_str());
  }
  db->closedb(false);
  return path;
}

}  // namespace

void StopAndFilter(const char* mountPoint, bool (*)(const char*)) {
  constexpr char kTag[] = "StopAndFilter";
  dbg.Debug(kTag, "%s", mountPoint);
  try {
    const std::string path = forgetVolume(mountPoint);
    if (!path.empty()) RemoveDCDb(path);
  } catch (const UDCException& e) {
    dbg.Error(kTag, "eRRoR -- UDCException: %s on %s", e.what(), mountPoint);
  } catch (...) {
    dbg.Error(kTag, "eRRoR --  UnExpected Exception on %s ", mountPoint);
    kddc::logReason(kTag);
  }
}

bool supported_fs_type(const char* fsType, char* driverSupport) {
  const auto support = kddc::absorbed(
      kTypesTag, [&] { return driverSupportOf(fsType); }, std::optional<char>());
  if (support) *driverSupport = *support;
  return support.has_value();
}

// The buffer is the caller's and its size unknown: the signature is as callers have it.
void create_volume_insert_query(char* out, const char* mountPoint, const char* devLabel,
                                const char* fsType, char driverSupport, int volNumber,
                                const char* dbFolder, int local) {
  const std::string sql = kddc::volumeInsertQuery(
      {mountPoint, devLabel, fsType, driverSupport, volNumber, dbFolder, local});
  std::memcpy(out, sql.c_str(), sql.size() + 1);
}

bool VolShared(const std::string& mountPoint, const std::list<std::string>& list) {
  return std::find(list.begin(), list.end(), mountPoint) != list.end();
}

bool isRQHSMInstalled() {
  try {
    return RQHSMServiceHelper::IsFSFDriverLoaded();
  } catch (const KdException& e) {
    dbg.Error("isRQHSMInstalled", "%s", e.getMessage().c_str());
    return false;
  }
}
