// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One transaction is always open on a connection that writes. Every way in passes `requireOpen`,
// every answer of SQLite passes `check`, every write passes `noteWrite`, where groups end.
#include "platform/udc_dbms.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <utility>

#include "platform/database_opening.h"
#include "platform/ev_debug.h"
#include "platform/exceptions.h"
#include "platform/lock_file.h"
#include "platform/platform_info.h"

namespace {

constexpr char kSection[] = "DataClassification";
// Measured: see docs/decisions/0002-journal-mode-and-group-commit.md.
constexpr int kCacheKiB = 64 * 1024;
constexpr std::uint64_t kMostWalBytes = 64 * 1024 * 1024, kLeastWalBytes = 1024 * 1024;

// A group of no rows, or of no time, would be committed before it began; so would one whose time,
// in nanoseconds, is more than 64 bits count. Thirty years are as good as never.
long long setting(const char* key, long long fallback) {
  constexpr long long kMost = 1'000'000'000'000;
  KDPlatformInfo::getNumber(kSection, key, &fallback);
  return std::clamp(fallback, 1LL, kMost);
}

// Read for every write, so the cheap clock: its few milliseconds do not matter to a group.
std::chrono::nanoseconds coarseNow() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

// On a small disk the log must not take the room into which a checkpoint would move it.
std::uint64_t walBytesBeforeCheckpoint(const std::string& path) {
  struct statvfs disk {};
  if (statvfs(path.c_str(), &disk) != 0) return kMostWalBytes;
  return std::clamp(disk.f_frsize * disk.f_bavail / 8, kLeastWalBytes, kMostWalBytes);
}

// SQLite would create the file with the rights of the umask. Only a file that did not exist is
// opened here: closing another descriptor of an open database would drop SQLite's locks on it.
void createPrivately(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd >= 0) close(fd);
}

// A file lasts only when its name does.
void syncFolderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(kddc::withResolvedFolder(path)).parent_path();
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool synced = fd >= 0 && fsync(fd) == 0;
  const int error = errno;
  if (fd >= 0) close(fd);
  if (!synced)
    throw UDCException("UDC_DBMS :: MakeDurable", 0, error, std::strerror(error), folder);
}

}  // namespace

UDC_DBMS::UDC_DBMS(std::string path, int synchronous, int busySeconds, bool readOnly)
    : path_(std::move(path)),
      synchronous_(synchronous),
      busySeconds_(busySeconds),
      readOnly_(readOnly),
      lock_(std::make_unique<kddc::LockFile>()),
      commitEveryRows_(setting("CommitEveryRows", 20000)),
      commitEvery_(setting("CommitEveryMilliseconds", 1000)) {}

// What was not committed is rolled back: only Commit and closedb keep it.
UDC_DBMS::~UDC_DBMS() {
  releaseConnection();
}

bool UDC_DBMS::opendb(bool shared) {
  constexpr char kTag[] = "UDC_DBMS :: opendb";
  if (handle) return true;
  // Before the database: who holds the lock may be creating it.
  if (!readOnly_ && !lock_->take(path_ + ".lock", shared, std::chrono::seconds(busySeconds_))) {
    dbg.Debug(kTag, "Could not lock %s: %s", path_.c_str(), std::strerror(errno));
    return false;
  }
  try {
    openConnection();
    configure();
  } catch (const UDCException& e) {
    dbg.Debug(kTag, "Could not open %s: %s", path_.c_str(), e.what());
    releaseConnection();
    return false;
  }
  return true;
}

void UDC_DBMS::openConnection() {
  const std::string path = kddc::withResolvedFolder(path_);
  if (!readOnly_) createPrivately(path);
  const int flags =
      SQLITE_OPEN_NOMUTEX | (readOnly_ ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE);
  check("UDC_DBMS :: opendb", kddc::openDatabase(path, flags, &handle));
}

void UDC_DBMS::configure() {
  constexpr char kTag[] = "UDC_DBMS :: opendb";
  sqlite3_busy_timeout(handle, busySeconds_ * 1000);
  if (pageSize_ > 0) run(kTag, ("PRAGMA page_size=" + std::to_string(pageSize_)).c_str());
  run(kTag, ("PRAGMA cache_size=-" + std::to_string(kCacheKiB)).c_str());
  if (readOnly_) {
    run(kTag, "PRAGMA schema_version");  // reads the file: is it a database at all?
    return;
  }
  run(kTag, "PRAGMA journal_mode=WAL");
  run(kTag, ("PRAGMA synchronous=" + std::to_string(synchronous_)).c_str());
  exec_query_get_table("PRAGMA page_size");
  const auto pageSize = static_cast<unsigned>(std::max(std::atoi(table[1]), 512));
  sqlite3_wal_autocheckpoint(handle, static_cast<int>(walBytesBeforeCheckpoint(path_) / pageSize));
  begin();
}

// The connection goes whatever happens: a second try could not do better.
bool UDC_DBMS::closedb(bool discard) {
  if (!handle) return true;
  try {
    keepTransaction();
    if (inTransaction_) endTransaction(discard ? "ROLLBACK" : "COMMIT");
  } catch (...) {
    releaseConnection();
    throw;
  }
  releaseConnection();
  return true;
}

// Leaves SQLite to roll back whatever is open. By the close that does not mind statements of the
// owner's: the database goes with the last of them.
void UDC_DBMS::releaseConnection() {
  rowCount = columnCount = 0;
  table = {};
  cells_.reset();
  sqlite3_close_v2(std::exchange(handle, nullptr));
  inTransaction_ = groupHasWork_ = false;
  lock_->release();
}

