// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc volumes as users meet it, with file systems that come and go.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <list>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/database_view.h"
#include "tests/support/loop_mount.h"
#include "tests/support/program.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using Words = std::vector<std::string>;

// A registry and a state folder of the test's own.
struct VolumesTest : testing::Test {
  TempFolder temp{inMemory()};
  std::string etc = temp / "etc", state = temp / "state";
  std::string registry = etc + "/DataClassification/volume_db.kd";
  std::list<std::string> mounted;

  void SetUp() override {
    if (const std::string why = LoopMount::whyNot("ext4"); !why.empty()) GTEST_SKIP() << why;
    ::setenv("KELDARA_REGISTRY_ROOT", etc.c_str(), 1);
    ::setenv("TZ", "UTC", 1);
  }
  ~VolumesTest() override {
    ::unsetenv("KELDARA_REGISTRY_ROOT");
    for (const std::string& place : mounted) ::umount2(place.c_str(), MNT_DETACH);
  }

  void settings(const std::string& lines) const {
    fs::create_directories(etc);
    (void)temp.write("etc/settings.ini", "[DataClassification]\n" + lines);
  }
  // Mounts a tmpfs at a place of that name.
  std::string mountAt(const std::string& name, const std::string& device = "none") {
    const std::string place = temp / name;
    fs::create_directories(place);
    EXPECT_EQ(::mount(device.c_str(), place.c_str(), "tmpfs", 0, nullptr), 0) << place;
    mounted.push_back(place);
    return place;
  }
  Outcome run(Words words) const {
    words.insert(words.end(), {"--state", state});
    return Program::run(words);
  }
  Outcome volumes(Words words) const {
    words.insert(words.begin(), "volumes");
    return run(words);
  }
  void add(const std::string& place) const {
    const Outcome outcome = volumes({"add", place, "-q"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    EXPECT_EQ(outcome.err, "");
  }
  Outcome refresh() const {
    Outcome outcome = volumes({"refresh", "-q"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    return outcome;
  }
  std::vector<json> list() const {
    const Outcome outcome = volumes({"list", "--json", "-q"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    std::vector<json> all;
    std::istringstream lines(outcome.out);
    for (std::string line; std::getline(lines, line);) all.push_back(json::parse(line));
    return all;
  }
  Words rows(const std::string& sql) const { return DatabaseView(registry).rows(sql); }
  std::string numbered(int number) const {
    return state + "/catalogues/.DATACLASS_" + std::to_string(number);
  }
  void scan(const std::string& place) const {
    const Outcome outcome = run({"scan", "-q", place});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
  }
  static void expectRefused(const Outcome& outcome, const std::string& sentence) {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
  }
};

TEST_F(VolumesTest, AMissingRegistryHoldsNoVolumeAndIsNotMadeByReaders) {
  const Outcome outcome = volumes({"list"});
  EXPECT_EQ(outcome.exitCode, 0);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err,
            "kddc: no volume is registered; start with: kddc volumes add, kddc volumes refresh\n");
  EXPECT_EQ(volumes({"list", "-q", "--json"}).err, "");
  EXPECT_FALSE(fs::exists(etc));
}

TEST_F(VolumesTest, WhatIsAddedIsRegisteredByTheNextRefresh) {
  const LoopMount mount("ext4");
  const Outcome added = volumes({"add", mount.path()});
  EXPECT_EQ(added.exitCode, 0);
  EXPECT_EQ(added.out, "");
  EXPECT_EQ(added.err, "kddc: the next kddc volumes refresh registers " + mount.path() + "\n");
  EXPECT_THAT(list(), testing::IsEmpty());

  const Outcome refreshed = volumes({"refresh"});
  EXPECT_EQ(refreshed.exitCode, 0);
  EXPECT_EQ(refreshed.out, "added " + mount.path() + "\n");
  EXPECT_EQ(refreshed.err, "1 registered\n");
  const auto all = list();
  ASSERT_EQ(all.size(), 1U);
  EXPECT_THAT(all[0].at("device").get<std::string>(), StartsWith("/dev/loop"));
  EXPECT_THAT(all[0].at("identity").get<std::string>(), StartsWith("uuid:"));
  json rest = all[0];
  rest.erase("device");
  rest.erase("identity");
  EXPECT_EQ(rest, (json{{"number", 1},
                        {"mount_point", mount.path()},
                        {"type", "ext4"},
                        {"local", true},
                        {"mounted", true},
                        {"replaced", false},
                        {"catalogue", numbered(1)},
                        {"state", "not scanned"}}));
}

TEST_F(VolumesTest, TheListIsATableForPeople) {
  const std::string first = mountAt("photos", "memory"), second = mountAt("m\u00fcsik");
  settings("SharedVolumesFile = " + temp.write("shared", second + "\n") + "\n");
  add(first);
  add(second);
  refresh();
  scan(first);
  const Outcome outcome = volumes({"list"});
  EXPECT_EQ(outcome.err, "");
  const std::string gap(first.size() - std::string("mount point").size(), ' ');
  const std::string wide(numbered(1).size() - std::string("catalogue").size(), ' ');
  EXPECT_EQ(outcome.out, "number  mount point" + gap + "  device  type   reach   catalogue" + wide +
                             "  state\n" + "1       " + first + "  memory  tmpfs  local   " +
                             numbered(1) + "  not watched\n" + "2       " + second +
                             "   none    tmpfs  shared  " + numbered(2) + "  not scanned\n");
}

TEST_F(VolumesTest, ARegisteredVolumeHasItsCatalogueWhereTheRegistrySays) {
  const std::string place = mountAt("volume");
  add(place);
  refresh();
  scan(place);
  EXPECT_TRUE(fs::exists(numbered(1) + "/.db.kd"));
  EXPECT_EQ(run({"list", place}).out, ".\n");
  EXPECT_THAT(run({"status"}).out, HasSubstr("catalogue             " + numbered(1) + "\n"));
  const std::string other = temp / "other";
  EXPECT_EQ(run({"scan", "-q", place, "--catalogue", other}).exitCode, 0);
  EXPECT_TRUE(fs::exists(other + "/.db.kd"));
}

TEST_F(VolumesTest, TheSettingsMayNameAnotherPlaceForCatalogues) {
  settings("DB_FOLDER = NULL\n");
  const std::string place = mountAt("volume");
  add(place);
  refresh();
  EXPECT_EQ(list().at(0).at("catalogue"), place + "/.DATACLASS_1");
  scan(place);
  EXPECT_EQ(run({"list", place}).out, ".\n");  // nothing of ours
}

TEST_F(VolumesTest, ACatalogueThatIsThereBeforeStaysWhereItIs) {
  const std::string place = mountAt("volume");
  scan(place);
  add(place);
  refresh();
  const std::string catalogue = list().at(0).at("catalogue");
  EXPECT_THAT(catalogue, StartsWith(state + "/catalogues/volume-"));
  EXPECT_EQ(list().at(0).at("state"), "not watched");
  EXPECT_EQ(run({"list", place}).out, ".\n");
}

TEST_F(VolumesTest, WhatIsNoMountPointIsRefused) {
  fs::create_directories(temp / "folder");
  expectRefused(volumes({"add", temp / "folder"}),
                temp / "folder" +
                    " is no mount point, so it cannot be registered; any folder can be scanned or "
                    "watched by its path");
  expectRefused(volumes({"add", temp / "missing"}),
                temp / "missing" +
                    " is no mount point, so it cannot be registered; any folder can be scanned or "
                    "watched by its path");
}

TEST_F(VolumesTest, WhatNoRefreshWouldRegisterIsRefused) {
  expectRefused(volumes({"add", "/proc"}),
                "/proc cannot be registered: its type (proc) is not in the table FSTYPE");
  expectRefused(volumes({"add", "/"}),
                "/ is registered only with nEnableMonitoringForRoot = 1 in the settings");
}

TEST_F(VolumesTest, WhatIsListedAlreadyOrNotListedIsSaid) {
  const std::string place = mountAt("volume");
  expectRefused(volumes({"remove", place}), place + " is not listed in MONITOR");
  add(place);
  expectRefused(volumes({"add", place + "/"}), place + " is listed in MONITOR already");
  EXPECT_THAT(rows("SELECT VOLNAME FROM MONITOR"), ElementsAre(place));
}

TEST_F(VolumesTest, AMountPointIsFoundThroughALink) {
  const std::string place = mountAt("volume");
  fs::create_symlink(place, temp / "link");
  add(temp / "link");
  EXPECT_THAT(rows("SELECT VOLNAME FROM MONITOR"), ElementsAre(place));
}

TEST_F(VolumesTest, WhatIsRemovedLosesItsRowAndItsCatalogue) {
  const std::string first = mountAt("first"), second = mountAt("second");
  add(first);
  add(second);
  refresh();
  scan(first);
  const Outcome removed = volumes({"remove", first});
  EXPECT_EQ(removed.err, "kddc: the next kddc volumes refresh forgets " + first +
                             " and removes its catalogue\n");
  EXPECT_TRUE(fs::exists(numbered(1)));
  EXPECT_EQ(refresh().out, "removed " + first + "\n");
  EXPECT_FALSE(fs::exists(numbered(1)));
  EXPECT_THAT(rows("SELECT MOUNT_POINT FROM VOLUME"), ElementsAre(second));
}

TEST_F(VolumesTest, WhatIsListedCanBeRemovedWhenItIsNotMountedAnyMore) {
  LoopMount mount("ext4");
  add(mount.path());
  mount.unmount();
  EXPECT_EQ(volumes({"remove", mount.path()}).exitCode, 0);
  EXPECT_THAT(rows("SELECT VOLNAME FROM MONITOR"), testing::IsEmpty());
}

TEST_F(VolumesTest, InFilterModeEverythingIsRegisteredButWhatWasRemoved) {
  settings("VolumesMode = filter\n");
  const std::string first = mountAt("first"), second = mountAt("second");
  refresh();
  const auto places = [&] {
    return rows("SELECT MOUNT_POINT FROM VOLUME WHERE MOUNT_POINT LIKE '" + temp.path() + "%'");
  };
  EXPECT_THAT(places(), ElementsAre(first, second));
  expectRefused(volumes({"add", first}), first + " is not listed in FILTER");

  const Outcome removed = volumes({"remove", first});
  EXPECT_EQ(removed.exitCode, 0);
  EXPECT_EQ(removed.err, "kddc: the next kddc volumes refresh forgets " + first + "\n");
  EXPECT_THAT(rows("SELECT VOLNAME FROM FILTER"), ElementsAre(first));
  EXPECT_EQ(refresh().out, "removed " + first + "\n");
  EXPECT_THAT(places(), ElementsAre(second));
  expectRefused(volumes({"remove", first}), first + " is listed in FILTER already");

  add(first);
  EXPECT_EQ(refresh().out, "added " + first + "\n");
  EXPECT_THAT(rows("SELECT * FROM FILTER"), testing::IsEmpty());
  EXPECT_THAT(rows("SELECT * FROM MONITOR"), testing::IsEmpty());
}

TEST_F(VolumesTest, AnUnknownModeIsRefused) {
  settings("VolumesMode = some\n");
  for (const Words& words : {Words{"refresh"}, {"add", "/"}, {"remove", "/"}})
    expectRefused(volumes(words),
                  "the setting VolumesMode is \"some\"; it must be monitor or filter");
  EXPECT_FALSE(fs::exists(registry));
}

TEST_F(VolumesTest, AVolumeThatIsUnmountedIsForgottenAndItsCatalogueFoundAgain) {
  LoopMount mount("ext4");
  add(mount.path());
  refresh();
  scan(mount.path());
  mount.unmount();
  EXPECT_EQ(list().at(0).at("state"), "not mounted");
  EXPECT_EQ(refresh().out, "removed " + mount.path() + "\n");
  EXPECT_THAT(list(), testing::IsEmpty());
  mount.mount();
  const Outcome again = refresh();
  EXPECT_EQ(again.out, "added " + mount.path() + "\n");
  EXPECT_EQ(again.err, "");
  EXPECT_EQ(list().at(0).at("state"), "not watched");
}

TEST_F(VolumesTest, AVolumeThatIsUnmountedIsKeptWhereTheSettingsSaySo) {
  settings("nRetainUnMountedVolumes = 1\n");
  LoopMount mount("ext4");
  add(mount.path());
  refresh();
  mount.unmount();
  EXPECT_EQ(refresh().out, "");
  EXPECT_EQ(list().at(0).at("state"), "not mounted");
  EXPECT_EQ(list().at(0).at("mounted"), false);
  EXPECT_EQ(list().at(0).at("identity"), nullptr);
}

// Two file systems that take turns at one mount point, most likely on one loop device.
struct Swapped : VolumesTest {
  std::string place;

  void SetUp() override {
    VolumesTest::SetUp();
    if (IsSkipped()) return;
    place = temp / "place";
    fs::create_directory(place);
    for (const char* image : {"one", "two"}) {
      fs::resize_file(temp.write(image, ""), 16 << 20);
      sh("mkfs.ext4 -q -F " + temp / image);
    }
    mountImage("one");
    add(place);
    refresh();
    scan(place);
  }
  void mountImage(const std::string& image) {
    sh("mount -o loop " + temp / image + " " + place);
    mounted.push_back(place);
  }
  void swap(const std::string& image) {
    ASSERT_EQ(::umount2(place.c_str(), 0), 0);
    mounted.pop_back();
    mountImage(image);
    // As if the device had the same name again: that alone would tell nothing.
    rows("UPDATE VOLUME SET DEVLABEL='" + deviceOfPlace() + "'");
  }
  std::string deviceOfPlace() const {
    std::ifstream table("/proc/self/mounts");
    std::string device, at, rest;
    while (table >> device >> at && std::getline(table, rest))
      if (at == place) return device;
    return "";
  }
  static void sh(const std::string& command) {
    ASSERT_EQ(std::system((command + " >/dev/null 2>&1").c_str()), 0) << command;
  }
};

TEST_F(Swapped, AnotherDiskUnderTheSameDeviceNameIsNoticed) {
  const std::string before = list().at(0).at("identity");
  EXPECT_EQ(list().at(0).at("replaced"), false);
  swap("two");
  EXPECT_EQ(list().at(0).at("replaced"), true);
  EXPECT_NE(list().at(0).at("identity"), before);
  EXPECT_EQ(volumes({"list"}).err,
            "kddc: " + place +
                " is another file system than at the last refresh, and the catalogue is of the "
                "other one; run: kddc volumes refresh\n");
}

TEST_F(Swapped, ARefreshMakesAnEndOfTheOtherDisksCatalogue) {
  swap("two");
  const Outcome outcome = refresh();
  EXPECT_EQ(outcome.err,
            "kddc: " + place + " is another file system than before; its catalogue begins anew\n");
  EXPECT_FALSE(fs::exists(numbered(1)));
  EXPECT_EQ(list().at(0).at("replaced"), false);
  EXPECT_EQ(list().at(0).at("state"), "not scanned");
  EXPECT_EQ(refresh().err, "");
}

TEST_F(Swapped, ItIsNoticedAlsoWhenTheVolumeWasForgottenInBetween) {
  ASSERT_EQ(::umount2(place.c_str(), 0), 0);
  EXPECT_EQ(refresh().out, "removed " + place + "\n");
  mountImage("two");
  EXPECT_THAT(refresh().err, HasSubstr("its catalogue begins anew"));
  EXPECT_FALSE(fs::exists(numbered(1)));
}

TEST_F(Swapped, TheSameDiskAgainIsNoOther) {
  swap("one");
  EXPECT_EQ(list().at(0).at("replaced"), false);
  EXPECT_EQ(refresh().err, "");
  EXPECT_EQ(list().at(0).at("state"), "not watched");
}

TEST_F(Swapped, TheSameDiskUnderAnotherDeviceNameKeepsItsCatalogue) {
  add(mountAt("second"));
  refresh();
  rows("UPDATE VOLUME SET DEVLABEL='/dev/other' WHERE ROWID=1");
  const Outcome outcome = refresh();
  EXPECT_EQ(outcome.out + outcome.err, "");
  const json volume = list().at(1);
  EXPECT_EQ(volume.at("number"), 3);
  EXPECT_EQ(volume.at("mount_point"), place);
  EXPECT_EQ(volume.at("catalogue"), numbered(1));
  EXPECT_EQ(volume.at("state"), "not watched");
}

TEST_F(Swapped, AnotherDiskUnderAnotherDeviceNameIsNoticedToo) {
  swap("two");
  rows("UPDATE VOLUME SET DEVLABEL='/dev/other'");
  EXPECT_THAT(refresh().err, HasSubstr("its catalogue begins anew"));
  EXPECT_FALSE(fs::exists(numbered(1)));
}

TEST_F(Swapped, WhereNoIdentityIsKnownAnotherDeviceNameIsAnotherDisk) {
  rows("DELETE FROM IDENTITY");
  rows("UPDATE VOLUME SET DEVLABEL='/dev/other'");
  EXPECT_THAT(refresh().err, HasSubstr("its catalogue begins anew"));
  EXPECT_FALSE(fs::exists(numbered(1)));
}

TEST_F(Swapped, ACatalogueInUseIsNotRemovedAndTheNextRefreshTriesAgain) {
  swap("two");
  const Program user({"watch", place, "--state", state});
  ASSERT_TRUE(user.waitUntil([&] { return user.out() == "ready\n"; })) << user.err();
  const Outcome outcome = volumes({"refresh", "-q"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_EQ(outcome.err, "kddc: " + place +
                             " is another file system than before, but its catalogue is in use by "
                             "process " +
                             std::to_string(user.pid()) +
                             " (kddc watch); stop it, then refresh again\n");
  EXPECT_TRUE(fs::exists(numbered(1)));
  EXPECT_EQ(list().at(0).at("replaced"), true);
}

TEST_F(VolumesTest, ATmpfsThatWasMountedAgainIsAnotherOne) {
  const std::string place = mountAt("volume");
  add(place);
  refresh();
  if (!list().at(0).at("identity").is_string()) GTEST_SKIP() << "this kernel numbers no tmpfs";
  ASSERT_EQ(::umount2(place.c_str(), 0), 0);
  mounted.clear();
  mountAt("volume");
  EXPECT_EQ(list().at(0).at("replaced"), true);
}

TEST_F(VolumesTest, ADeviceNameThatLiesIsNotBelieved) {
  const LoopMount disk("ext4");
  add(disk.path());
  refresh();
  const std::string device = list().at(0).at("device");
  add(mountAt("liar", device));
  refresh();
  const auto all = list();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[1].at("device"), device);
  EXPECT_EQ(all[1].at("identity"), nullptr);
  EXPECT_THAT(all[0].at("identity").get<std::string>(), StartsWith("uuid:"));
}

TEST_F(VolumesTest, HostileNamesBreakNoStatementAndSteerNoTerminal) {
  const std::array<std::string, 4> names = {"o'b", "x'); DROP TABLE VOLUME; --", "a\nb \\ \"c\"",
                                            "\x1b[31m\xff"};
  Words places;
  for (const std::string& name : names) places.push_back(mountAt(name, "de'vice\x1b"));
  for (const std::string& place : places) add(place);
  refresh();
  EXPECT_EQ(rows("SELECT MOUNT_POINT FROM VOLUME"), places);

  const Outcome table = volumes({"list"});
  EXPECT_EQ(std::count(table.out.begin(), table.out.end(), '\n'), 5);
  EXPECT_EQ(table.out.find('\x1b'), std::string::npos);
  EXPECT_THAT(table.out, HasSubstr("/a\\nb \\ \"c\"  "));
  EXPECT_THAT(table.out, HasSubstr("/\\x1b[31m\\xff  "));
  const auto all = list();
  EXPECT_EQ(all.at(2).at("mount_point"), places[2]);
  EXPECT_FALSE(all.at(3).contains("mount_point"));
  EXPECT_TRUE(all.at(3).contains("mount_point_base64"));

  for (const std::string& place : places) {
    scan(place);
    EXPECT_EQ(run({"list", place}).out, ".\n");
    const Outcome again = volumes({"add", place});
    EXPECT_EQ(again.exitCode, 3);
    EXPECT_EQ(std::count(again.err.begin(), again.err.end(), '\n'), 1) << again;
    EXPECT_EQ(again.err.find('\x1b'), std::string::npos);
    EXPECT_EQ(volumes({"remove", place, "-q"}).err, "");
  }
  refresh();
  EXPECT_THAT(list(), testing::IsEmpty());
  EXPECT_THAT(rows("SELECT * FROM MONITOR"), testing::IsEmpty());
}

TEST_F(VolumesTest, TheStateIsTheOneOfTheProcessThatWatches) {
  const LoopMount mount("ext4");
  add(mount.path());
  refresh();
  Program watch({"watch", "--state", state});  // the registered volumes
  ASSERT_TRUE(watch.waitUntil([&] { return watch.out() == "ready\n"; })) << watch.err();
  EXPECT_EQ(list().at(0).at("state"), "live");

  volumes({"remove", mount.path()});
  // It is let go of within some seconds, and may be forgotten then.
  ASSERT_TRUE(watch.waitUntil([&] {
    const Outcome outcome = volumes({"refresh"});
    if (outcome.exitCode == 0) return outcome.out == "removed " + mount.path() + "\n";
    EXPECT_EQ(outcome.err, "kddc: " + numbered(1) + " is in use by process " +
                               std::to_string(watch.pid()) + " (kddc watch); stop it first\n");
    return false;
  }));
  const std::string note = "kddc: " + mount.path() + " is not registered any more\n";
  EXPECT_TRUE(watch.waitUntil([&] { return watch.err() == note; })) << watch.err();
  watch.signal(SIGTERM);
  EXPECT_EQ(watch.finish().exitCode, 0);
}

TEST_F(VolumesTest, AVolumeThatIsWatchedWhenItIsRegisteredKeepsItsCatalogue) {
  const LoopMount mount("ext4");
  const Program watch({"watch", mount.path(), "--state", state});
  ASSERT_TRUE(watch.waitUntil([&] { return watch.out() == "ready\n"; })) << watch.err();
  add(mount.path());
  refresh();
  (void)TempFolder(mount.path());  // makes a folder and removes it
  fs::create_directory(mount / "new");
  EXPECT_THAT(run({"changes", mount.path(), "--since", "1h"}).out, HasSubstr("new\n"));
}

TEST_F(VolumesTest, WithoutARegisteredVolumeThereIsNothingToWatch) {
  expectRefused(run({"watch"}), "no volume is registered; name one, or see: kddc volumes --help");
}

TEST_F(VolumesTest, ADamagedRegistryIsNamedAndLeftAlone) {
  const std::string place = mountAt("volume");
  fs::create_directories(fs::path(registry).parent_path());
  const std::string noise(8192, '#');
  std::ofstream(registry) << noise;
  const std::string sentence =
      "cannot read the registry " + registry +
      ": it is damaged (file is not a database); move it away and run: kddc volumes refresh";
  for (const Words& words : {Words{"list"}, {"add", place}, {"remove", place}, {"refresh"}})
    expectRefused(volumes(words), sentence);
  expectRefused(run({"list", place}), sentence);
  std::ifstream file(registry);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), noise);
}

TEST_F(VolumesTest, AWriterDoesNotHoldUpReaders) {
  add(mountAt("volume"));
  refresh();
  DatabaseView other(registry);
  (void)other.rows("BEGIN IMMEDIATE");
  EXPECT_EQ(list().size(), 1U);  // readers are not held up
}

TEST_F(VolumesTest, ARegistryThatLostATableRemovesNothing) {
  const std::string place = mountAt("volume");
  add(place);
  refresh();
  scan(place);
  rows("DROP TABLE MONITOR");
  expectRefused(volumes({"refresh"}),
                "cannot read the registry " + registry + ": no such table: MONITOR");
  EXPECT_TRUE(fs::exists(numbered(1) + "/.db.kd"));
}

TEST_F(VolumesTest, AReadOnlyRegistryIsReadAndNotWritten) {
  etc = mountAt("etc");
  const std::string place = mountAt("volume");
  add(place);
  refresh();
  ASSERT_EQ(::mount("none", etc.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(list().at(0).at("mount_point"), place);
  scan(place);
  expectRefused(volumes({"remove", place}),
                "cannot open the registry " + registry + ": Read-only file system");
  expectRefused(volumes({"refresh"}),
                "cannot open the registry " + registry + ": Read-only file system");
}

TEST_F(VolumesTest, WhatCouldNotBeRefreshedIsSaid) {
  const std::string place = mountAt("volume");
  add(place);
  const std::string types = etc + "/DataClassification/fstype_db.kd";
  fs::remove(types);
  fs::create_directory(types);  // a folder in a file's place
  const Outcome outcome = volumes({"refresh", "-q"});
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_THAT(outcome.err, StartsWith("kddc: the registry is not up to date: eRRoR -- "));
}

TEST_F(VolumesTest, FilesAreForTheirOwnerAlone) {
  add(mountAt("volume"));
  refresh();
  for (const auto& entry : fs::recursive_directory_iterator(etc))
    EXPECT_EQ(entry.status().permissions(),
              entry.is_directory() ? fs::perms(0700) : fs::perms(0600))
        << entry.path();
}

TEST_F(VolumesTest, TheCommandLineIsHeldToItsWords) {
  for (const Words& words : {Words{}, {"frob"}, {"add"}, {"remove"}, {"list", "x"}}) {
    const Outcome outcome = volumes(words);
    EXPECT_EQ(outcome.exitCode, 2) << outcome;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome;
  }
  const std::string help = volumes({"--help"}).out;
  for (const char* name : {"list", "refresh", "add", "remove"}) EXPECT_THAT(help, HasSubstr(name));
}

}  // namespace
}  // namespace kddc::test
