// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "platform/exceptions.h"
#include "platform/platform_info.h"
#include "tests/support/catalogue.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::DatabaseView;
using kddc::test::LogCapture;
using kddc::test::OpenCatalogue;
using testing::ElementsAre;

struct Lifecycle : kddc::test::CatalogueTest {
  FlrDriver driver;
  bool inside = false;
  fsf_fid dbFid{}, fidFid{};

  bool isGood(const std::string& volume = "/data") {
    return DCSqliteDB::IsDbGood(folder, volume, &driver, inside, dbFid, fidFid);
  }
  std::string timeRow(const std::string& column) {
    return DatabaseView(filesPath).cell("SELECT " + column + " FROM TIME");
  }
  static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
};

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

TEST_F(Lifecycle, OpeningForWritingMarksTheCatalogueBeforeItReturns) {
  create();
  OpenCatalogue db(folder);
  const LogCapture log(3);
  ASSERT_TRUE(db.OpenHandle(false, false));
  EXPECT_EQ(timeRow("GRACEFUL_SHUTDOWN"), "0");
  EXPECT_TRUE(
      log.has("debug 3 DCSqliteDB :: OpenHandle: Executing : UPDATE TIME SET "
              "GRACEFUL_SHUTDOWN=0 "));
  db.CloseHandle(0, false);
  EXPECT_EQ(timeRow("GRACEFUL_SHUTDOWN"), "1");
  EXPECT_TRUE(
      log.has("debug 3 DCSqliteDB :: CloseHandle: Executing : UPDATE TIME SET "
              "GRACEFUL_SHUTDOWN=1 "));
}

TEST_F(Lifecycle, OpeningReadOnlyLeavesTheMarkAlone) {
  create();
  OpenCatalogue db(folder);
  ASSERT_TRUE(db.OpenHandle(true, false));
  EXPECT_EQ(timeRow("GRACEFUL_SHUTDOWN"), "1");
}

TEST_F(Lifecycle, OpeningFailsQuietlyWhileSomebodyHoldsEitherDatabase) {
  create();
  for (const std::string& path : {filesPath, fidsPath}) {
    UDC_DBMS holder(path, 2, 0, false);
    ASSERT_TRUE(holder.opendb(false));
    OpenCatalogue db(folder);
    EXPECT_FALSE(db.OpenHandle(false, false)) << path;
    EXPECT_EQ(db.filesDb, nullptr);
    EXPECT_EQ(db.fidDb, nullptr);
    EXPECT_EQ(timeRow("GRACEFUL_SHUTDOWN"), "1") << "neither may be marked";
    holder.closedb(true);
    EXPECT_TRUE(db.OpenHandle(true, false)) << "the files database must be free again";
  }
}

TEST_F(Lifecycle, TheSharedLockLetsASecondOpenerIn) {
  create();
  OpenCatalogue first(folder), second(folder), third(folder);
  ASSERT_TRUE(first.OpenHandle(true, true));
  EXPECT_TRUE(second.OpenHandle(true, true));
  EXPECT_FALSE(third.OpenHandle(true, false));
}

TEST_F(Lifecycle, OpeningTwiceIsRefusedAndLosesNothing) {
  create();
  OpenCatalogue db(folder);
  ASSERT_TRUE(db.OpenHandle(false, false));
  EXPECT_THROW(db.OpenHandle(false, false), UDCException);
  EXPECT_NE(db.filesDb, nullptr);
}

