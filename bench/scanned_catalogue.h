// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Catalogues as a scan leaves them, made once and copied for each run.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>

#include "bench/bare_catalogue.h"
#include "bench/journal_stream.h"
#include "catalogue/db_access.h"

namespace kddc::bench {

inline constexpr const char* kDatabases[] = {"/.db.kd", "/.fid.kd"};

inline void flushToDisk(const std::string& file) {
  const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
  fsync(fd);
  close(fd);
}

// A catalogue after a scan. The indexes are made at the end: that is quicker.
class Template {
 public:
  explicit Template(unsigned rows) {
    DCSqliteDB(folder_.catalogue()).CreateDb();
    fillFiles(rows);
    fillFids(rows);
  }

  // For what follows it must not matter that the copies are still to be written to the disk.
  void copyTo(const std::string& catalogue) const {
    std::filesystem::create_directory(catalogue);
    for (const char* name : kDatabases) {
      std::filesystem::copy_file(folder_.catalogue() + name, catalogue + name);
      flushToDisk(catalogue + name);
    }
  }

 private:
  Folder folder_;

  void fillFiles(unsigned rows) const {
    BareDatabase files(folder_.catalogue() + kDatabases[0]);
    files.exec("DROP INDEX IN_PINODE");
    BareStatement insert(files,
                         "INSERT INTO FILES VALUES (?1,?1,?2,?3,1,501,20,4096,8,1700000000,"
                         "1700000000,1700000000,1700000000,?4,?5)");
    for (unsigned row = 0; row < rows; ++row) {
      const bool folder = Tree::isFolder(row);
      const long long inode = row + 1, parent = row == 0 ? 0 : Tree::parent(row) + 1;
      const std::string name = Tree::name(row);
      insert.bind(inode, parent, folder ? 040755 : 0100644, folder ? 1 : 0, name).write();
    }
    files.exec("CREATE INDEX IN_PINODE ON FILES(PINODE)");
  }

  void fillFids(unsigned rows) const {
    BareDatabase fids(folder_.catalogue() + kDatabases[1]);
    fids.exec("DROP INDEX IN_FID");
    BareStatement insert(fids, "INSERT INTO FIDS VALUES (?1,?1,0,0,?2,?3,?4,?5)");
    for (unsigned row = 0; row < rows; ++row)
      insert.bind(static_cast<long long>(row + 1)).bindFid(2, fidOf(row)).write();
    fids.exec("CREATE INDEX IN_FID ON FIDS (FID1,FID2,FID3,FID4)");
  }
};

inline const Template& templateOf(unsigned rows) {
  static std::map<unsigned, Template> templates;
  return templates.try_emplace(rows, rows).first->second;
}

// What catalogues must agree on that took in the same records; stamps of the wall clock they need
// not.
inline std::string summaryOf(const std::string& catalogue) {
  std::string summary;
  const auto note = [](void* out, int columns, char** values, char**) {
    for (int i = 0; i < columns; ++i)
      *static_cast<std::string*>(out) += std::string(values[i]) + ' ';
    return 0;
  };
  const auto ask = [&](const char* database, const char* sql) {
    BareDatabase::must(
        sqlite3_exec(BareDatabase(catalogue + database).handle(), sql, note, &summary, nullptr));
  };
  ask(kDatabases[0],
      "SELECT COUNT(*),SUM(INODE*31+PINODE),SUM(FID_ROWID),SUM(MODE),SUM(NLINK),SUM(SIZE),"
      "SUM(CTIME),SUM(FILE_TYPE),SUM(LENGTH(NAME)) FROM FILES");
  ask(kDatabases[1], "SELECT COUNT(*),SUM(FIDS_ROWID*31+FILES_ROWID),SUM(FID1%1000003) FROM FIDS");
  return summary;
}

}  // namespace kddc::bench
