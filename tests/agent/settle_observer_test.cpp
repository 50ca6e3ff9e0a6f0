// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What an observer is told while records are settled.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "tests/support/settle_attributes_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct SettleObserverTest : SettleAttributesTest {
  std::vector<std::string> told;

  SettleObserverTest() {
    settle.observe([this](const CatalogueChange& change) {
      static constexpr const char* kWords[] = {"added", "changed", "moved", "removed"};
      told.push_back(std::string(kWords[static_cast<int>(change.kind)]) + " " +
                     std::to_string(change.folder) + "/" + change.name);
    });
  }
};

TEST_F(SettleObserverTest, AnEntryIsAddedOnceWhateverTheNextRecordsSayOfIt) {
  present('R', "p", 'P', {.mode = S_IFIFO | 0600});
  folderPresent('R', "d", 'D');
  EXPECT_THAT(told, ElementsAre("added 1/p", "added 1/d"));
  attributesOf('D', {.mode = kDirectory, .links = 2, .size = 4097, .ctime = 4000});
  written();
  EXPECT_THAT(told, ElementsAre("added 1/p", "added 1/d"));
  attributesOf('D', {.mode = kDirectory, .links = 2, .size = 4098, .ctime = 4000});
  EXPECT_THAT(told, ElementsAre("added 1/p", "added 1/d", "changed 1/d"));
}

TEST_F(SettleObserverTest, AChangeIsToldOfEveryName) {
  giveFurtherName();
  attributesOf('A', {.links = 2});
  told.clear();
  attributesOf('A', {.links = 2, .ctime = 4000});
  EXPECT_THAT(told, ElementsAre("changed 1/a", "changed 1/b"));
}

TEST_F(SettleObserverTest, AMoveIsToldOfTheNewName) {
  renamed('A', 'R', "a", 'R', "b");
  present('R', "c", 'A');
  EXPECT_THAT(told, ElementsAre("moved 1/b", "moved 1/c"));
}

TEST_F(SettleObserverTest, ANameThatGoesIsToldOnce) {
  absent('R', "a", 'A');
  absent('R', "a", 'A');
  EXPECT_THAT(told, ElementsAre("removed 1/a"));
}

TEST_F(SettleObserverTest, NothingIsToldOfWhatChangesNothing) {
  present('R', "a", 'A');
  attributesOf('A', {.atime = 1500});
  attributesOf('X', {});
  EXPECT_THAT(told, IsEmpty());
}

}  // namespace
}  // namespace kddc::test
