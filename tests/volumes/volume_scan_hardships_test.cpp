// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A scan of volumes that fails, wholly or in part, and one that meets hostile names.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/volume_scan_fixture.h"

namespace {

using kddc::test::LogCapture;
using kddc::test::VolumeScan;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

using ScanThatFails = VolumeScan;
using HostileTexts = VolumeScan;

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
