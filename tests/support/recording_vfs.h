// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A layer under SQLite that remembers every change of a file and every sync, so that a test can lay
// out what a disk might hold after the power failed at any of them: all that was synced, and of
// the rest whatever the disk happened to have written.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <functional>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace kddc::test {

class RecordedDisk {
 public:
  struct Change {
    enum Kind { kWrite, kTruncate, kSync, kDelete, kSyncFolder } kind;
    std::string path;
    sqlite3_int64 offset;  // kTruncate: the new size
    std::string bytes;
    int phase;  // of the scenario, as `phase` said then
  };

  std::vector<Change> changes;

  // The files after a power failure behind the first `count` changes. `survives` says of each
  // change that was not synced whether the disk had written it.
  std::map<std::string, std::string> afterPowerLoss(std::size_t count,
                                                    const std::function<bool()>& survives) const {
    std::map<std::string, std::optional<std::string>> disk;
    std::map<std::string, Pending> pending;
    for (std::size_t i = 0; i < count; ++i) {
      const Change& change = changes[i];
      if (change.kind == Change::kSync) {
        for (const Change* due : pending[change.path]) apply(*due, disk[change.path]);
        pending[change.path].clear();
      } else if (change.kind == Change::kSyncFolder) {
        for (auto& [path, unsynced] : pending)
          if (dropUpToRemoval(unsynced)) disk[path].reset();
      } else {
        pending[change.path].push_back(&change);
      }
    }
    for (const auto& [path, unsynced] : pending)
      for (const Change* change : unsynced)
        if (survives()) apply(*change, disk[path]);

    std::map<std::string, std::string> files;
    for (auto& [path, content] : disk)
      if (content) files[path] = std::move(*content);
    return files;
  }

 private:
  using Pending = std::vector<const Change*>;

  // What was written before a file was removed no longer matters once the removal is on the disk.
  static bool dropUpToRemoval(Pending& unsynced) {
    const auto removal = std::find_if(unsynced.rbegin(), unsynced.rend(), [](const Change* change) {
      return change->kind == Change::kDelete;
    });
    if (removal == unsynced.rend()) return false;
    unsynced.erase(unsynced.begin(), removal.base());
    return true;
  }

  static void apply(const Change& change, std::optional<std::string>& content) {
    if (change.kind == Change::kDelete) {
      content.reset();
      return;
    }
    if (!content) content.emplace();
    const auto offset = static_cast<std::size_t>(change.offset);
    if (change.kind == Change::kTruncate) {
      content->resize(offset);
      return;
    }
    if (content->size() < offset + change.bytes.size())
      content->resize(offset + change.bytes.size());
    content->replace(offset, change.bytes.size(), change.bytes);
  }
};

class RecordingVfs {
 public:
  using Change = RecordedDisk::Change;

  // While it lives, every database is opened through it.
  RecordingVfs() : real_(sqlite3_vfs_find(nullptr)) {
    current() = this;
    vfs_ = *real_;
    vfs_.zName = "recording";
    vfs_.szOsFile = static_cast<int>(sizeof(File)) + real_->szOsFile;
    vfs_.xOpen = open;
    vfs_.xDelete = remove;
    sqlite3_vfs_register(&vfs_, 1);
  }
  ~RecordingVfs() {
    sqlite3_vfs_unregister(&vfs_);
    sqlite3_vfs_register(real_, 1);
    current() = nullptr;
  }
  RecordingVfs(const RecordingVfs&) = delete;
  RecordingVfs& operator=(const RecordingVfs&) = delete;

  int phase = 0;
  RecordedDisk disk;

  // To be called for an fsync of the databases' folder, which makes removals last.
  static void folderWasSynced() {
    if (current()) note(Change::kSyncFolder, "", 0, {});
  }

 private:
  struct File {
    sqlite3_file base;
    std::string* path;
    sqlite3_file* real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
  };

  static RecordingVfs*& current() {
    static RecordingVfs* vfs = nullptr;
    return vfs;
  }
  static void note(Change::Kind kind, const std::string& path, sqlite3_int64 offset,
                   std::string bytes) {
    current()->disk.changes.push_back({kind, path, offset, std::move(bytes), current()->phase});
  }
  static File* self(sqlite3_file* file) { return reinterpret_cast<File*>(file); }
  static sqlite3_file* real(sqlite3_file* file) { return self(file)->real(); }

  static int open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags,
                  int* outFlags) {
    sqlite3_vfs* vfs = current()->real_;
    const int result = vfs->xOpen(vfs, name, real(file), flags, outFlags);
    file->pMethods = result == SQLITE_OK ? &methods() : nullptr;
    if (result == SQLITE_OK) self(file)->path = new std::string(name ? name : "");
    return result;
  }
  static int remove(sqlite3_vfs*, const char* name, int syncFolder) {
    sqlite3_vfs* vfs = current()->real_;
    const int result = vfs->xDelete(vfs, name, syncFolder);
    if (result == SQLITE_OK) note(Change::kDelete, name, 0, {});
    if (result == SQLITE_OK && syncFolder) folderWasSynced();
    return result;
  }

  static const sqlite3_io_methods& methods() {
    static const sqlite3_io_methods table = {
        2,
        [](sqlite3_file* f) {
          delete self(f)->path;
          return real(f)->pMethods->xClose(real(f));
        },
        [](sqlite3_file* f, void* to, int n, sqlite3_int64 at) {
          return real(f)->pMethods->xRead(real(f), to, n, at);
        },
        [](sqlite3_file* f, const void* from, int n, sqlite3_int64 at) {
          note(Change::kWrite, *self(f)->path, at,
               std::string(static_cast<const char*>(from), static_cast<std::size_t>(n)));
          return real(f)->pMethods->xWrite(real(f), from, n, at);
        },
        [](sqlite3_file* f, sqlite3_int64 size) {
          note(Change::kTruncate, *self(f)->path, size, {});
          return real(f)->pMethods->xTruncate(real(f), size);
        },
        [](sqlite3_file* f, int flags) {
          note(Change::kSync, *self(f)->path, 0, {});
          return real(f)->pMethods->xSync(real(f), flags);
        },
        [](sqlite3_file* f, sqlite3_int64* size) {
          return real(f)->pMethods->xFileSize(real(f), size);
        },
        [](sqlite3_file* f, int level) { return real(f)->pMethods->xLock(real(f), level); },
        [](sqlite3_file* f, int level) { return real(f)->pMethods->xUnlock(real(f), level); },
        [](sqlite3_file* f, int* out) {
          return real(f)->pMethods->xCheckReservedLock(real(f), out);
        },
        [](sqlite3_file* f, int op, void* arg) {
          return real(f)->pMethods->xFileControl(real(f), op, arg);
        },
        [](sqlite3_file* f) { return real(f)->pMethods->xSectorSize(real(f)); },
        // No promise of the disk beyond what a sync gives.
        [](sqlite3_file*) { return 0; },
        [](sqlite3_file* f, int page, int size, int extend, void volatile** out) {
          return real(f)->pMethods->xShmMap(real(f), page, size, extend, out);
        },
        [](sqlite3_file* f, int offset, int n, int flags) {
          return real(f)->pMethods->xShmLock(real(f), offset, n, flags);
        },
        [](sqlite3_file* f) { real(f)->pMethods->xShmBarrier(real(f)); },
        [](sqlite3_file* f, int remove) { return real(f)->pMethods->xShmUnmap(real(f), remove); },
        nullptr,
        nullptr,
    };
    return table;
  }

  sqlite3_vfs* real_;
  sqlite3_vfs vfs_;
};

}  // namespace kddc::test
