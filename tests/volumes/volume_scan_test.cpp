// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The scan of mounted volumes, over a mount table that the test writes.
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <thread>

#include "tests/support/registry_fixture.h"

namespace {

using kddc::test::LogCapture;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

const std::string kTag = "scan_and_update_volumes: ";

struct VolumeScan : kddc::test::RegistryFixture {
  // Lets a scan make the registry, so that a test can write into it first.
  void makeRegistry() const {
    mounted({});
    scan();
  }
  // What the scan alone logs, each line behind its level.
  Rows logOf(bool filterMode = true, const std::string& logs = "", const std::string& buffer = "",
             const std::list<std::string>& snapMounts = {}) const {
    const LogCapture log(2);
    scan(filterMode, logs, buffer, snapMounts);
    Rows lines;
    for (const std::string& line : log.lines())
      if (const auto at = line.find(kTag); at != std::string::npos)
        lines.push_back(line.substr(0, at) + line.substr(at + kTag.size()));
    return lines;
  }
  // The update of a volume's row.
  static std::string updateOf(const std::string& mountPoint, const std::string& device,
                              const std::string& local = "1") {
    return "debug 2 Exec query: UPDATE VOLUME SET DEVTYPE=" + deviceOf(mountPoint) +
           " , BLOCKSIZE = " + blockSizeOf(mountPoint) + " , DEVLABEL = '" + device +
           "' , FSTYPE = 'ext4' , LOCAL = " + local + "   WHERE MOUNT_POINT = '" + mountPoint + "'";
  }
  // Every change of VOLUME that matches `when` fails with "refused".
  void refuse(const std::string& change, const std::string& when) const {
    registry("CREATE TRIGGER T BEFORE " + change + " ON VOLUME WHEN " + when +
             " BEGIN SELECT RAISE(ABORT,'refused'); END");
  }

  const std::string a = place("a"), b = place("b"), c = place("c");
};

using ScanSkips = VolumeScan;
using ScanOfChosenVolumes = VolumeScan;
using ScanOfKnownVolumes = VolumeScan;
using ScanThatFails = VolumeScan;
using HostileTexts = VolumeScan;

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

TEST_F(ScanSkips, NetworkAndAutomountsWithoutAWord) {
  mounted({{"s:/x", a, "nfs"}, {"s:/y", b, "nfs4"}, {"systemd-1", c, "autofs"}});
  EXPECT_THAT(logOf(), ElementsAre("debug 1 Mount point:" + a + " , fstype:nfs , list size:3",
                                   "debug 1 Mount point:" + b + " , fstype:nfs4 , list size:3",
                                   "debug 1 Mount point:" + c + " , fstype:autofs , list size:3",
                                   "debug 2 handle unmounted volumes",
                                   "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME"));
}

TEST_F(ScanSkips, NoTypeThatOnlyLooksLikeANetwork) {
  mounted({{"x", a, "nf"}, {"y", b, "autofs2"}});
  char support;
  supported_fs_type("ext4", &support);
  types("INSERT INTO FSTYPE VALUES('nf','N'),('autofs2','N')");
  scan();
  EXPECT_THAT(volumes(), ElementsAre(a, b));
}

TEST_F(ScanSkips, TheRootUnlessItIsEnabled) {
  mounted({{"/dev/root", "/", "ext4"}});
  EXPECT_THAT(logOf(), AllOf(Contains("debug 1 Root volume will NOT be Monitored"),
                             Not(Contains("debug 2 Accessing /"))));
  EXPECT_THAT(volumes(), IsEmpty());

  settings("nEnableMonitoringForRoot = -1\n");
  EXPECT_THAT(logOf(), AllOf(Contains("debug 1 Root volume will be added for Monitoring"),
                             Contains("debug 2 Accessing /")));
  EXPECT_THAT(registry("SELECT MOUNT_POINT,PATH_TO_DB FROM VOLUME"),
              ElementsAre("/|/.DATACLASS_1"));
}

TEST_F(ScanSkips, AnEnabledRootIsStillSkippedForTheOtherReasons) {
  mounted({{"/dev/root", "/", "ext4"}});
  settings("nEnableMonitoringForRoot = 1\n");
  const Rows log = logOf(true, "/");
  EXPECT_THAT(log, Contains("debug 1 / is skipped as it holds Logs for this software"));
  EXPECT_THAT(volumes(), IsEmpty());
}

TEST_F(ScanSkips, SnapshotsLogsAndTheBuffer) {
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}, {"/dev/c", c, "ext4"}});
  EXPECT_THAT(logOf(true, b, c, {"/other", a}),
              ElementsAre("debug 1 Mount point:" + a + " , fstype:ext4 , list size:3",
                          "debug 1 " + a + " is skipped as it is a snap mount",
                          "debug 1 Mount point:" + b + " , fstype:ext4 , list size:3",
                          "debug 1 " + b + " is skipped as it holds Logs for this software",
                          "debug 1 Mount point:" + c + " , fstype:ext4 , list size:3",
                          "debug 1 " + c + " is skipped as it holds RawBuffer",
                          "debug 2 handle unmounted volumes",
                          "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME"));
}

