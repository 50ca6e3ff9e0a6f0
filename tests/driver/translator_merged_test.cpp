// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Several operations before one read, of which the kernel says less than happened.
// translator_single_test.cpp says what is done with the rows.
#include <gmock/gmock.h>

#include "driver/translator.h"
#include "tests/driver/translator_race.h"

namespace kddc::test {
namespace {

using Lines = TranslatorTest::Lines;

const Race kMerged[] = {
    {"CreateUnlink",
     nothing,
     [](FakeVolume& v) {
       v.create("a");
       v.unlink("a");
     },
     {"REMOVE /:a A 0 x0", "SETATTR / x2"}},
    {"CreateUnlinkCreate",
     nothing,
     [](FakeVolume& v) {
       v.create("a");
       v.unlink("a");
       v.create("a");
     },
     {"CREATE /:a=B x1", "SETATTR B x1", "LINKS A 0 x0", "SETATTR / x2"}},
    {"CreateWriteClose",
     nothing,
     [](FakeVolume& v) {
       v.create("a");
       v.write("a", 5);
     },
     {"CREATE /:a=A x1", "SETATTR A x1", "SETATTR / x2"}},
    {"ChmodWriteClose",
     fileA,
     [](FakeVolume& v) {
       v.chmod("a", 0600);
       v.write("a", 5);
     },
     {"SETATTR A x1", "UNSTUB A x1"}},
    {"ChmodUnlink",
     fileA,
     [](FakeVolume& v) {
       v.chmod("a", 0600);
       v.unlink("a");
     },
     {"REMOVE /:a A 0 x0", "SETATTR / x2"}},
    {"LinkUnlinkLink",
     fileA,
     [](FakeVolume& v) {
       v.link("a", "x");
       v.unlink("x");
       v.link("a", "x");
     },
     {"CREATE /:x=A x2", "SETATTR A x2", "UNSTUB A x2", "SETATTR / x2"}},
    {"LinkUnlink",
     fileA,
     [](FakeVolume& v) {
       v.link("a", "x");
       v.unlink("x");
     },
     {"REMOVE /:x A 1 x1", "SETATTR A x1", "UNSTUB A x1", "SETATTR / x2"}},
    {"UnlinkLink",
     fileAWithLinkX,
     [](FakeVolume& v) {
       v.unlink("x");
       v.link("a", "x");
     },
     {"CREATE /:x=A x2", "SETATTR A x2", "UNSTUB A x2", "SETATTR / x2"}},
    {"LinkUnlinkLinkByTwoProcesses",
     fileA,
     [](FakeVolume& v) {
       v.link("a", "x");
       v.pid = 2;
       v.unlink("x");
       v.pid = 1000;
       v.link("a", "x");
     },
     {"CREATE /:x=A x2", "SETATTR A x2", "UNSTUB A x2", "SETATTR / x2"}},
    {"RenameThereAndBackAndThere",
     fileA,
     [](FakeVolume& v) {
       v.rename("a", "b");
       v.rename("b", "a");
       v.rename("a", "b");
     },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "REMOVE /:a A 1 x1", "SETATTR / x2"}},
    {"RenameThereAndBack",
     fileA,
     [](FakeVolume& v) {
       v.rename("a", "b");
       v.rename("b", "a");
     },
     {"REMOVE /:b A 1 x1", "CREATE /:a=A x1", "SETATTR A x1", "SETATTR / x2"}},
    {"RenameTwice",
     fileA,
     [](FakeVolume& v) {
       v.rename("a", "b");
       v.rename("b", "c");
     },
     {"REMOVE /:b A 1 x1", "REMOVE /:a A 1 x1", "CREATE /:c=A x1", "SETATTR A x1", "SETATTR / x2"}},
    {"UnlinkRenameLink",
     fileAWithLinkX,
     [](FakeVolume& v) {
       v.unlink("x");
       v.rename("a", "b");
       v.link("b", "x");
     },
     {"CREATE /:x=A x2", "SETATTR A x2", "UNSTUB A x2", "RENAME A /:a -> /:b x2", "SETATTR / x2"}},
    {"ExchangeTwice",
     filesAB,
     [](FakeVolume& v) {
       v.exchange("a", "b");
       v.exchange("a", "b");
     },
     {"CREATE /:b=B x1", "SETATTR B x1", "CREATE /:a=A x1", "SETATTR A x1", "SETATTR / x2"}},
    {"ExchangeThreeTimes",
     filesAB,
     [](FakeVolume& v) {
       v.exchange("a", "b");
       v.exchange("a", "b");
       v.exchange("a", "b");
     },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "CREATE /:a=B x1", "SETATTR B x1", "SETATTR / x2"}},
    {"RenameUnlink",
     fileA,
     [](FakeVolume& v) {
       v.rename("a", "b");
       v.unlink("b");
     },
     {"REMOVE /:b A 0 x0", "REMOVE /:a A 0 x0", "SETATTR / x2"}},
    {"RenameAndANewFileAtTheOldName",
     fileA,
     [](FakeVolume& v) {
       v.rename("a", "b");
       v.create("a");
     },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "CREATE /:a=B x1", "SETATTR B x1", "SETATTR / x2"}},
    {"RenameAndANewFileAtTheNewName",
     fileA,
     [](FakeVolume& v) {
       v.rename("a", "b");
       v.unlink("b");
       v.create("b");
     },
     {"CREATE /:b=B x1", "SETATTR B x1", "REMOVE /:a A 0 x0", "SETATTR / x2"}},
    {"CreateRename",
     nothing,
     [](FakeVolume& v) {
       v.create("a");
       v.rename("a", "b");
     },
     {"REMOVE /:a A 1 x1", "CREATE /:b=A x1", "SETATTR A x1", "SETATTR / x2"}},
    {"RenameAwayAndLinkedBack",
     fileA,
     [](FakeVolume& v) {
       v.rename("a", "b");
       v.link("b", "a");
     },
     {"CREATE /:b=A x2", "SETATTR A x2", "UNSTUB A x2", "CREATE /:a=A x2", "SETATTR / x2"}},
    // In each folder, because the first may lie outside of the volume.
    {"LinksInTwoFolders",
     [](FakeVolume& v) {
       v.mkdir("d");
       v.create("a");
     },
     [](FakeVolume& v) {
       v.link("a", "d/x");
       v.link("a", "b");
     },
     {"CREATE A:x=B x3", "SETATTR B x3", "UNSTUB B x3", "CREATE /:b=B x3", "SETATTR B x3",
      "UNSTUB B x3", "SETATTR A x2", "SETATTR / x3"}},
    {"FolderComesAndGoesWithAFileInIt",
     nothing,
     [](FakeVolume& v) {
       v.mkdir("d");
       v.create("d/f");
       v.unlink("d/f");
       v.rmdir("d");
     },
     {"RMDIR /:d=A x0", "REMOVE A:f B 0 x0", "SETATTR / x2"}},
    {"FolderReplacesAFile",
     fileA,
     [](FakeVolume& v) {
       v.unlink("a");
       v.mkdir("a");
     },
     {"MKDIR /:a=B x2", "SETATTR B x2", "LINKS A 0 x0", "SETATTR / x3"}},
    {"FolderMovesWhatIsInIt",
     [](FakeVolume& v) {
       v.mkdir("d");
       v.create("d/f");
     },
     [](FakeVolume& v) {
       v.write("d/f", 3);
       v.rename("d", "e");
     },
     {"RENAME A /:d -> /:e x2", "SETATTR A x2", "SETATTR B x1", "SETATTR / x3"}},
};

INSTANTIATE_TEST_SUITE_P(Merged, TranslatorRow, testing::ValuesIn(kMerged), nameOf);

// A RENAME says that the old name does not stand for the file any more. It says nothing to a reader
// who takes it for another one's, and here it comes before the events that do.
TEST_F(TranslatorTest, RenameThatMergedBeforeAnOlderOneLeavesNoStaleName) {
  volume.create("n");  // A
  volume.create("g");  // B
  forgetEvents();
  volume.rename("n", "m");
  volume.rename("g", "n");
  make().look(volume.fid(""), "n");
  EXPECT_EQ(taken(), Lines({"CREATE /:n=B x1", "SETATTR B x1", "UNSTUB B x1"}));
  volume.rename("n", "h");
  volume.rename("m", "n");
  volume.rename("n", "m");  // merges into the first one
  EXPECT_EQ(translate(),
            Lines({"RENAME A /:n -> /:m x1", "SETATTR A x1", "REMOVE /:n B 1 x1",
                   "REMOVE /:g B 1 x1", "CREATE /:h=B x1", "SETATTR B x1", "SETATTR / x2"}));
}

}  // namespace
}  // namespace kddc::test
