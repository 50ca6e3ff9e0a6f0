// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc volumes as users meet it: what is listed, registered and forgotten, and what they say of it.
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/support/loop_mount.h"
#include "tests/support/program.h"
#include "tests/support/temp_folder.h"
#include "tests/support/volumes_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

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
