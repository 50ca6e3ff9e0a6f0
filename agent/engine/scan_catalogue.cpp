// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/scan_catalogue.h"

#include <future>
#include <initializer_list>
#include <utility>

#include "agent/engine/sqlite_query.h"

namespace kddc {
namespace {

constexpr int kOff = 0, kNormal = 1;  // SQLite's synchronous levels
constexpr int kStepsBetweenTicks = 100000;

void run(UDC_DBMS& db, std::initializer_list<std::string> texts) {
  for (const std::string& sql : texts) db.exec_query(sql.c_str());
}

// Returns the text that creates the database's one index.
std::string beginBuildOf(UDC_DBMS& db) {
  db.exec_query_get_table("SELECT name,sql FROM sqlite_master WHERE type='index'");
  const std::string name = db.table[2], sql = db.table[3];
  db.SetSynchronous(kOff);
  db.SetGroupCommit(false);
  // Between transactions: SQLite changes the journal nowhere else. Some of its builds write zeros
  // over what is deleted, which is of no use here.
  run(db, {"COMMIT", "PRAGMA journal_mode=MEMORY", "PRAGMA cache_size=-16384",
           "PRAGMA secure_delete=OFF", "DROP INDEX " + name, "BEGIN"});
  return sql;
}

void endBuildOf(UDC_DBMS& db, const std::string& index) {
  run(db, {index, "COMMIT", "PRAGMA journal_mode=WAL", "BEGIN"});
  db.SetGroupCommit(true);
  db.SetSynchronous(kNormal);
}

}  // namespace

void ScanCatalogue::beginBuild() {
  filesIndex_ = beginBuildOf(*filesDb);
  fidsIndex_ = beginBuildOf(*fidDb);
  writesWholeRows = true;
}

void ScanCatalogue::endBuild() {
  FlushAllFids();
  writesWholeRows = false;
  kddc::setTick(filesDb->handle, 0, nullptr);  // the tick is not for two threads
  auto files = std::async(std::launch::async, [&] { endBuildOf(*filesDb, filesIndex_); });
  endBuildOf(*fidDb, fidsIndex_);
  files.get();
}

unsigned long long ScanCatalogue::insertRow(StatFidName_s& entry, unsigned long long parentInode,
                                            int fileType) {
  Insert(&entry, parentInode, fileType);
  // Nothing else was inserted into FILES since: the insert corrects rows, but makes just one.
  return filesDb->LastInsertRowId();
}

void ScanCatalogue::setTick(std::function<bool()> tick) {
  tick_ = std::move(tick);
  for (UDC_DBMS* db : {filesDb.get(), fidDb.get()})
    kddc::setTick(db->handle, kStepsBetweenTicks, &tick_);
}

}  // namespace kddc
