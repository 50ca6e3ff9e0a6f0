// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Plain operations alone, and files without the name that their events tell: the records of each.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "tests/driver/translator_race.h"

namespace kddc::test {
namespace {

// Plain operations, alone in their batch.
const Race kSingle[] = {
    {"Create",
     nothing,
     [](FakeVolume& v) { v.create("a"); },
     {"CREATE /:a=A x1", "SETATTR A x1", "SETATTR / x2"}},
    {"CreateFifo",
     nothing,
     [](FakeVolume& v) { v.create("p", S_IFIFO | 0600); },
     {"CREATE /:p=A x1", "SETATTR A x1", "SETATTR / x2"}},
    {"Mkdir",
     nothing,
     [](FakeVolume& v) { v.mkdir("d"); },
     {"MKDIR /:d=A x2", "SETATTR A x2", "SETATTR / x3"}},
    {"Symlink",
     nothing,
     [](FakeVolume& v) { v.symlink("to", "s"); },
     {"SYMLINK /:s=A x1", "SETATTR A x1", "SETATTR / x2"}},
    {"Write", fileA, [](FakeVolume& v) { v.write("a", 5); }, {"SETATTR A x1"}},
    {"ChmodOfAFile",
     fileA,
     [](FakeVolume& v) { v.chmod("a", 0600); },
     {"SETATTR A x1", "UNSTUB A x1"}},
    {"ChmodOfAFolder",
     [](FakeVolume& v) { v.mkdir("d"); },
     [](FakeVolume& v) { v.chmod("d", 0700); },
     {"SETATTR A x2"}},
    {"ChmodOfAFifo",
     [](FakeVolume& v) { v.create("p", S_IFIFO | 0600); },
     [](FakeVolume& v) { v.chmod("p", 0600); },
     {"SETATTR A x1"}},
    {"FileBecomesAStub",
     fileA,
     [](FakeVolume& v) { v.setStub("a", true); },
     {"SETATTR A x1", "STUB A x1"}},
    {"StubIsWritten",
     [](FakeVolume& v) {
       v.create("a");
       v.setStub("a", true);
     },
     [](FakeVolume& v) { v.write("a", 1); },
     {"SETATTR A x1", "STUB A x1"}},
    {"StubBecomesAFile",
     [](FakeVolume& v) {
       v.create("a");
       v.setStub("a", true);
     },
     [](FakeVolume& v) { v.setStub("a", false); },
     {"SETATTR A x1", "UNSTUB A x1"}},
    {"Link",
     fileA,
     [](FakeVolume& v) { v.link("a", "x"); },
     {"CREATE /:x=A x2", "SETATTR A x2", "UNSTUB A x2", "SETATTR / x2"}},
    {"UnlinkOfTheLastLink",
     fileA,
     [](FakeVolume& v) { v.unlink("a"); },
     {"REMOVE /:a A 0 x0", "SETATTR / x2"}},
    {"UnlinkWithALinkLeft",
     fileAWithLinkX,
     [](FakeVolume& v) { v.unlink("a"); },
     {"REMOVE /:a A 1 x1", "SETATTR A x1", "UNSTUB A x1", "SETATTR / x2"}},
    {"Rmdir",
     [](FakeVolume& v) { v.mkdir("d"); },
     [](FakeVolume& v) { v.rmdir("d"); },
     {"RMDIR /:d=A x0", "SETATTR / x2"}},
    {"RmdirOfAFolderThatIsOpen",
     [](FakeVolume& v) {
       v.mkdir("d");
       v.open("d");
     },
     [](FakeVolume& v) { v.rmdir("d"); },
     {"RMDIR /:d=A x0", "SETATTR / x2"}},
    {"Rename",
     fileA,
     [](FakeVolume& v) { v.rename("a", "b"); },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "SETATTR / x2"}},
    {"RenameToAnotherFolder",
     [](FakeVolume& v) {
       v.mkdir("d");
       v.mkdir("e");
       v.create("d/f");
     },
     [](FakeVolume& v) { v.rename("d/f", "e/g"); },
     {"RENAME C A:f -> B:g x1", "SETATTR C x1", "SETATTR A x2", "SETATTR B x2"}},
    {"RenameOfAFolder",
     [](FakeVolume& v) {
       v.mkdir("d");
       v.mkdir("e");
     },
     [](FakeVolume& v) { v.rename("d", "e/d"); },
     {"RENAME A /:d -> B:d x2", "SETATTR A x2", "SETATTR / x3", "SETATTR B x3"}},
    {"RenameOverAFile",
     filesAB,
     [](FakeVolume& v) { v.rename("a", "b"); },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "SETATTR / x2", "LINKS B 0 x0"}},
    {"RenameOverAnOpenFile",
     [](FakeVolume& v) {
       filesAB(v);
       v.open("b");
     },
     [](FakeVolume& v) { v.rename("a", "b"); },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "SETATTR / x2", "LINKS B 0 x0"}},
    {"RenameOverOneOfTwoLinks",
     [](FakeVolume& v) {
       filesAB(v);
       v.link("b", "c");
     },
     [](FakeVolume& v) { v.rename("a", "b"); },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "SETATTR / x2", "SETATTR B x1", "UNSTUB B x1"}},
    {"RenameOverAnEmptyFolder",
     [](FakeVolume& v) {
       v.mkdir("d");
       v.mkdir("e");
     },
     [](FakeVolume& v) { v.rename("d", "e"); },
     {"RENAME A /:d -> /:e x2", "SETATTR A x2", "SETATTR / x3", "LINKS B 0 x0"}},
    {"RenameOfALinkOverItsOther", fileAWithLinkX, [](FakeVolume& v) { v.rename("a", "x"); }, {}},
    {"Exchange",
     filesAB,
     [](FakeVolume& v) { v.exchange("a", "b"); },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "CREATE /:a=B x1", "SETATTR B x1", "SETATTR / x2"}},
    {"RenameThatLeavesAWhiteout",
     fileA,
     [](FakeVolume& v) { v.renameWithWhiteout("a", "b"); },
     {"RENAME A /:a -> /:b x1", "SETATTR A x1", "CREATE /:a=B x1", "SETATTR B x1", "SETATTR / x2"}},
};