TEST_F(ScanSkips, TellsTheFirstReasonOfSeveral) {
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  EXPECT_THAT(logOf(true, a, a, {a}),
              Contains("debug 1 " + a + " is skipped as it is a snap mount"));
  EXPECT_THAT(logOf(true, b, b),
              Contains("debug 1 " + b + " is skipped as it holds Logs for this software"));
}

TEST_F(ScanSkips, AMountPointThatIsOnlyBelowTheLogsIsAVolume) {
  mounted({{"/dev/a", place("a/logs"), "ext4"}});
  scan(true, a, a + "/", {a});
  EXPECT_THAT(volumes(), ElementsAre(a + "/logs"));
}

TEST_F(ScanSkips, WhatCannotBeAccessedWithoutAWord) {
  mounted({{"/dev/x", folder / "gone", "ext4"}});
  EXPECT_THAT(logOf(),
              ElementsAre("debug 1 Mount point:" + folder / "gone" + " , fstype:ext4 , list size:1",
                          "debug 2 handle unmounted volumes",
                          "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME"));
}

TEST_F(ScanSkips, TypesThatAreNotListedWithoutAWord) {
  mounted({{"proc", a, "proc"}});
  EXPECT_THAT(logOf(),
              ElementsAre("debug 1 Mount point:" + a + " , fstype:proc , list size:1",
                          "debug 2 Accessing " + a,
                          "debug 2 Exec query: SELECT * FROM FILTER WHERE VOLNAME='" + a + "'",
                          "debug 2 handle unmounted volumes",
                          "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME"));
}

TEST_F(ScanOfChosenVolumes, InFilterModeAFilteredVolumeLosesItsRow) {
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  scan();
  registry("INSERT INTO FILTER VALUES('" + a + "')");
  const Rows log = logOf();
  EXPECT_EQ(
      Rows(log.begin(), log.begin() + 6),
      (Rows{"debug 1 Mount point:" + a + " , fstype:ext4 , list size:2", "debug 2 Accessing " + a,
            "debug 2 Exec query: SELECT * FROM FILTER WHERE VOLNAME='" + a + "'",
            "debug 1 " + a + " is in Filter table so Ignoring",
            "debug 2 Exec query: DELETE FROM VOLUME WHERE MOUNT_POINT='" + a + "'",
            "debug 1 Mount point:" + b + " , fstype:ext4 , list size:2"}));
  EXPECT_THAT(volumes(), ElementsAre(b));
}

