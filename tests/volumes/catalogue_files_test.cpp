// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "platform/exceptions.h"
#include "tests/support/database_view.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_folder.h"
#include "volumes/DCHelper.h"

namespace {

using kddc::test::DatabaseView;
using kddc::test::LogCapture;
using kddc::test::TempFolder;
using testing::ElementsAre;

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

struct CatalogueFiles : testing::Test {
  TempFolder folder;
  std::string path = folder / "test.db";
  const std::string tag = "debug 1 VerifyDBIntegrity: ";

  void makeTable() {
    DatabaseView(path, true).rows("CREATE TABLE T (N); INSERT INTO T VALUES (5)");
  }

  // An index whose entries stand in another order than its definition wants. (A vacuum copies an
  // index of plain order as it is; one with a collation it sorts anew.)
  void makeIndexOutOfOrder() {
    DatabaseView(path, true)
        .rows(
            "CREATE TABLE T (N TEXT, M); CREATE INDEX I ON T(N);"
            "INSERT INTO T VALUES ('a',1),('B',2),('A',3),('b',4); PRAGMA writable_schema=1;"
            "UPDATE sqlite_master SET sql='CREATE INDEX I ON T(N COLLATE NOCASE)' WHERE name='I'");
  }

  // A row that breaks a rule of its table, which no vacuum mends.
  void makeRowsThatBreakTheirRule(int rows) {
    DatabaseView db(path, true);
    db.rows("CREATE TABLE T (N INTEGER)");
    for (int i = 0; i < rows; ++i) db.rows("INSERT INTO T VALUES (NULL)");
    db.rows(
        "PRAGMA writable_schema=1; UPDATE sqlite_master SET sql='CREATE TABLE T (N INTEGER NOT "
        "NULL)'");
  }
};

TEST_F(CatalogueFiles, ASoundDatabasePassesAtOnce) {
  makeTable();
  const LogCapture log(2);
  EXPECT_TRUE(VerifyDBIntegrity(path.c_str()));
  EXPECT_THAT(log.lines(), ElementsAre(tag + "Executing Query : PRAGMA integrity_check",
                                       tag + "Integrity Check on " + path + " returned TRUE"));
}

TEST_F(CatalogueFiles, AnIndexOutOfOrderIsRepairedByAVacuum) {
  makeIndexOutOfOrder();
  const LogCapture log(2);
  EXPECT_TRUE(VerifyDBIntegrity(path.c_str()));
  ASSERT_GE(log.lines().size(), 4U);
  EXPECT_EQ(log.lines()[1], tag + "Integrity check on " + path + " Failed : Trying Vacuum ");
  EXPECT_EQ(log.lines()[2],
            "debug 2 VerifyDBIntegrity: Integrity Check on " + path + " returned integrity_check ")
      << "the column name comes first";
  EXPECT_EQ(log.lines().back(), tag + "Vacuum Got rid of the corruption for " + path + " ");
  EXPECT_EQ(DatabaseView(path).cell("PRAGMA integrity_check"), "ok");
  EXPECT_EQ(DatabaseView(path).cell("SELECT count(*) FROM T WHERE N='A' COLLATE NOCASE"), "2");
}

TEST_F(CatalogueFiles, OfWhatTheCheckFoundTheLastLineIsNotLogged) {
  makeRowsThatBreakTheirRule(2);
  const LogCapture log(2);
  EXPECT_FALSE(VerifyDBIntegrity(path.c_str()));
  const std::string line = "debug 2 VerifyDBIntegrity: Integrity Check on " + path + " returned ";
  EXPECT_THAT(log.lines(),
              ElementsAre(tag + "Executing Query : PRAGMA integrity_check",
                          tag + "Integrity check on " + path + " Failed : Trying Vacuum ",
                          line + "integrity_check ", line + "NULL value in T.N ",
                          tag + path + " is corrupt"));
}

TEST_F(CatalogueFiles, ADatabaseThatAVacuumCannotMendIsCorrupt) {
  makeRowsThatBreakTheirRule(1);
  const LogCapture log(1);
  EXPECT_FALSE(VerifyDBIntegrity(path.c_str()));
  EXPECT_EQ(log.lines().back(), tag + path + " is corrupt");
}

TEST_F(CatalogueFiles, WhatCannotBeOpenedDoesNotPass) {
  folder.write("test.db", std::string(4096, 'x'));
  for (const std::string& wrong : {path, folder / "no/such/folder/db"}) {
    const LogCapture log(1);
    EXPECT_FALSE(VerifyDBIntegrity(wrong.c_str()));
    EXPECT_EQ(log.lines().back(), tag + "open db failed for " + wrong);
  }
}

TEST_F(CatalogueFiles, ADatabaseWhosePagesAreGoneFailsTheVacuumAndDoesNotPass) {
  {
    DatabaseView db(path, true);
    db.rows("CREATE TABLE T (N)");
    for (int i = 0; i < 9; ++i) db.rows("INSERT INTO T VALUES (zeroblob(3000))");
  }
  std::fstream(path, std::ios::in | std::ios::out).seekp(3 * 4096) << std::string(4096, '\xff');
  const LogCapture log(0);
  EXPECT_FALSE(VerifyDBIntegrity(path.c_str()));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_THAT(log.lines()[0],
              testing::StartsWith("error 0 VerifyDBIntegrity: eRRoR -- UDCException: "));
  EXPECT_THAT(log.lines()[0], testing::EndsWith("database disk image is malformed"));
  EXPECT_FALSE(VerifyDBIntegrity(path.c_str())) << "and its lock was given back";
}

TEST_F(CatalogueFiles, AnOpenConnectionCanBeChecked) {
  makeRowsThatBreakTheirRule(1);
  UDC_DBMS corrupt(path, 2, 0, false), closed(path, 2, 0, false),
      sound(folder / "sound.db", 2, 0, false);
  ASSERT_TRUE(corrupt.opendb(false));
  ASSERT_TRUE(sound.opendb(false));
  EXPECT_FALSE(CheckDBIntegrity(&corrupt));
  EXPECT_TRUE(CheckDBIntegrity(&sound));
  EXPECT_FALSE(CheckDBIntegrity(&closed));
}

TEST_F(CatalogueFiles, RemovingACatalogueTakesItsDatabasesAndItsFolder) {
  const std::string catalogue = folder / "catalogue";
  ASSERT_EQ(mkdir(catalogue.c_str(), 0700), 0);
  for (const char* name : {".db.kd", ".db.kd.lock", ".db.kd-wal", ".db.kd-shm", ".fid.kd",
                           ".fid.kd.lock", ".fid.kd-journal"})
    folder.write(std::string("catalogue/") + name, "x");
  const LogCapture log(1);
  RemoveDCDb(catalogue);
  EXPECT_FALSE(exists(catalogue));
  EXPECT_THAT(log.lines(), ElementsAre("debug 1 RemoveDCDb: Removing DC DB [" + catalogue + "]"));
}

TEST_F(CatalogueFiles, RemovingACatalogueLeavesStrangersFilesAndTheirFolder) {
  folder.write(".db.kd", "x");
  folder.write("letter", "mine");
  RemoveDCDb(folder.path());
  EXPECT_FALSE(exists(folder / ".db.kd"));
  EXPECT_TRUE(exists(folder / "letter"));
  RemoveDCDb(folder / "nowhere");
}

TEST_F(CatalogueFiles, AFolderOfPlainFilesIsRemoved) {
  const std::string victims = folder / "victims";
  ASSERT_EQ(mkdir(victims.c_str(), 0700), 0);
  folder.write("kept", "x");
  folder.write("victims/a", "x");
  folder.write("victims/.hidden", "x");
  ASSERT_EQ(symlink("../kept", (victims + "/link").c_str()), 0);
  EXPECT_EQ(RmDir(victims.c_str()), 0);
  EXPECT_FALSE(exists(victims));
  EXPECT_TRUE(exists(folder / "kept")) << "a link is removed, not what it points at";
}

TEST_F(CatalogueFiles, AFolderWithASubFolderLosesItsPlainFilesAlone) {
  const std::string victims = folder / "victims";
  ASSERT_EQ(mkdir(victims.c_str(), 0700), 0);
  ASSERT_EQ(mkdir((victims + "/sub").c_str(), 0700), 0);
  folder.write("victims/a", "x");
  folder.write("victims/sub/b", "x");
  EXPECT_EQ(RmDir(victims.c_str()), -1);
  EXPECT_FALSE(exists(victims + "/a"));
  EXPECT_TRUE(exists(victims + "/sub/b"));
}

TEST_F(CatalogueFiles, AFolderThatCannotBeOpenedIsAnException) {
  const std::string nowhere = folder / "nowhere";
  try {
    RmDir(nowhere.c_str());
    FAIL();
  } catch (const UDCException& e) {
    EXPECT_EQ(e.GetType(), 0);
    EXPECT_EQ(e.GetErrorNumber(), ENOENT);
    EXPECT_EQ(e.GetMessage(), nowhere);
    EXPECT_THAT(e.GetErrorMsg(), testing::HasSubstr("No such file or directory"));
  }
}

TEST_F(CatalogueFiles, ANumberIsFoundInAList) {
  const std::list<unsigned long long> none, some{3, 18446744073709551615ULL};
  EXPECT_FALSE(FindInList(&none, 3));
  EXPECT_TRUE(FindInList(&some, 18446744073709551615ULL));
  EXPECT_FALSE(FindInList(&some, 4));
}

}  // namespace
