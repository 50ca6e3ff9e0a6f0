// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Whether a catalogue that is there is good to go on with, and what tells that it is not.
#include <gmock/gmock.h>

#include <string>

#include "tests/support/lifecycle_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::DatabaseView;
using kddc::test::Lifecycle;
using kddc::test::LogCapture;
using kddc::test::OpenCatalogue;

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

}  // namespace
