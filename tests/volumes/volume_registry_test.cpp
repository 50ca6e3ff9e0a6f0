// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the scan of volumes is made of, each alone.
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <vector>

#include "platform/exceptions.h"
#include "platform/hsm.h"
#include "tests/support/registry_fixture.h"

namespace {

using kddc::test::LogCapture;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct VolumeRegistry : kddc::test::RegistryFixture {
  // The insert of a volume at `mountPoint`, all else being plain.
  static std::string insertOf(const std::string& mountPoint, const char* dbFolder = "NULL",
                              int local = 1, int number = 7) {
    std::vector<char> out(16384, '#');
    create_volume_insert_query(out.data(), mountPoint.c_str(), "/dev/sda1", "ext4", 'Y', number,
                               dbFolder, local);
    return out.data();
  }
  static std::string statement(const std::string& mountPoint, const std::string& pathToDb,
                               const std::string& local = "1") {
    return "INSERT INTO VOLUME(DEVLABEL,MOUNT_POINT,FSTYPE,DEVTYPE,BLOCKSIZE,"
           "DRIVER_SUPPORT_POSSIBLE,PATH_TO_DB,SCAN_PROGRESS,INCR_SCAN_PROGRESS,CURRENT_SCAN_TIME,"
           "LAST_SCAN_TIME,SCAN_END_TIME,ROW_COUNT,CHANGE_COUNT,LOCAL,MONITORED,FILTER_INODE,"
           "FILTER_INODE1,DB_CREATION_TIME) VALUES ('/dev/sda1','" +
           mountPoint + "','ext4'," + deviceOf(mountPoint) + "," + blockSizeOf(mountPoint) +
           ",'Y','" + pathToDb + "','DC_NOT_SCANNED','DC_NOT_SCANNED',0,0,0,0,0," + local +
           ",1,0,0,'0')";
  }

  // A registry with one volume whose catalogue lies in the folder returned.
  std::string volumeWithCatalogue(const std::string& mountPoint) const {
    scan();
    std::string catalogue = place("catalogue");
    for (const char* name : {".db.kd", ".db.kd.lock", ".fid.kd", ".fid.kd.lock"})
      (void)folder.write(std::string("catalogue/") + name, "");
    registry("INSERT INTO VOLUME(MOUNT_POINT,PATH_TO_DB) VALUES('" + mountPoint + "','" +
             catalogue + "')");
    return catalogue;
  }
};

using InsertQuery = VolumeRegistry;
using FsTypes = VolumeRegistry;
using StopVolume = VolumeRegistry;

TEST_F(InsertQuery, NamesEveryColumnAndPlacesTheCatalogueInTheVolume) {
  const std::string volume = place("data");
  EXPECT_EQ(insertOf(volume), statement(volume, volume + "/.DATACLASS_7"));
}

TEST_F(InsertQuery, PlacesTheCatalogueInTheFolderThatIsSet) {
  const std::string volume = place("data");
  EXPECT_EQ(insertOf(volume, "/var/db"), statement(volume, "/var/db/.DATACLASS_7"));
  EXPECT_EQ(insertOf(volume, "/"), statement(volume, "/.DATACLASS_7"));
  EXPECT_EQ(insertOf("/"), statement("/", "/.DATACLASS_7"));
}

TEST_F(InsertQuery, WritesTheNumberWithoutASign) {
  const std::string volume = place("data");
  EXPECT_EQ(insertOf(volume, "NULL", 1, -1), statement(volume, volume + "/.DATACLASS_4294967295"));
}

TEST_F(InsertQuery, OfASharedVolumeSaysSoAndPlacesItsCatalogueLikeAnyOther) {
  const std::string volume = place("data");
  const LogCapture log(1);
  EXPECT_EQ(insertOf(volume, "NULL", 0), statement(volume, volume + "/.DATACLASS_7", "0"));
  EXPECT_THAT(log.lines(), ElementsAre("debug 1 create_volume_insert_query: " + volume +
                                       " is a Shared volume "));
}

TEST_F(InsertQuery, OfASharedVolumeReusesTheCatalogueThatTheSettingsName) {
  const std::string volume = place("data");
  settings("[FailOver]\n" + volume + " = /cluster/it's\n");
  const LogCapture log(1);
  EXPECT_EQ(insertOf(volume, "NULL", 0), statement(volume, "/cluster/it''s", "0"));
  EXPECT_THAT(log.lines(),
              ElementsAre("debug 1 create_volume_insert_query: " + volume + " is a Shared volume ",
                          "debug 1 create_volume_insert_query: Trying to reuse the DB:"
                          "/cluster/it's for " +
                              volume + " "));
  EXPECT_EQ(insertOf(volume), statement(volume, volume + "/.DATACLASS_7"))
      << "a local volume is not asked about";
}

TEST_F(InsertQuery, ThrowsWhenTheMountPointCannotBeExamined) {
  try {
    insertOf(folder / "gone");
    FAIL();
  } catch (const UDCException& e) {
    EXPECT_EQ(e.GetType(), 0);
    EXPECT_EQ(e.GetErrorNumber(), ENOENT);
    EXPECT_EQ(e.GetMessage(), "Unable to stat the volume");
    EXPECT_THAT(e.GetErrorMsg(), HasSubstr("create_volume_insert_query"));
    EXPECT_THAT(e.GetErrorMsg(), HasSubstr("No such file or directory"));
  }
}

TEST_F(InsertQuery, DoublesQuotesInEveryText) {
  const std::string volume = place("a'b");
  std::vector<char> out(4096);
  create_volume_insert_query(out.data(), volume.c_str(), "d'", "t'", '\'', 1, "f'", 1);
  scan();
  registry(out.data());
  EXPECT_THAT(registry("SELECT DEVLABEL,MOUNT_POINT,FSTYPE,DRIVER_SUPPORT_POSSIBLE,PATH_TO_DB "
                       "FROM VOLUME"),
              ElementsAre("d'|" + volume + "|t'|'|f'/.DATACLASS_1"));
}

TEST_F(InsertQuery, IsWholeWhenNoDriverSupportIsKnown) {
  const std::string volume = place("data");
  std::vector<char> out(4096);
  create_volume_insert_query(out.data(), volume.c_str(), "d", "t", '\0', 1, "NULL", 1);
  EXPECT_THAT(out.data(), HasSubstr(",'','" + volume + "/.DATACLASS_1',"));
}

TEST_F(FsTypes, ANewTableListsTheTypesThatAreTested) {
  char support = '?';
  for (const char* type : {"ext4", "xfs", "btrfs", "tmpfs"}) {
    EXPECT_TRUE(supported_fs_type(type, &support)) << type;
    EXPECT_EQ(support, 'Y') << type;
  }
  EXPECT_THAT(types("SELECT * FROM FSTYPE"), ElementsAre("ext4|Y", "xfs|Y", "btrfs|Y", "tmpfs|Y"));
  EXPECT_EQ(statOf(typesPath()).st_mode & 0777, 0600U);
  EXPECT_EQ(statOf(folder / "etc/DataClassification").st_mode & 0777, 0700U);
}

TEST_F(FsTypes, ATypeIsComparedWholeAndLeavesTheCharacterAloneWhenItIsNotListed) {
  char support = '?';
  for (const char* type : {"", "ext", "ext44", "EXT4", "Y", "proc"})
    EXPECT_FALSE(supported_fs_type(type, &support)) << type;
  EXPECT_EQ(support, '?');
}

TEST_F(FsTypes, OnlyTheFirstCharacterOfTheSupportCounts) {
  char support = '?';
  supported_fs_type("ext4", &support);
  types("INSERT INTO FSTYPE VALUES('jfs','No'),('none',NULL),(NULL,'Z'),('last','L')");
  EXPECT_TRUE(supported_fs_type("jfs", &support));
  EXPECT_EQ(support, 'N');
  EXPECT_TRUE(supported_fs_type("none", &support));
  EXPECT_EQ(support, '\0');
  EXPECT_TRUE(supported_fs_type("last", &support));
  EXPECT_EQ(support, 'L');
}

TEST_F(FsTypes, ATableThatIsThereStaysAsItIs) {
  char support = '?';
  supported_fs_type("ext4", &support);
  types("DELETE FROM FSTYPE");
  EXPECT_FALSE(supported_fs_type("ext4", &support));
  EXPECT_THAT(types("SELECT * FROM FSTYPE"), IsEmpty());
}

TEST_F(FsTypes, TheQueryIsLogged) {
  char support = '?';
  const LogCapture log(9);
  supported_fs_type("ext4", &support);
  EXPECT_THAT(log.lines(), ElementsAre("debug 1 UDC_volume_db::supported_fs_type: "
                                       "Exec Query: SELECT * FROM FSTYPE"));
}

TEST_F(FsTypes, ADamagedTableSupportsNothingAndSaysWhy) {
  place("etc/DataClassification");
  (void)folder.write("etc/DataClassification/fstype_db.kd", "this is not a database, only text");
  char support = '?';
  const LogCapture log(0);
  EXPECT_FALSE(supported_fs_type("ext4", &support));
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_THAT(log.lines()[0],
              testing::StartsWith("error 0 UDC_volume_db::supported_fs_type: eRRoR -- "));
  EXPECT_THAT(log.lines()[0], HasSubstr("Unable to open " + typesPath()));
}

TEST_F(StopVolume, DeletesTheRowAndTheCatalogue) {
  const std::string catalogue = volumeWithCatalogue("/it''s");
  registry("INSERT INTO VOLUME(MOUNT_POINT,PATH_TO_DB) VALUES('/other','/nowhere')");
  const LogCapture log(2);
  StopAndFilter("/it's", nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("debug 1 StopAndFilter: /it's",
                                       "debug 1 RemoveDCDb: Removing DC DB [" + catalogue + "]"));
  EXPECT_THAT(volumes(), ElementsAre("/other"));
  EXPECT_NE(access(catalogue.c_str(), F_OK), 0);
}

TEST_F(StopVolume, DoesNotCallTheFunction) {
  volumeWithCatalogue("/data");
  StopAndFilter("/data", [](const char*) -> bool { throw std::runtime_error("called"); });
  EXPECT_THAT(volumes(), IsEmpty());
}

TEST_F(StopVolume, OfAnUnknownVolumeDoesNothing) {
  const std::string catalogue = volumeWithCatalogue("/data");
  const LogCapture log(2);
  StopAndFilter("/dat_", nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("debug 1 StopAndFilter: /dat_"));
  EXPECT_THAT(volumes(), ElementsAre("/data"));
  EXPECT_EQ(access(catalogue.c_str(), F_OK), 0);
}

TEST_F(StopVolume, RemovesNothingWhenTheRowNamesNoCatalogue) {
  volumeWithCatalogue("/data");
  registry("UPDATE VOLUME SET PATH_TO_DB=NULL");
  const LogCapture log(2);
  StopAndFilter("/data", nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("debug 1 StopAndFilter: /data"));
  EXPECT_THAT(volumes(), IsEmpty());
}

TEST_F(StopVolume, LeavesAVolumeAloneThatHasTwoRows) {
  const std::string catalogue = volumeWithCatalogue("/data");
  registry("INSERT INTO VOLUME SELECT * FROM VOLUME");
  StopAndFilter("/data", nullptr);
  EXPECT_THAT(volumes(), ElementsAre("/data", "/data"));
  EXPECT_EQ(access(catalogue.c_str(), F_OK), 0);
}

TEST_F(StopVolume, KeepsTheCatalogueWhenTheRowCannotBeDeleted) {
  const std::string catalogue = volumeWithCatalogue("/data");
  registry("CREATE TRIGGER T BEFORE DELETE ON VOLUME BEGIN SELECT RAISE(ABORT,'stay'); END");
  const LogCapture log(0);
  StopAndFilter("/data", nullptr);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_THAT(
      log.lines()[0],
      testing::MatchesRegex("error 0 StopAndFilter: eRRoR -- UDCException: .*stay.* on /data"));
  EXPECT_EQ(access((catalogue + "/.db.kd").c_str(), F_OK), 0);
}

TEST_F(StopVolume, SaysThatSomethingUnexpectedHappened) {
  volumeWithCatalogue("/data");
  settings("CommitEveryRows = many\n");
  const LogCapture log(1);
  StopAndFilter("/data", nullptr);
  ASSERT_EQ(log.lines().size(), 3U);
  EXPECT_EQ(log.lines()[1], "error 0 StopAndFilter: eRRoR --  UnExpected Exception on /data ");
  EXPECT_THAT(log.lines()[2], HasSubstr("CommitEveryRows"));
  settings("");
  EXPECT_THAT(volumes(), ElementsAre("/data"));
}

TEST(SharedVolumes, AVolumeIsSharedWhenTheListHoldsItsWholeMountPoint) {
  std::string volume = "/a";
  std::list<std::string> list{"", "/ab", "/"};
  EXPECT_FALSE(VolShared(volume, list));
  list.push_back("/a");
  EXPECT_TRUE(VolShared(volume, list));
  EXPECT_THAT(list, ElementsAre("", "/ab", "/", "/a"));
}

TEST(LiveDriver, IsInstalledWhereTheHostCanFollowChanges) {
  EXPECT_EQ(isRQHSMInstalled(), RQHSMServiceHelper::IsFSFDriverLoaded());
}

}  // namespace
