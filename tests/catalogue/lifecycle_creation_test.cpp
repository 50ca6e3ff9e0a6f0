// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a new catalogue is on the disk, and what stands in the way of making one.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include "platform/exceptions.h"
#include "platform/platform_info.h"
#include "tests/support/lifecycle_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::DatabaseView;
using kddc::test::Lifecycle;
using kddc::test::LogCapture;
using kddc::test::OpenCatalogue;
using testing::ElementsAre;

TEST_F(Lifecycle, AFreshCatalogueHasExactlyThisSchema) {
  create();
  EXPECT_THAT(
      DatabaseView(filesPath).rows("SELECT sql FROM sqlite_master ORDER BY rowid"),
      ElementsAre(
          "CREATE TABLE FILES ( INODE INTEGER PRIMARY KEY, FID_ROWID sqlite_uint64, PINODE "
          "sqlite_uint64, MODE INTEGER UNSIGNED, NLINK INTEGER UNSIGNED, UID INTEGER UNSIGNED, GID "
          "INTEGER UNSIGNED, SIZE sqlite_int64, BLOCKSUSED sqlite_int64, ATIME INTEGER UNSIGNED, "
          "MTIME INTEGER UNSIGNED, CTIME INTEGER UNSIGNED,TIME INTEGER UNSIGNED,FILE_TYPE INTEGER, "
          "NAME TEXT )",
          "CREATE TABLE TIME ( TIME INTEGER UNSIGNED , FULL_SCAN INTEGER UNSIGNED, "
          "DB_CREATION_TIME INTEGER UNSIGNED, TOTAL_CHANGES sqlite_uint64 , VERSION "
          "TEXT,GRACEFUL_SHUTDOWN INTEGER )",
          "CREATE INDEX IN_PINODE ON FILES(PINODE)"));
  EXPECT_THAT(DatabaseView(fidsPath).rows("SELECT sql FROM sqlite_master ORDER BY rowid"),
              ElementsAre("CREATE TABLE FIDS ( FIDS_ROWID INTEGER PRIMARY KEY, FILES_ROWID "
                          "sqlite_int64 , SEQNUM sqlite_unit64, RESCAN INTEGER,FID1 "
                          "sqlite_uint64, FID2 sqlite_uint64,FID3 sqlite_uint64,FID4 "
                          "sqlite_uint64 )",
                          "CREATE INDEX IN_FID ON FIDS (FID1,FID2,FID3,FID4)"));
  EXPECT_EQ(DatabaseView(filesPath).rows("SELECT * FROM TIME"), Rows{"0|0|0|0|10.1|1"});
  EXPECT_EQ(DatabaseView(filesPath).cell("PRAGMA page_size"), "1024");
  EXPECT_EQ(DatabaseView(fidsPath).cell("PRAGMA encoding"), "UTF-8");
}

TEST_F(Lifecycle, ACatalogueBelongsToItsOwnerAlone) {
  umask(0);
  create();
  struct stat st {};
  ASSERT_EQ(stat(folder.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777U, 0700U);
  for (const char* name : {"/.db.kd", "/.db.kd.lock", "/.fid.kd", "/.fid.kd.lock"}) {
    ASSERT_EQ(stat((folder + name).c_str(), &st), 0) << name;
    EXPECT_EQ(st.st_mode & 07777U, 0600U) << name;
  }
}

TEST_F(Lifecycle, CreatingSaysEachTextThatItExecutes) {
  const LogCapture log(3);
  create();
  const std::string executing = "debug 3 DCSqliteDB :: CreateDb: Executing : ";
  std::vector<std::string> executed;
  for (const std::string& line : log.lines())
    if (line.starts_with(executing)) executed.push_back(line.substr(executing.size(), 24));
  EXPECT_THAT(executed, ElementsAre("PRAGMA case_sensitive_li", "PRAGMA case_sensitive_li",
                                    "PRAGMA encoding = \"UTF-8", "PRAGMA encoding = \"UTF-8",
                                    "PRAGMA legacy_file_forma", "PRAGMA legacy_file_forma",
                                    "CREATE TABLE FILES ( INO", "CREATE TABLE TIME ( TIME",
                                    "INSERT INTO TIME VALUES ", "CREATE INDEX IF NOT EXIS",
                                    "CREATE TABLE FIDS ( FIDS", "CREATE INDEX IN_FID ON F"));
  EXPECT_TRUE(log.has(executing + "PRAGMA encoding = \"UTF-8\" "));
}

TEST_F(Lifecycle, ThePageSizeOfNewCataloguesIsASetting) {
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "4096");
  create();
  EXPECT_EQ(DatabaseView(filesPath).cell("PRAGMA page_size"), "4096");
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "1000");
  try {
    create();
    FAIL();
  } catch (const UDCException& e) {
    EXPECT_EQ(e.GetMessage(),
              "SqlitePageSize is 1000; it must be a power of two from 512 to 65536");
  }
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "1024");
}

TEST_F(Lifecycle, CreatingReplacesAnOldCatalogueWithAllItsSideFiles) {
  create();
  for (const char* name : {"/.db.kd-wal", "/.db.kd-shm", "/.fid.kd-journal"})
    std::ofstream(folder + name) << "left behind by a crash";
  create();
  EXPECT_TRUE(files("*").empty());
  EXPECT_FALSE(exists(folder + "/.fid.kd-journal"));
}

TEST_F(Lifecycle, AFolderWithAStrangersFileIsNotReplaced) {
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  std::ofstream(folder + "/letter.txt") << "mine";
  const LogCapture log(0);
  try {
    create();
    FAIL();
  } catch (const UDCException& e) {
    EXPECT_EQ(e.GetType(), 1);
    EXPECT_EQ(e.GetErrorNumber(), 0);
    EXPECT_EQ(e.GetMessage(), "Failed to clean up the stale db");
    EXPECT_THAT(log.lines(),
                ElementsAre("error 0 DCSqliteDB :: CreateDb: eRRoR -- " + e.GetErrorMsg()));
  }
  EXPECT_TRUE(exists(folder + "/letter.txt"));
  EXPECT_FALSE(exists(filesPath));
}

TEST_F(Lifecycle, AFolderThatCannotBeMadeIsReportedWithErrno) {
  folder = temp / "no/such/parent";
  try {
    create();
    FAIL();
  } catch (const UDCException& e) {
    EXPECT_EQ(e.GetType(), 0);
    EXPECT_EQ(e.GetErrorNumber(), ENOENT);
    EXPECT_EQ(e.GetMessage(), "Unable to Create the DATACLASS Dir");
  }
}

TEST_F(Lifecycle, ACatalogueExistsOnlyWithBothDatabasesAndBothLockFiles) {
  for (const char* name : {".db.kd", ".db.kd.lock", ".fid.kd", ".fid.kd.lock"}) {
    create();
    EXPECT_TRUE(OpenCatalogue(folder).DoesDbExist());
    ASSERT_EQ(unlink((folder + "/" + name).c_str()), 0);
    EXPECT_FALSE(OpenCatalogue(folder).DoesDbExist()) << name;
  }
}

TEST_F(Lifecycle, TellsTheTwoDatabasesPaths) {
  std::string files, fids;
  OpenCatalogue("/some/where").GetDbPaths(&files, &fids);
  EXPECT_EQ(files, "/some/where/.db.kd");
  EXPECT_EQ(fids, "/some/where/.fid.kd");
}

}  // namespace
