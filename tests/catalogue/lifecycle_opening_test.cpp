// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What opening and closing a catalogue mark in it, and when each is refused.
#include <gmock/gmock.h>

#include <ctime>
#include <string>

#include "platform/exceptions.h"
#include "tests/support/lifecycle_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using kddc::test::Lifecycle;
using kddc::test::LogCapture;
using kddc::test::OpenCatalogue;
using testing::ElementsAre;

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
