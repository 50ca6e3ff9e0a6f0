// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "volumes/catalogue_files.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/logged.h"

using kddc::logged;

namespace {

// The first result cell of the last query, behind the column name; null when there is no row.
const char* firstCell(const UDC_DBMS& db) {
  return db.rowCount > 0 ? db.table[1] : nullptr;
}

bool saysOk(const UDC_DBMS& db) {
  const char* cell = firstCell(db);
  return cell && std::strcmp(cell, "ok") == 0;
}

// A vacuum copies what can be read into new pages, which mends free lists and indexes. It runs
// between transactions only; afterwards nobody else may write until the second check is done.
bool vacuumRepairs(UDC_DBMS& db, const char* tag, const char* path) {
  dbg.Debug(tag, "Integrity check on %s Failed : Trying Vacuum ", path);
  // As many cells as there are rows, from the first: the column name and all rows but the last.
  for (int i = 0; i < db.rowCount; ++i) {
    const char* cell = db.table[static_cast<std::size_t>(i)];
    dbg.DebugLvl(tag, 2, "Integrity Check on %s returned %s ", path, cell ? cell : "");
  }
  for (const char* step : {"END TRANSACTION", "VACUUM", "BEGIN EXCLUSIVE"}) db.exec_query(step);

  db.exec_query_get_table("PRAGMA integrity_check");
  const bool repaired = db.rowCount == 1 && saysOk(db);
  dbg.Debug(tag, repaired ? "Vacuum Got rid of the corruption for %s " : "%s is corrupt", path);
  return repaired;
}

bool passesOrIsRepaired(UDC_DBMS& db, const char* tag, const char* path) {
  dbg.Debug(tag, "Executing Query : PRAGMA integrity_check");
  db.exec_query_get_table("PRAGMA integrity_check");
  if (db.rowCount == 0) {
    dbg.Debug(tag, "Integrity Check on %s returned nothing ", path);
    return false;
  }
  if (saysOk(db)) {
    dbg.Debug(tag, "Integrity Check on %s returned TRUE", path);
    return true;
  }
  return vacuumRepairs(db, tag, path);
}

}  // namespace

bool VerifyDBIntegrity(const char* path) {
  constexpr char kTag[] = "VerifyDBIntegrity";
  try {
    UDC_DBMS db(path, 2, 120, false);
    if (!db.opendb(false)) {
      dbg.Debug(kTag, "open db failed for %s", path);
      return false;
    }
    const bool good = passesOrIsRepaired(db, kTag, path);
    db.closedb(false);
    return good;
  } catch (const UDCException& e) {
    dbg.Error(kTag, "eRRoR -- UDCException: %s", e.GetErrorMsg().c_str());
  } catch (const std::exception& e) {
    dbg.Error(kTag, "eRRoR -- %s", e.what());
  } catch (const KdException& e) {
    dbg.Error(kTag, "eRRoR -- %s", e.getMessage().c_str());
  }
  return false;
}

bool CheckDBIntegrity(UDC_DBMS* db) {
  try {
    db->exec_query_get_table("pragma integrity_check");
    return db->rowCount >= 0 && saysOk(*db);
  } catch (...) {  // whatever it was, the database did not pass
    return false;
  }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): existing callers are linked against it.
void RemoveDCDb(std::string folder) {
  dbg.Debug("RemoveDCDb", "Removing DC DB [%s]", folder.c_str());
  struct stat status {};
  // What a planted link leads to is somebody else's.
  if (lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return;
  UDC_DBMS::RemoveFiles(folder + "/.db.kd");
  UDC_DBMS::RemoveFiles(folder + "/.fid.kd");
  rmdir(folder.c_str());
}

// Files alone: a folder in it stays, and so does this one then.
int RmDir(const char* path) {
  constexpr char kTag[] = "RmDir";
  return logged(kTag, [&] {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(path), closedir);
    if (!folder) throw UDCException(kTag, 0, errno, std::strerror(errno), path);
    while (const dirent* entry = readdir(folder.get())) {
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") unlinkat(dirfd(folder.get()), entry->d_name, 0);
    }
    return rmdir(path);
  });
}

bool FindInList(const std::list<unsigned long long>* list, unsigned long long value) {
  return std::find(list->begin(), list->end(), value) != list->end();
}
