// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Every race is a row: what was there, what happened before one read, and the records that it
// gives.
#include "driver/translator.h"

#include <gmock/gmock.h>

#include <ostream>
#include <string>

#include "tests/driver/translator_fixture.h"

namespace kddc::test {
namespace {

using Lines = TranslatorTest::Lines;

struct Row {
  const char* name;
  TranslatorTest::Work before;  // its events were read long ago
  TranslatorTest::Work happens;
  Lines records;
};
std::ostream& operator<<(std::ostream& out, const Row& row) {
  return out << row.name;
}

void nothing(FakeVolume&) {}
void fileA(FakeVolume& v) {
  v.create("a");
}
void filesAB(FakeVolume& v) {
  v.create("a");
  v.create("b");
}
void fileAWithLinkX(FakeVolume& v) {
  v.create("a");
  v.link("a", "x");
}

// Plain operations, alone in their batch.
const Row kSingle[] = {
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

// Several operations of which the kernel says less than happened.
const Row kMerged[] = {
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

// Files without the name that their events tell.
const Row kUnnamed[] = {
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

struct TranslatorRow : TranslatorTest, testing::WithParamInterface<Row> {};

TEST_P(TranslatorRow, GivesTheseRecords) {
  GetParam().before(volume);
  forgetEvents();
  GetParam().happens(volume);
  EXPECT_EQ(translate(), GetParam().records);
  EXPECT_THAT(failures, testing::IsEmpty());
}

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

std::string nameOf(const testing::TestParamInfo<Row>& info) {
  return info.param.name;
}
INSTANTIATE_TEST_SUITE_P(Single, TranslatorRow, testing::ValuesIn(kSingle), nameOf);
INSTANTIATE_TEST_SUITE_P(Merged, TranslatorRow, testing::ValuesIn(kMerged), nameOf);
INSTANTIATE_TEST_SUITE_P(Unnamed, TranslatorRow, testing::ValuesIn(kUnnamed), nameOf);

}  // namespace
}  // namespace kddc::test
