// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/wal_index_guard.h"

#include <sqlite3.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <mutex>

namespace kddc {
namespace {

// The index is mapped in pieces of this size, which is part of its format.
constexpr int kPiece = 32 * 1024;
constexpr int kWriteLock = SQLITE_SHM_LOCK | SQLITE_SHM_EXCLUSIVE;

// What a file can do; one that has it finds the real one in there.
struct GuardedMethods : sqlite3_io_methods {
  const sqlite3_io_methods* real = nullptr;
};

const sqlite3_io_methods& realOf(const sqlite3_file* file) {
  return *static_cast<const GuardedMethods*>(file->pMethods)->real;
}

// A kernel before 5.14 cannot tell and is believed, and so is memory that is only read.
bool canBeWritten(volatile void* piece) {
  static const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  const std::uintptr_t offset = reinterpret_cast<std::uintptr_t>(piece) % page;
  char* const from = static_cast<char*>(const_cast<void*>(piece)) - offset;
  return madvise(from, offset + kPiece, MADV_POPULATE_WRITE) == 0 || errno != EFAULT;
}

// None is made for the question: behind the last one there is none.
bool canAllBeWritten(sqlite3_file* file) {
  for (int index = 0;; ++index) {
    void volatile* piece = nullptr;
    if (realOf(file).xShmMap(file, index, kPiece, 0, &piece) != SQLITE_OK || !piece) return true;
    if (!canBeWritten(piece)) return false;
  }
}

int mapGuarded(sqlite3_file* file, int index, int size, int extend, void volatile** piece) {
  const int result = realOf(file).xShmMap(file, index, size, extend, piece);
  // SQLite writes a byte of each page that is new, and takes any failure of that for a broken disk.
  if (result == SQLITE_IOERR_SHMSIZE && errno == ENOSPC) return SQLITE_FULL;
  if (result != SQLITE_OK || !*piece || canBeWritten(*piece)) return result;
  *piece = nullptr;
  return SQLITE_FULL;
}

// Whoever writes to the index locks a part of it first.
int lockGuarded(sqlite3_file* file, int offset, int count, int flags) {
  const int result = realOf(file).xShmLock(file, offset, count, flags);
  if (result != SQLITE_OK || flags != kWriteLock || canAllBeWritten(file)) return result;
  realOf(file).xShmLock(file, offset, count, SQLITE_SHM_UNLOCK | SQLITE_SHM_EXCLUSIVE);
  return SQLITE_FULL;
}

GuardedMethods guardedCopy(const sqlite3_io_methods* real) {
  GuardedMethods copy{*real, real};
  copy.xShmMap = mapGuarded;
  copy.xShmLock = lockGuarded;
  return copy;
}

// Every file of a kind has the same ones; SQLite knows one kind. Without a destructor, so that a
// database that is closed at the very end of the process still has its own.
constinit std::array<GuardedMethods, 8> kinds{};
constinit std::mutex kindsMutex;

// `real` itself where there is no place left.
const sqlite3_io_methods* guarded(const sqlite3_io_methods* real) {
  const std::lock_guard lock(kindsMutex);
  for (GuardedMethods& kind : kinds) {
    if (!kind.real) kind = guardedCopy(real);
    if (kind.real == real) return &kind;
  }
  return real;
}

}  // namespace

void guardWalIndex(sqlite3* handle) {
  sqlite3_file* file = nullptr;
  sqlite3_file_control(handle, "main", SQLITE_FCNTL_FILE_POINTER, &file);
  if (!file || !file->pMethods) return;
  const bool canMap = file->pMethods->iVersion >= 2 && file->pMethods->xShmMap;
  if (canMap) file->pMethods = guarded(file->pMethods);
}

}  // namespace kddc
