// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Which mount points a scan takes for volumes: what it skips, and what the two lists choose.
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "tests/support/volume_scan_fixture.h"

namespace {

using kddc::test::VolumeScan;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

using ScanSkips = VolumeScan;
using ScanOfChosenVolumes = VolumeScan;

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

}  // namespace
