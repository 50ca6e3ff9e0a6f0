// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/catalogue_copy.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "agent/engine/catalogue_folder.h"
#include "agent/engine/sqlite_query.h"
#include "agent/errors.h"
#include "agent/own_folder.h"
#include "platform/database_opening.h"
#include "platform/exceptions.h"

namespace kddc {
namespace fs = std::filesystem;
namespace {

constexpr char kTag[] = "CatalogueCopy";
// Some milliseconds each.
constexpr int kPagesBetweenTicks = 2000;
constexpr int kStepsBetweenTicks = 1000;
constexpr int kOff = 0;  // SQLite's synchronous level: a crash takes the copy with it anyway

// The lock goes with the process that holds it, however that ends.
UniqueFd lockedFolder(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0) fd.reset();
  return fd;
}

// Whoever still works with a copy holds its lock.
void removeAbandoned(const std::string& copies) {
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(copies, ignored))
    if (const UniqueFd fd = lockedFolder(entry.path())) fs::remove_all(entry.path(), ignored);
}

struct CloseDatabase {
  void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
};
using Database = std::unique_ptr<sqlite3, CloseDatabase>;

[[noreturn]] void fail(sqlite3* database, int result) {
  throw UDCException(kTag, 3, result, database ? sqlite3_errmsg(database) : sqlite3_errstr(result));
}

Database newDatabase(const std::string& path) {
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  sqlite3* handle = nullptr;
  const int result = openDatabase(withResolvedFolder(path), kFlags, &handle);
  Database database(handle);
  if (result != SQLITE_OK) fail(handle, result);
  // For the sake of speed alone, so it does not matter whether it was done.
  sqlite3_exec(handle, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF", nullptr, nullptr,
               nullptr);
  return database;
}

// From here on the connection shows the commit that is the last one now.
void holdView(const ReadConnection& connection) {
  connection.run("BEGIN");
  connection.run("SELECT COUNT(*) FROM sqlite_master");
}

// A scan may exchange the folder between the openings of its two databases.
void copyCatalogue(const std::string& folder, const std::string& to,
                   const std::function<bool()>& tick) {
  struct stat then, now;
  const UniqueFd before(open(folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!before || fstat(before.get(), &then) != 0)
    throw systemFailure("cannot use " + folder, errno);
  const ReadConnection files(folder + kFilesDatabase);
  holdView(files);
  const ReadConnection fids(folder + kFidDatabase);
  holdView(fids);
  if (stat(folder.c_str(), &now) != 0 || then.st_ino != now.st_ino || then.st_dev != now.st_dev)
    throw Failure(folder + " has been replaced meanwhile; try again");
  copyDatabase(files.get(), to + kFilesDatabase, tick);
  copyDatabase(fids.get(), to + kFidDatabase, tick);
}

}  // namespace

void copyDatabase(sqlite3* from, const std::string& path, const std::function<bool()>& tick) {
  const Database to = newDatabase(path);
  sqlite3_backup* backup = sqlite3_backup_init(to.get(), "main", from, "main");
  if (!backup) fail(to.get(), sqlite3_errcode(to.get()));
  int result = SQLITE_OK;
  while (result == SQLITE_OK)
    result = tick() ? sqlite3_backup_step(backup, kPagesBetweenTicks) : SQLITE_INTERRUPT;
  const int finished = sqlite3_backup_finish(backup);
  if (result != SQLITE_DONE) fail(nullptr, result);
  if (finished != SQLITE_OK) fail(to.get(), finished);
}

void OpenCopy::setTick(std::function<bool()> tick) {
  tick_ = std::move(tick);
  for (UDC_DBMS* db : {filesDb.get(), fidDb.get()})
    kddc::setTick(db->handle, kStepsBetweenTicks, &tick_);
}

void OpenCopy::makeIndexOfNames() {
  filesDb->exec_query("CREATE INDEX IF NOT EXISTS IN_NAME ON FILES(PINODE,NAME)");
  filesDb->Commit();
}

std::uint64_t OpenCopy::changes() const {
  return static_cast<std::uint64_t>(sqlite3_total_changes64(filesDb->handle));
}

CatalogueCopy::Folder::Folder(const std::string& copies) : path_(copies + "/XXXXXX") {
  makeFolders(copies);
  // Nobody may find the new folder before it is locked.
  const UniqueFd all(open(copies.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!all || flock(all.get(), LOCK_EX) != 0) throw systemFailure("cannot lock " + copies, errno);
  removeAbandoned(copies);
  if (!mkdtemp(path_.data())) throw systemFailure("cannot make a folder in " + copies, errno);
  lock_ = lockedFolder(path_);
  if (!lock_) throw systemFailure("cannot lock " + path_, errno);
}

CatalogueCopy::Folder::~Folder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

CatalogueCopy::CatalogueCopy(const std::string& folder, const std::string& copies,
                             std::function<bool()> tick)
    : folder_(copies) {
  copyCatalogue(folder, folder_.path(), tick);
  rows_ = std::make_unique<OpenCopy>(folder_.path());
  // Read-only, which it is not, spares the durable mark of a catalogue in use.
  if (!rows_->OpenHandle(true, false))
    throw Failure("cannot open the copy of the catalogue in " + folder_.path());
  for (UDC_DBMS* db : {&rows_->files(), &rows_->fids()}) {
    distrustSchema(db->handle);  // the catalogue may be somebody else's
    db->SetSynchronous(kOff);
  }
  rows_->setTick(std::move(tick));
}

}  // namespace kddc
