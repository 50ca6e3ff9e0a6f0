// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue in a folder of its own, with the words that tests of it use.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "catalogue/db_access.h"
#include "tests/support/database_view.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

// Shows tests what a subclass may see.
class OpenCatalogue : public DCSqliteDB {
 public:
  using DCSqliteDB::constructTime;
  using DCSqliteDB::DCSqliteDB;
  using DCSqliteDB::fidDb;
  using DCSqliteDB::filesDb;
  using DCSqliteDB::openTime;
};

// An identifier whose bytes are all `letter`.
inline fsf_fid fidOf(char letter) {
  fsf_fid fid;
  for (unsigned char& byte : fid.data) byte = static_cast<unsigned char>(letter);
  return fid;
}

struct CatalogueTest : testing::Test {
  static constexpr unsigned kRegular = 0100644, kDirectory = 040755;
  static constexpr long kFarAhead = 4000000000;  // after any openTime, so that TIME is known

  TempFolder temp;
  std::string folder = temp / "catalogue";
  std::string filesPath = folder + "/.db.kd";
  std::string fidsPath = folder + "/.fid.kd";

  void create() { OpenCatalogue(folder).CreateDb(); }
  // Writes what a finished scan and a graceful close leave behind.
  void createComplete() {
    OpenCatalogue db(folder);
    db.CreateDb();
    ASSERT_TRUE(db.OpenHandle(false, false));
    db.UpdateTimesForFullScan();
    db.CloseHandle(5000, false);
  }

  static StatFidName_s entry(const std::string& name, char fid, unsigned mode) {
    StatFidName_s entry{};
    entry.name = name;
    entry.fid = fidOf(fid);
    entry.st.st_mode = mode;
    entry.st.st_nlink = 1;
    entry.st.st_uid = 501;
    entry.st.st_gid = 20;
    entry.st.st_size = 4096;
    entry.st.st_blocks = 8;
    entry.st.st_atime = 1000;
    entry.st.st_mtime = 2000;
    entry.st.st_ctime = 3000;
    return entry;
  }

  std::vector<std::string> files(const std::string& columns) {
    return DatabaseView(filesPath).rows("SELECT " + columns + " FROM FILES ORDER BY INODE");
  }
  std::vector<std::string> fids(const std::string& columns) {
    return DatabaseView(fidsPath).rows("SELECT " + columns + " FROM FIDS ORDER BY FIDS_ROWID");
  }
  using Rows = std::vector<std::string>;
};

// The same, created and open for writing as an object of that class.
template <class Catalogue>
struct OpenedCatalogueTest : CatalogueTest {
  Catalogue db{folder};

  OpenedCatalogueTest() {
    db.CreateDb();
    EXPECT_TRUE(db.OpenHandle(false, false));
  }
  unsigned long long insert(const std::string& name, char fid, unsigned mode,
                            unsigned long long parent, int fileType = 7) {
    StatFidName_s e = entry(name, fid, mode);
    return db.Insert(&e, parent, fileType);
  }
  Rows committedFiles(const std::string& columns) {
    db.Commit();
    return files(columns);
  }
  Rows committedFids(const std::string& columns) {
    db.Commit();
    return fids(columns);
  }
};
using OpenCatalogueTest = OpenedCatalogueTest<OpenCatalogue>;

}  // namespace kddc::test