int UDC_DBMS::exec_query(const char* sql) {
  constexpr char kTag[] = "UDC_DBMS :: exec_query";
  requireOpen(kTag);
  run(kTag, sql);
  if (inTransaction_ != (sqlite3_get_autocommit(handle) == 0)) {
    inTransaction_ = !inTransaction_;  // the text itself ended or began a transaction
    groupHasWork_ = false;
    changesAtBegin_ = sqlite3_total_changes64(handle);
  }
  // A text may hold several statements; that a write transaction is open is what they left behind.
  if (sqlite3_txn_state(handle, "main") == SQLITE_TXN_WRITE) noteWrite();
  return SQLITE_OK;
}

int UDC_DBMS::exec_query_get_table(const char* sql) {
  constexpr char kTag[] = "UDC_DBMS :: exec_query_get_table";
  requireOpen(kTag);
  char** cells = nullptr;
  const int result = sqlite3_get_table(handle, sql, &cells, &rowCount, &columnCount, nullptr);
  cells_.reset(cells);
  if (result != SQLITE_OK) rowCount = columnCount = 0;
  const int lines = rowCount > 0 ? rowCount + 1 : 0;
  table = {cells, static_cast<std::size_t>(lines * columnCount)};
  return check(kTag, result);
}

int UDC_DBMS::exec_query_with_callback(const char* sql, int (*row)(void*, int, char**, char**),
                                       void* ctx) {
  constexpr char kTag[] = "UDC_DBMS :: exec_query_with_callback";
  requireOpen(kTag);
  const int result = sqlite3_exec(handle, sql, row, ctx, nullptr);
  // The callback asked for the end, which is an answer and no failure.
  return result == SQLITE_ABORT ? result : check(kTag, result);
}

// To its end, rows or not: a statement that is left in the middle would hold up the next commit.
int UDC_DBMS::exec_prepared_query(sqlite3_stmt* statement) {
  constexpr char kTag[] = "UDC_DBMS :: exec_prepared_query";
  requireOpen(kTag);
  while (sqlite3_step(statement) == SQLITE_ROW) {
  }
  check(kTag, sqlite3_reset(statement));
  if (!sqlite3_stmt_readonly(statement)) noteWrite();
  return SQLITE_OK;
}

unsigned long long UDC_DBMS::LastInsertRowId() {
  return handle ? static_cast<unsigned long long>(sqlite3_last_insert_rowid(handle)) : 0;
}

int UDC_DBMS::Commit() {
  requireOpen("UDC_DBMS :: Commit");
  keepTransaction();
  if (inTransaction_) {
    endTransaction("COMMIT");
    begin();
  }
  return SQLITE_OK;
}

void UDC_DBMS::SetSynchronous(int level) {
  constexpr char kTag[] = "UDC_DBMS :: SetSynchronous";
  requireOpen(kTag);
  keepTransaction();
  const bool resume = inTransaction_;  // SQLite changes the level between transactions only
  if (resume) endTransaction("COMMIT");
  run(kTag, ("PRAGMA synchronous=" + std::to_string(level)).c_str());
  if (resume) begin();
}

void UDC_DBMS::MakeDurable() {
  constexpr char kTag[] = "UDC_DBMS :: MakeDurable";
  Commit();
  // The log first: it holds what the database file does not have yet.
  for (const int which : {SQLITE_FCNTL_JOURNAL_POINTER, SQLITE_FCNTL_FILE_POINTER}) {
    sqlite3_file* file = nullptr;
    check(kTag, sqlite3_file_control(handle, "main", which, &file));
    if (file && file->pMethods) check(kTag, file->pMethods->xSync(file, SQLITE_SYNC_NORMAL));
  }
  syncFolderOf(path_);
}

bool UDC_DBMS::HasLostWork() {
  if (handle) keepTransaction();
  return lostWork_;
}

// The database first: without its log it would look whole, and be as of an earlier time.
void UDC_DBMS::RemoveFiles(const std::string& path) {
  for (const char* suffix : {"", ".lock", "-wal", "-shm", "-journal"})
    unlink((path + suffix).c_str());
}

void UDC_DBMS::FreeTable::operator()(char** cells) const {
  sqlite3_free_table(cells);
}

int UDC_DBMS::run(const char* function, const char* sql) {
  return check(function, sqlite3_exec(handle, sql, nullptr, nullptr, nullptr));
}

int UDC_DBMS::check(const char* function, int result) {
  if (result == SQLITE_OK) return result;
  throw UDCException(function, 3, result, handle ? sqlite3_errmsg(handle) : sqlite3_errstr(result));
}

void UDC_DBMS::requireOpen(const char* function) const {
  if (!handle) throw UDCException(function, 1, path_ + " is not open", 0);
}

void UDC_DBMS::begin() {
  run("UDC_DBMS :: begin", "BEGIN");
  inTransaction_ = true;
  groupHasWork_ = false;
  changesAtBegin_ = sqlite3_total_changes64(handle);
}

void UDC_DBMS::endTransaction(const char* sql) {
  run("UDC_DBMS :: Commit", sql);
  inTransaction_ = groupHasWork_ = false;
}

// Some failures make SQLite roll the transaction back by itself. The rule that one is always open
// is restored, and what the group had written is remembered as lost.
void UDC_DBMS::keepTransaction() {
  if (!inTransaction_ || sqlite3_get_autocommit(handle) == 0) return;
  lostWork_ = lostWork_ || groupHasWork_;
  inTransaction_ = false;
  begin();
}

void UDC_DBMS::noteWrite() {
  if (!inTransaction_) return;
  if (!groupHasWork_) {
    groupHasWork_ = true;
    groupBegan_ = coarseNow();
  }
  if (!groupCommit_) return;
  const bool full = sqlite3_total_changes64(handle) - changesAtBegin_ >= commitEveryRows_;
  if (full || coarseNow() - groupBegan_ >= commitEvery_) Commit();
}
