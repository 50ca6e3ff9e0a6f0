// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The walk over the volume, folder by folder: breadth first, and only into folders that have rows.
#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "catalogue/db_access.h"
#include "platform/ev_debug.h"
#include "platform/failure.h"
#include "verify/tables.h"

using kddc::loggedAsOurs;
using kddc::sqlText;

namespace {

constexpr char kTag[] = "DCSqliteDB :: Verify";

// A folder to be looked into: its full path and its inode in the catalogue.
struct NameRowId_s {
  std::string path;
  unsigned long long inode;
};

[[noreturn]] void fail(const std::string& what, int error, int line = __builtin_LINE()) {
  throw KdException(kTag, what + ": " + kddc::errnoText(error), "db_access", line, error);
}

// The names in one folder, without "." and "..".
class Names {
 public:
  explicit Names(const std::string& path) : path_(path), folder_(::opendir(path.c_str())) {
    if (!folder_) fail("Failed to open dir " + path, errno);
  }

  // Null at the end. Valid until the next call.
  const char* next() {
    for (;;) {
      errno = 0;
      const dirent* entry = ::readdir(folder_.get());
      if (!entry && errno != 0) fail("Failed to read directory" + path_, errno);
      if (!entry) return nullptr;
      if (const std::string_view name = entry->d_name; name != "." && name != "..")
        return entry->d_name;
    }
  }

 private:
  struct Close {
    void operator()(DIR* folder) const { ::closedir(folder); }
  };
  const std::string& path_;
  std::unique_ptr<DIR, Close> folder_;
};

// Verifies what lies in a folder; the folders among it that have rows go to the end of the queue.
void verifyEntries(DCSqliteDB& db, const NameRowId_s& folder, std::deque<NameRowId_s>& queue) {
  Names names(folder.path);
  while (const char* name = names.next()) {
    std::string child = folder.path + "/" + name;
    struct stat st {};
    if (::lstat(child.c_str(), &st) != 0) {
      if (errno != ENOENT) fail(std::string("Failed to stat child ") + name, errno);
      // Somebody is at work in here, so the rest of the folder would differ as well.
      dbg.Error(kTag, "stat failed on [%s]. Is any I/O running?", child.c_str());
      return;
    }
    unsigned long long inode = 0;
    if (!S_ISDIR(st.st_mode))
      db.VerifyFile(std::move(child), folder.inode, name, st);
    else if (db.VerifyFolder(child, folder.inode, name, inode, st))
      queue.push_back({std::move(child), inode});
  }
}

void verifyTree(DCSqliteDB& db, const std::string& volume, const struct stat& st) {
  unsigned long long inode = 0;
  db.VerifyFolder(volume, 0, volume.c_str(), inode, st);
  std::deque<NameRowId_s> queue{{volume, inode}};
  for (; !queue.empty(); queue.pop_front()) verifyEntries(db, queue.front(), queue);
}

}  // namespace

void DCSqliteDB::Verify(std::string volumePath) {  // NOLINT(performance-unnecessary-value-param)
  loggedAsOurs(kTag, [&] {
    if (!filesDb || !fidDb) throw UDCException(kTag, 1, dbFolder + " is not open", 0);
    fidDb->exec_query(sqlText(queryBuf, "UPDATE FIDS SET RESCAN=0"));
    filesDb->exec_query(sqlText(queryBuf, "UPDATE FILES SET GID=0"));

    dbg.Debug(kTag, "\n\n\n\n\n");
    dbg.Debug(kTag, "###################################  DOING VERIFY ON %s  ################\n",
              volumePath.c_str());
    struct stat st {};
    if (::lstat(volumePath.c_str(), &st) != 0) {
      dbg.Error(kTag, "stat failed on [%s]. Is the mount point missing?", volumePath.c_str());
      return;
    }
    verifyTree(*this, volumePath, st);

    dbg.Debug(kTag, "\n\n\n\n\n");
    dbg.Debug(kTag,
              "###################################  STALE ENTRIES IN FID DB  ################\n");
    fidDb->exec_query_with_callback(
        sqlText(queryBuf, "SELECT FILES_ROWID FROM FIDS WHERE RESCAN=0"), StaleFidCallBack, this);
    dbg.Debug(kTag, "\n\n\n\n\n");
    dbg.Debug(kTag,
              "###################################  STALE ENTRIES IN FILES DB  ################\n");
    filesDb->exec_query_with_callback(sqlText(queryBuf, "SELECT INODE,NAME FROM FILES WHERE GID=0"),
                                      StaleFilesCallBack, this);
    dbg.Debug(
        kTag,
        "\n\n\n\n\n###################################  END OF VERIFY ON %s  ################\n",
        volumePath.c_str());
  });
}