TEST_F(Lifecycle, AClosedCatalogueRefusesToWork) {
  OpenCatalogue db(folder);
  const fsf_fid fid = kddc::test::fidOf('A');
  EXPECT_THROW(db.DeleteInode(1), UDCException);
  EXPECT_THROW(db.GetFidTuple(&fid, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
               UDCException);
  EXPECT_THROW(db.Commit(), UDCException);
  EXPECT_THROW(db.UpdateTimesForFullScan(), UDCException);
  EXPECT_NO_THROW(db.CloseHandle(1000, false));
}

TEST_F(Lifecycle, TheCloseKeepsAMarginOfTenMinutes) {
  create();
  const auto closedAt = [&](unsigned long refTime) {
    OpenCatalogue db(folder);
    EXPECT_TRUE(db.OpenHandle(false, false));
    db.CloseHandle(refTime, false);
    return timeRow("TIME");
  };
  EXPECT_EQ(closedAt(500), "500");
  EXPECT_EQ(closedAt(600), "600");
  EXPECT_EQ(closedAt(601), "1");
  EXPECT_EQ(closedAt(1000), "400");
  EXPECT_EQ(closedAt(0), "400") << "0 leaves the stored time as it was";
}

TEST_F(Lifecycle, ACloseMayKeepTheMarkOfAnUngracefulEnd) {
  create();
  OpenCatalogue db(folder);
  ASSERT_TRUE(db.OpenHandle(false, false));
  db.CloseHandle(1600, true);
  EXPECT_EQ(timeRow("TIME"), "1000");
  EXPECT_EQ(timeRow("GRACEFUL_SHUTDOWN"), "0");
}

TEST_F(Lifecycle, ACatalogueThatLostAGroupOfChangesIsNotClosedAsComplete) {
  create();
  OpenCatalogue db(folder);
  ASSERT_TRUE(db.OpenHandle(false, false));
  StatFidName_s e = entry("a", 'A', kRegular);
  db.Insert(&e, 0, 7);
  db.filesDb->exec_query("PRAGMA max_page_count=1");  // SQLite takes the present size instead
  e.name = std::string(200000, 'n');
  EXPECT_THROW(db.Insert(&e, 0, 7), UDCException);
  EXPECT_THROW(db.CloseHandle(0, false), UDCException);
  EXPECT_EQ(timeRow("GRACEFUL_SHUTDOWN"), "0");
}

TEST_F(Lifecycle, TheReferenceTimeNeedsAFinishedScanAndAGracefulClose) {
  create();
  OpenCatalogue db(folder);
  unsigned long time = 0;
  {
    const LogCapture log(0);
    ASSERT_TRUE(db.OpenHandle(true, false));
    EXPECT_FALSE(db.GetReferenceTime(&time));
    EXPECT_THAT(log.lines(), ElementsAre("error 0 DCSqliteDB :: GetReferenceTime: FULL_SCAN[0] "
                                         "GRACEFUL_SHUTDOWN[1]"));
  }
  db.CloseHandle(0, true);
  ASSERT_TRUE(db.OpenHandle(false, false));
  EXPECT_EQ(db.UpdateTimesForFullScan(), 0U);
  {
    const LogCapture log(0);
    EXPECT_FALSE(db.GetReferenceTime(&time));
    EXPECT_THAT(log.lines(), ElementsAre("error 0 DCSqliteDB :: GetReferenceTime: FULL_SCAN[1] "
                                         "GRACEFUL_SHUTDOWN[0]"));
  }
  db.CloseHandle(5000, false);
  ASSERT_TRUE(db.OpenHandle(true, false));
  const LogCapture log(3);
  EXPECT_TRUE(db.GetReferenceTime(&time));
  EXPECT_EQ(time, 4400U);
  EXPECT_THAT(log.lines(), ElementsAre("debug 3 DCSqliteDB :: GetReferenceTime: Executing : SELECT "
                                       "TIME,FULL_SCAN,GRACEFUL_SHUTDOWN FROM TIME "));
}

TEST_F(Lifecycle, AFinishedScanStoresItsTimeTwice) {
  create();
  OpenCatalogue db(folder);
  ASSERT_TRUE(db.OpenHandle(false, false));
  const time_t before = time(nullptr);
  db.UpdateTimesForFullScan();
  db.Commit();
  EXPECT_EQ(timeRow("FULL_SCAN"), "1");
  EXPECT_EQ(timeRow("TIME"), timeRow("DB_CREATION_TIME"));
  EXPECT_GE(std::stol(timeRow("TIME")), before);
}

TEST_F(Lifecycle, OnlyOurSchemaVersionIsAccepted) {
  create();
  OpenCatalogue db(folder);
  ASSERT_TRUE(db.OpenHandle(true, false));
  EXPECT_TRUE(db.DBVersionCheck());
  db.CloseHandle(0, true);
  DatabaseView(filesPath).rows("UPDATE TIME SET VERSION='10.10'");
  ASSERT_TRUE(db.OpenHandle(true, false));
  EXPECT_FALSE(db.DBVersionCheck());
  db.CloseHandle(0, true);
  DatabaseView(filesPath).rows("DROP TABLE TIME");
  ASSERT_TRUE(db.OpenHandle(true, false));
  const LogCapture log(0);
  EXPECT_FALSE(db.DBVersionCheck());
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_THAT(log.lines()[0],
              testing::StartsWith("error 0 DCSqliteDB :: DBVersionCheck: eRRoR -- "));
  EXPECT_THAT(log.lines()[0], testing::EndsWith("no such table: TIME"));
}

TEST_F(Lifecycle, ACompleteCatalogueIsGoodAndTheCheckChangesNothing) {
  createComplete();
  const std::string before = timeRow("TIME||'|'||FULL_SCAN||'|'||GRACEFUL_SHUTDOWN");
  const LogCapture log(1);
  EXPECT_TRUE(isGood());
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(inside);
  EXPECT_EQ(timeRow("TIME||'|'||FULL_SCAN||'|'||GRACEFUL_SHUTDOWN"), before);
}

TEST_F(Lifecycle, TheCheckSaysWhichStepFailed) {
  const std::string tag = "debug 1 DCSqliteDB :: IsDbGood: ";
  const std::string where = "DB[" + folder + "] for Vol[/data]";
  const auto refusedWith = [&](const std::string& line) {
    const LogCapture log(1);
    EXPECT_FALSE(isGood());
    EXPECT_TRUE(log.has(line)) << line << "\nlogged:\n" << testing::PrintToString(log.lines());
  };

  refusedWith(tag + where + " does not exist");

  createComplete();
  {
    UDC_DBMS holder(fidsPath, 2, 0, false);
    ASSERT_TRUE(holder.opendb(false));
    refusedWith(tag + "DbOpen failed on " + where + " ");
  }

  DatabaseView(filesPath).rows("UPDATE TIME SET GRACEFUL_SHUTDOWN=0");
  refusedWith(tag + "Could not obtain RefTime on  " + where + " ");
  refusedWith("error 0 DCSqliteDB :: GetReferenceTime: FULL_SCAN[1] GRACEFUL_SHUTDOWN[0]");
  DatabaseView(filesPath).rows("UPDATE TIME SET GRACEFUL_SHUTDOWN=1, FULL_SCAN=0");
  refusedWith(tag + "Could not obtain RefTime on  " + where + " ");

  DatabaseView(filesPath).rows("UPDATE TIME SET FULL_SCAN=1, VERSION='9.9'");
  refusedWith(tag + "DBVersionCheck failed on  " + where + " ");
}

TEST_F(Lifecycle, AnExceptionDuringTheCheckIsLoggedAndRefuses) {
  createComplete();
  DatabaseView(filesPath).rows("DROP TABLE TIME");
  const LogCapture log(0);
  EXPECT_FALSE(isGood());
  EXPECT_TRUE(log.mentions("DCSqliteDB :: IsDbGood: eRRoR -- "));
  EXPECT_TRUE(log.mentions("no such table: TIME"));
}

TEST_F(Lifecycle, AnEmptyTimeTableIsAnInconsistency) {
  createComplete();
  DatabaseView(filesPath).rows("DELETE FROM TIME");
  const LogCapture log(0);
  EXPECT_FALSE(isGood());
  EXPECT_TRUE(log.mentions("DB Inconsistent"));
}

TEST_F(Lifecycle, ACatalogueInsideItsVolumeIsToldWithItsFilesIdentifiers) {
  createComplete();
  EXPECT_TRUE(isGood(temp.path()));
  EXPECT_TRUE(inside);
  EXPECT_EQ(dbFid, driver.getFID(filesPath, false));
  EXPECT_EQ(fidFid, driver.getFID(fidsPath, false));
}

TEST_F(Lifecycle, InsideMeansBelowTheVolumesFolder) {
  createComplete();
  EXPECT_TRUE(isGood(temp.path() + "/cat"));
  EXPECT_FALSE(inside) << "a common beginning of the name is not enough";
  EXPECT_TRUE(isGood(folder));
  EXPECT_FALSE(inside) << "nor is the volume's folder itself";
}

TEST_F(Lifecycle, AFlagThatTheCallerSetIsLeftAndAnswered) {
  createComplete();
  inside = true;
  EXPECT_TRUE(isGood("/elsewhere"));
  EXPECT_TRUE(inside);
  EXPECT_EQ(dbFid, driver.getFID(filesPath, false));
}

TEST_F(Lifecycle, AnObjectDestroyedWhileOpenLeavesTheCatalogueAsACrashWould) {
  createComplete();
  {
    OpenCatalogue db(folder);
    ASSERT_TRUE(db.OpenHandle(false, false));
    StatFidName_s e = entry("lost", 'L', kRegular);
    db.Insert(&e, 0, 7);
  }
  EXPECT_FALSE(isGood());
  EXPECT_TRUE(files("*").empty());
}

TEST_F(Lifecycle, ReadersFindEveryIdentifierOfTheRowsThatTheySee) {
  create();
  OpenCatalogue db(folder);
  ASSERT_TRUE(db.OpenHandle(false, false));
  StatFidName_s e = entry("a", 'A', kRegular);
  db.Insert(&e, 0, 7);
  EXPECT_TRUE(files("*").empty());
  db.Commit();
  EXPECT_EQ(files("NAME"), Rows{"a"});
  EXPECT_EQ(fids("FILES_ROWID"), Rows{"1"});
}

}  // namespace
