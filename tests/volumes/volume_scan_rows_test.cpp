// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a scan of volumes writes: the row of a new volume, and what becomes of one that is there.
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/volume_scan_fixture.h"

namespace {

using kddc::test::LogCapture;
using kddc::test::VolumeScan;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

using ScanOfKnownVolumes = VolumeScan;

TEST_F(VolumeScan, MakesARegistryThatNobodyElseMayRead) {
  scan();
  EXPECT_THAT(registry("SELECT name FROM sqlite_master ORDER BY 1"),
              ElementsAre("FILTER", "MONITOR", "VOLUME"));
  EXPECT_EQ(statOf(folder / "etc").st_mode & 0777, 0700U);
  EXPECT_EQ(statOf(folder / "etc/DataClassification").st_mode & 0777, 0700U);
  EXPECT_EQ(statOf(registryPath()).st_mode & 0777, 0600U);
}

TEST_F(VolumeScan, OfAnEmptyMountTableOnlyAsksForTheRows) {
  EXPECT_THAT(logOf(), ElementsAre("debug 2 handle unmounted volumes",
                                   "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME"));
}

TEST_F(VolumeScan, GivesANewVolumeARowWithEveryColumn) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  EXPECT_THAT(registry("SELECT ROWID,* FROM VOLUME"),
              ElementsAre("1|/dev/a|" + a + "|ext4|" + deviceOf(a) + "|" + blockSizeOf(a) + "|Y|" +
                          a + "/.DATACLASS_1|DC_NOT_SCANNED|DC_NOT_SCANNED|0|0|0|0|0|1|1|0|0|0"));
  EXPECT_THAT(registry("SELECT typeof(DEVTYPE),typeof(MONITORED),typeof(DB_CREATION_TIME),"
                       "typeof(DRIVER_SUPPORT_POSSIBLE) FROM VOLUME"),
              ElementsAre("integer|integer|text|text"));
}

TEST_F(VolumeScan, SaysWhatItDoesInThisOrder) {
  mounted({{"/dev/a", a, "ext4"}});
  const std::string insert =
      "debug 2 Exec query: INSERT INTO VOLUME(DEVLABEL,MOUNT_POINT,FSTYPE,DEVTYPE,BLOCKSIZE,"
      "DRIVER_SUPPORT_POSSIBLE,PATH_TO_DB,SCAN_PROGRESS,INCR_SCAN_PROGRESS,CURRENT_SCAN_TIME,"
      "LAST_SCAN_TIME,SCAN_END_TIME,ROW_COUNT,CHANGE_COUNT,LOCAL,MONITORED,FILTER_INODE,"
      "FILTER_INODE1,DB_CREATION_TIME) VALUES ('/dev/a','" +
      a + "','ext4'," + deviceOf(a) + "," + blockSizeOf(a) + ",'Y','" + a +
      "/.DATACLASS_1','DC_NOT_SCANNED','DC_NOT_SCANNED',0,0,0,0,0,1,1,0,0,'0')";
  EXPECT_THAT(
      logOf(),
      ElementsAre("debug 1 Mount point:" + a + " , fstype:ext4 , list size:1",
                  "debug 2 Accessing " + a,
                  "debug 2 Exec query: SELECT * FROM FILTER WHERE VOLNAME='" + a + "'",
                  "debug 2 Exec query: SELECT DEVLABEL FROM VOLUME WHERE MOUNT_POINT='" + a + "'",
                  "debug 2 Exec query: SELECT MAX(ROWID) FROM VOLUME", insert,
                  "debug 2 handle unmounted volumes",
                  "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME", updateOf(a, "/dev/a")));
}

TEST_F(VolumeScan, NumbersVolumesInTheOrderOfTheMountTable) {
  mounted({{"/dev/b", b, "ext4"}, {"/dev/a", a, "xfs"}, {"tmpfs", c, "tmpfs"}});
  settings("DB_FOLDER = /var/db\n");
  scan();
  EXPECT_THAT(
      registry("SELECT ROWID,MOUNT_POINT,FSTYPE,PATH_TO_DB FROM VOLUME"),
      ElementsAre("1|" + b + "|ext4|/var/db/.DATACLASS_1", "2|" + a + "|xfs|/var/db/.DATACLASS_2",
                  "3|" + c + "|tmpfs|/var/db/.DATACLASS_3"));
}

TEST_F(VolumeScan, TheNextNumberFollowsTheGreatestRowNotTheCount) {
  makeRegistry();
  registry("INSERT INTO VOLUME(ROWID,MOUNT_POINT) VALUES(41,'/kept')");
  settings("nRetainUnMountedVolumes = 1\n");
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  EXPECT_THAT(registry("SELECT ROWID,PATH_TO_DB FROM VOLUME WHERE ROWID>41"),
              ElementsAre("42|" + a + "/.DATACLASS_42"));
}

TEST_F(VolumeScan, AVolumeOfTheSharedListIsNotLocal) {
  (void)folder.write("shared", b + "\n");
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  const LogCapture log(1);
  scan();
  EXPECT_THAT(registry("SELECT MOUNT_POINT,LOCAL FROM VOLUME"), ElementsAre(a + "|1", b + "|0"));
  EXPECT_TRUE(log.has("debug 1 create_volume_insert_query: " + b + " is a Shared volume "));
}