// Files without the name that their events tell.
const Race kUnnamed[] = {
    {"FileThatNeverHadAName",
     nothing,
     [](FakeVolume& v) {
       const int file = v.openUnnamed("");
       v.writeTo(file, 5);
       v.close(file);
     },
     {"LINKS A 0 x0"}},
    {"FileThatHasNoNameYet",
     nothing,
     [](FakeVolume& v) { v.writeTo(v.openUnnamed(""), 5); },
     {"LINKS A 0 x0"}},
    {"FileThatGetsItsFirstNameLater",
     nothing,
     [](FakeVolume& v) {
       const int file = v.openUnnamed("");
       v.writeTo(file, 5);
       v.linkOpen(file, "t");
       v.close(file);
     },
     {"CREATE /:t=A x1", "SETATTR A x1", "UNSTUB A x1", "SETATTR / x2"}},
    {"UnlinkOfAnOpenFile",
     [](FakeVolume& v) {
       v.create("a");
       v.open("a");
     },
     [](FakeVolume& v) {
       v.unlink("a");
       v.writeTo(1, 9);
     },
     {"REMOVE /:a A 0 x0", "SETATTR / x2"}},
    {"LastCloseOfAnUnlinkedFile",
     [](FakeVolume& v) {
       v.create("a");
       v.open("a");
       v.unlink("a");
     },
     [](FakeVolume& v) { v.close(1); },
     {"LINKS A 0 x0"}},
    {"UnlinkOfAFileThatIsOpenByAnotherName",
     [](FakeVolume& v) {
       fileAWithLinkX(v);
       v.open("x");
     },
     [](FakeVolume& v) {
       v.unlink("x");
       v.unlink("a");
     },
     {"REMOVE /:x A 0 x0", "REMOVE /:a A 0 x0", "SETATTR / x2"}},
    {"WriteByANameThatNowIsAnothersFile",
     [](FakeVolume& v) {
       fileAWithLinkX(v);
       v.open("x");
       v.unlink("x");
       v.create("x");
     },
     [](FakeVolume& v) { v.writeTo(1, 9); },
     {"SETATTR A x1"}},
};

// The rows of translator_merged_test.cpp too.
TEST_P(TranslatorRow, GivesTheseRecords) {
  GetParam().before(volume);
  forgetEvents();
  GetParam().happens(volume);
  EXPECT_EQ(translate(), GetParam().records);
  EXPECT_THAT(failures, testing::IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Single, TranslatorRow, testing::ValuesIn(kSingle), nameOf);
INSTANTIATE_TEST_SUITE_P(Unnamed, TranslatorRow, testing::ValuesIn(kUnnamed), nameOf);

}  // namespace
}  // namespace kddc::test