TEST_F(ScanOfChosenVolumes, InFilterModeTheMonitorTableDoesNotCount) {
  makeRegistry();
  registry("INSERT INTO MONITOR VALUES('" + b + "')");
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(ScanOfChosenVolumes, InMonitorModeOnlyTheListedOnesAreAdded) {
  makeRegistry();
  registry("INSERT INTO MONITOR VALUES('" + b + "'); INSERT INTO FILTER VALUES('" + b + "')");
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  EXPECT_THAT(logOf(false),
              AllOf(Contains("debug 2 Exec query: SELECT * FROM MONITOR WHERE VOLNAME='" + a + "'"),
                    Contains("debug 2 " + a + " is in not in Monitor table so Ignoring")));
  EXPECT_THAT(volumes(), ElementsAre(b));
}

TEST_F(ScanOfChosenVolumes, InMonitorModeTheOthersLoseTheirRowAndTheirCatalogue) {
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  scan();
  registry("INSERT INTO MONITOR VALUES('" + b + "'),('/later')");
  for (const std::string& volume : {a + "/.DATACLASS_1", b + "/.DATACLASS_2"}) {
    std::filesystem::create_directory(volume);
    std::ofstream(volume + "/.db.kd") << "rows";
  }
  const Rows log = logOf(false);
  const auto end =
      std::find(log.begin(), log.end(), "debug 2 Exec query: SELECT VOLNAME FROM MONITOR");
  EXPECT_EQ(Rows(end, log.end()), (Rows{"debug 2 Exec query: SELECT VOLNAME FROM MONITOR",
                                        "debug 2 Adding " + b + " to VolsInMonitorTable",
                                        "debug 2 Adding /later to VolsInMonitorTable",
                                        "debug 2 Exec query: SELECT MOUNT_POINT FROM VOLUME",
                                        "debug 2 Adding " + a + " to VolsInVolumeTable",
                                        "debug 2 Adding " + b + " to VolsInVolumeTable",
                                        "debug 2 Checking if " + a + " in Filter table",
                                        "debug 2 Checking if " + b + " in Filter table"}));
  EXPECT_THAT(volumes(), ElementsAre(b));
  EXPECT_NE(access((a + "/.DATACLASS_1").c_str(), F_OK), 0);
  EXPECT_EQ(access((b + "/.DATACLASS_2/.db.kd").c_str(), F_OK), 0);
}

TEST_F(ScanOfChosenVolumes, InFilterModeNoCatalogueIsRemoved) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  std::filesystem::create_directory(a + "/.DATACLASS_1");
  registry("INSERT INTO FILTER VALUES('" + a + "')");
  scan();
  mounted({});
  scan();
  EXPECT_THAT(volumes(), IsEmpty());
  EXPECT_EQ(access((a + "/.DATACLASS_1").c_str(), F_OK), 0);
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

TEST_F(ScanThatFails, GoesOnWithTheNextMountPoint) {
  makeRegistry();
  refuse("INSERT", "NEW.DEVLABEL='/dev/a'");
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  const Rows log = logOf();
  EXPECT_THAT(log, Contains(MatchesRegex("error 0 eRRoR -- UDCException: .*refused.* ")));
  EXPECT_THAT(log, Contains(updateOf(b, "/dev/b")));
  EXPECT_THAT(volumes(), ElementsAre(b));
}

TEST_F(ScanThatFails, GoesOnWithTheNextRow) {
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  scan();
  refuse("DELETE", "OLD.DEVLABEL='/dev/a'");
  mounted({});
  EXPECT_THAT(logOf(), Contains(MatchesRegex("error 0 eRRoR -- UDCException: .*refused.* ")));
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(ScanThatFails, KeepsWhatTheFailedMountPointHadDone) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  refuse("INSERT", "1");
  mounted({{"/dev/new", a, "ext4"}});
  scan();
  EXPECT_THAT(volumes(), IsEmpty()) << "a row of the old device would be worse than none";
}

TEST_F(ScanThatFails, DeletesNothingWhenTheMountTableCannotBeRead) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  KdMntTab::SetSource(folder / "missing");
  const Rows log = logOf();
  ASSERT_EQ(log.size(), 2U);
  EXPECT_EQ(log[0], "error 0 eRRoR --  UnExpected Exception on ");
  EXPECT_THAT(log[1], AllOf(HasSubstr("debug 1 "), HasSubstr(folder / "missing")));
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(ScanThatFails, DeletesNothingWhenASettingIsNoNumber) {
  mounted({{"/dev/a", a, "ext4"}});
  scan();
  mounted({});
  settings("nRetainUnMountedVolumes = yes\n");
  EXPECT_THAT(logOf(), ElementsAre("error 0 eRRoR --  UnExpected Exception on ",
                                   HasSubstr("nRetainUnMountedVolumes")));
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(ScanThatFails, KeepsTheVolumesThatItHadAddedBefore) {
  mounted({{"/dev/a", a, "ext4"}});
  settings("nRetainUnMountedVolumes = yes\n");
  scan();
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(ScanThatFails, StopsNoVolumeWhenTheListOfChosenOnesIsMissing) {
  mounted({{"/dev/a", a, "ext4"}, {"/dev/b", b, "ext4"}});
  scan();
  registry("DROP TABLE MONITOR");
  const Rows log = logOf(false);
  EXPECT_EQ(std::count_if(log.begin(), log.end(),
                          [](const std::string& line) { return line.starts_with("error"); }),
            3)
      << "one for each mount point and one for the end";
  EXPECT_THAT(log, Contains(HasSubstr("no such table: MONITOR")));
  EXPECT_THAT(volumes(), ElementsAre(a, b));
}

TEST_F(ScanThatFails, AddsNothingWhenTheListOfFilteredOnesIsMissing) {
  makeRegistry();
  registry("DROP TABLE FILTER");
  mounted({{"/dev/a", a, "ext4"}});
  EXPECT_THAT(logOf(), Contains(HasSubstr("no such table: FILTER")));
  EXPECT_THAT(volumes(), IsEmpty());
}

TEST_F(ScanThatFails, KeepsTheListsOfARegistryThatLostItsVolumes) {
  makeRegistry();
  registry("INSERT INTO MONITOR VALUES('" + a + "'); DROP TABLE VOLUME");
  mounted({{"/dev/a", a, "ext4"}});
  scan(false);
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(ScanThatFails, LogsARegistryThatCannotBeOpened) {
  (void)place("etc/DataClassification/volume_db.kd");  // a folder in its place
  const Rows log = logOf();
  ASSERT_EQ(log.size(), 1U);
  EXPECT_THAT(log[0], MatchesRegex("error 0 eRRoR -- UDCException: .*Unable to open .*/volume_db.kd"
                                   ".* "));
}

TEST_F(ScanThatFails, LeavesADamagedRegistryAsItIs) {
  (void)place("etc/DataClassification");
  (void)folder.write("etc/DataClassification/volume_db.kd", "only some text, and no database");
  EXPECT_THAT(logOf(), ElementsAre(HasSubstr("error 0 eRRoR -- UDCException: ")));
  std::ifstream file(registryPath());
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}),
            "only some text, and no database");
}

TEST_F(HostileTexts, StayWhatTheyAre) {
  const std::vector<std::string> names = {"it's",       "'); DROP TABLE VOLUME; --",
                                          "two\nlines", "tab\tand blank",
                                          "%s%n%d",     "back\\slash",
                                          "\xff\xfe",   "\"; ?1 :a @b $c"};
  std::vector<KdMntEntry> entries;
  Rows expected;
  for (const std::string& name : names) {
    expected.push_back(place("hostile/" + name));
    entries.push_back({"/dev/" + name, expected.back(), "ext4"});
  }
  mounted(entries);
  const LogCapture log(2);
  scan();
  EXPECT_EQ(volumes(), expected);
  scan();  // every row is found again, and is current
  EXPECT_EQ(volumes(), expected);
  EXPECT_THAT(registry("SELECT max(ROWID) FROM VOLUME"), ElementsAre("8"));
  EXPECT_TRUE(log.has("debug 2 " + kTag +
                      "Exec query: SELECT DEVLABEL FROM VOLUME WHERE "
                      "MOUNT_POINT='" +
                      folder / "hostile/it''s" + "'"));
  EXPECT_FALSE(log.mentions("eRRoR"));

  mounted({});
  scan();
  EXPECT_THAT(volumes(), IsEmpty());
  EXPECT_EQ(registry("SELECT count(*) FROM FILTER"), Rows{"0"});
}

TEST_F(HostileTexts, AreStoppedByTheirOwnName) {
  const std::string volume = place("' OR '1'='1");
  mounted({{"/dev/a", a, "ext4"}, {"/dev/x", volume, "ext4"}});
  scan();
  registry("INSERT INTO MONITOR VALUES('" + a + "')");
  scan(false);
  EXPECT_THAT(volumes(), ElementsAre(a));
}

TEST_F(HostileTexts, InADeviceOrATypeReachTheRow) {
  makeRegistry();
  char support;
  supported_fs_type("ext4", &support);
  types("INSERT INTO FSTYPE VALUES('t''y%s','''')");
  mounted({{"//nas/it's %s\n", a, "t'y%s"}});
  scan();
  EXPECT_THAT(registry("SELECT DEVLABEL,FSTYPE,DRIVER_SUPPORT_POSSIBLE FROM VOLUME"),
              ElementsAre("//nas/it's %s\n|t'y%s|'"));
  scan();
  EXPECT_THAT(registry("SELECT ROWID FROM VOLUME"), ElementsAre("1"));
}

TEST_F(HostileTexts, MayBeAsLongAsAPathCanBe) {
  std::string deep = "long";
  while (folder.path().size() + deep.size() < 3700) deep += "/" + std::string(200, '\'');
  const std::string volume = place(deep);
  mounted({{std::string(3000, 'd'), volume, "ext4"}});
  scan();
  EXPECT_THAT(volumes(), ElementsAre(volume));
  EXPECT_THAT(registry("SELECT length(DEVLABEL) FROM VOLUME"), ElementsAre("3000"));
}

TEST_F(HostileTexts, LongerThanAPathCannotBeAccessed) {
  mounted({{"/dev/a", "/" + std::string(20000, 'x'), "ext4"}, {"/dev/b", b, "ext4"}});
  scan();
  EXPECT_THAT(volumes(), ElementsAre(b));
}

}  // namespace