TEST_F(VolumeScan, NullTextsCountAsEmptyOnes) {
  mounted({{"/dev/a", a, "ext4"}});
  scan_and_update_volumes(nullptr, true, nullptr, nullptr, nullptr, {});
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(VolumeScan, LeavesNothingOpen) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  scan(false);
  UDC_DBMS registryAlone(registryPath(), 2, 0, false), typesAlone(typesPath(), 2, 0, false);
  EXPECT_TRUE(registryAlone.opendb(false));
  EXPECT_TRUE(typesAlone.opendb(false));
}

TEST_F(VolumeScan, SeesWhatAnotherProgramWritesBetweenTwoMountPoints) {
  makeRegistry();
  registry("INSERT INTO FILTER VALUES('" + b + "')");
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  dbg.SetLevel(1);
  dbg.SetSink([this](const EvDebug::Line& line) {
    if (line.text.find("Mount point:" + b) != std::string::npos) registry("DELETE FROM FILTER");
  });
  scan();
  dbg.SetSink({});
  dbg.SetLevel(0);
  EXPECT_THAT(volumes(), ElementsAre(a, b));
}

TEST_F(VolumeScan, WaitsUntilAnotherWriterIsDone) {
  makeRegistry();
  char support;
  supported_fs_type("ext4", &support);
  UDC_DBMS other(typesPath(), 2, 0, false);
  ASSERT_TRUE(other.opendb(false));
  mounted({{"/dev/a", a, "ext4"}});
  std::jthread done;
  dbg.SetLevel(2);
  dbg.SetSink([&](const EvDebug::Line& line) {  // the last line before the types are asked for
    if (line.text.find("SELECT * FROM FILTER") != std::string::npos)
      done = std::jthread([&other] { other.closedb(false); });
  });
  scan();
  dbg.SetSink({});
  dbg.SetLevel(0);
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(ScanOfKnownVolumes, ACurrentRowKeepsItsNumberAndProgress) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  registry("UPDATE VOLUME SET SCAN_PROGRESS='DONE',ROW_COUNT=5,DEVTYPE=0,BLOCKSIZE=0,LOCAL=0");
  EXPECT_THAT(
      logOf(),
      ElementsAre("debug 1 Mount point:" + a + " , fstype:ext4 , list size:1",
                  "debug 2 Accessing " + a,
                  "debug 2 Exec query: SELECT * FROM FILTER WHERE VOLNAME='" + a + "'",
                  "debug 2 Exec query: SELECT DEVLABEL FROM VOLUME WHERE MOUNT_POINT='" + a + "'",
                  "debug 2 handle unmounted volumes",
                  "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME", updateOf(a, "/dev/a")));
  EXPECT_THAT(registry("SELECT ROWID,SCAN_PROGRESS,ROW_COUNT,DEVTYPE,BLOCKSIZE,LOCAL FROM VOLUME"),
              ElementsAre("1|DONE|5|" + deviceOf(a) + "|" + blockSizeOf(a) + "|1"));
}

TEST_F(ScanOfKnownVolumes, AnotherDeviceGetsANewRowAndANewNumber) {
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  scan();
  mounted({{"/dev/new", a, "xfs"}, {"/dev/b", b, "ext4"}});
  const Rows log = logOf();
  EXPECT_THAT(log,
              Contains("debug 2 Exec query: DELETE FROM VOLUME WHERE MOUNT_POINT='" + a + "'"));
  EXPECT_THAT(
      registry("SELECT ROWID,DEVLABEL,FSTYPE,PATH_TO_DB FROM VOLUME"),
      ElementsAre("2|/dev/b|ext4|" + b + "/.DATACLASS_2", "3|/dev/new|xfs|" + a + "/.DATACLASS_3"));
}

TEST_F(ScanOfKnownVolumes, AnUnmountedOneLosesItsRow) {
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  scan();
  mounted({{"/dev/b", b, "ext4"}});
  EXPECT_THAT(logOf(),
              Contains("debug 2 Exec query: DELETE FROM VOLUME WHERE MOUNT_POINT = '" + a + "'"));
  EXPECT_THAT(volumes(), ElementsAre(b));
}

TEST_F(ScanOfKnownVolumes, AnUnmountedOneIsKeptWhenTheSettingSaysSo) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  mounted({});
  settings("nRetainUnMountedVolumes = 1\n");
  EXPECT_THAT(logOf(),
              ElementsAre("debug 2 handle unmounted volumes",
                          "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME",
                          "debug 1 [" + a +
                              "] is no longer mounted but retaining the volume entry as user "
                              "chose to"));
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(ScanOfKnownVolumes, OneWhoseMountPointIsGoneCountsAsUnmounted) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  std::filesystem::remove(a);
  scan();
  EXPECT_THAT(volumes(), IsEmpty());
}

TEST_F(ScanOfKnownVolumes, AnyMountEntryRefreshesTheRowEvenOneThatIsSkipped) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  (void)folder.write("shared", a + "\n");
  mounted({{"server:/x", a, "nfs"}});
  scan();
  EXPECT_THAT(registry("SELECT DEVLABEL,FSTYPE,LOCAL FROM VOLUME"), ElementsAre("server:/x|nfs|0"));
}

TEST_F(ScanOfKnownVolumes, OfTwoMountsOnOnePlaceTheUpperOneIsTheVolume) {
  mounted({{"systemd-1", a, "autofs"}, {"/dev/a", a, "ext4"}});
  scan();
  EXPECT_THAT(registry("SELECT DEVLABEL,FSTYPE FROM VOLUME"), ElementsAre("/dev/a|ext4"));
}

}  // namespace
