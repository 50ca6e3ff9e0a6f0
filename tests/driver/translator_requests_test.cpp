// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a translator says when it is asked: to look, to resolve, to list.
#include <gmock/gmock.h>

#include <cerrno>

#include "driver/translator.h"
#include "tests/driver/translator_fixture.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct TranslatorRequest : TranslatorTest {};

TEST_F(TranslatorRequest, LookTellsWhatANameStandsFor) {
  volume.create("a");
  make().look(volume.fid(""), "a");
  EXPECT_THAT(taken(), ElementsAre("CREATE /:a=A x1", "SETATTR A x1", "UNSTUB A x1"));
}

TEST_F(TranslatorRequest, LookTellsThatANameIsGoneAndNoFile) {
  make().look(volume.fid(""), "a");
  EXPECT_THAT(taken(), ElementsAre("REMOVE /:a - 0 x0"));
}

TEST_F(TranslatorRequest, LookInAFolderThatIsGoneFindsNothing) {
  const fsf_fid folder = volume.mkdir("d");
  volume.rmdir("d");
  make().look(folder, "a");
  EXPECT_THAT(taken(), ElementsAre("REMOVE A:a - 0 x0"));
}

TEST_F(TranslatorRequest, LookAtTellsHowAFileIs) {
  const fsf_fid a = volume.create("a");
  const fsf_fid b = volume.create("b");
  volume.setStub("b", true);
  Translator translator = make();
  translator.lookAt(a);
  translator.lookAt(b);
  volume.unlink("a");
  translator.lookAt(a);
  EXPECT_THAT(taken(), ElementsAre("SETATTR A x1", "UNSTUB A x1", "SETATTR B x1", "STUB B x1",
                                   "LINKS A 0 x0"));
}

TEST_F(TranslatorRequest, ResolveTellsThatAFileIsGone) {
  const fsf_fid a = volume.create("a");
  volume.unlink("a");
  EXPECT_TRUE(make().resolve(a));
  EXPECT_THAT(taken(), ElementsAre("LINKS A 0 x0"));
}

TEST_F(TranslatorRequest, ResolveTellsThatAFileLiesOutsideAndHasLinksThere) {
  volume.mkdir("outside");
  disk.root = volume.mkdir("volume");
  const fsf_fid file = volume.create("outside/a");
  EXPECT_TRUE(make().resolve(file));
  EXPECT_THAT(taken(), ElementsAre("LINKS C 0 x1"));
}

TEST_F(TranslatorRequest, ResolveForOneVolumeTellsThatAFileLiesInAnother) {
  const fsf_fid other = volume.mkdir("other");
  EXPECT_TRUE(make().resolve(volume.create("a"), Translator::Try::kFirst, &other));
  EXPECT_THAT(taken(), ElementsAre("LINKS B 0 x1"));
}

TEST_F(TranslatorRequest, ResolveOfAFileThatLiesInsideWaitsForItsEvent) {
  EXPECT_FALSE(make().resolve(volume.create("a")));
  EXPECT_THAT(taken(), IsEmpty());
}

TEST_F(TranslatorRequest, ResolveOfAFileThatLiesInsideIsReportedTheLastTime) {
  EXPECT_TRUE(make().resolve(volume.create("a"), Translator::Try::kLast));
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_THAT(failures, ElementsAre(ETIMEDOUT));
}

TEST_F(TranslatorRequest, ResolveTellsTheSecondTimeOfTheNamesThatLeadToAFileInside) {
  const fsf_fid folder = volume.mkdir("folder");
  const fsf_fid file = volume.create("folder/a");
  disk.way = {{volume.fid(""), "folder"}, {folder, "a"}};
  EXPECT_FALSE(make().resolve(file));
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_TRUE(make().resolve(file, Translator::Try::kAgain));
  EXPECT_THAT(taken(), ElementsAre("MKDIR /:folder=A x2", "SETATTR A x2", "CREATE A:a=B x1",
                                   "SETATTR B x1"));
  EXPECT_THAT(failures, IsEmpty());
}

TEST_F(TranslatorRequest, ResolveReportsNamesThatLeadToAnotherFile) {
  const fsf_fid file = volume.create("a");
  volume.create("b");
  disk.way = {{volume.fid(""), "b"}};
  EXPECT_FALSE(make().resolve(file, Translator::Try::kAgain));
  EXPECT_THAT(failures, IsEmpty());
  EXPECT_TRUE(make().resolve(file, Translator::Try::kLast));
  EXPECT_THAT(failures, ElementsAre(ETIMEDOUT));
}

TEST_F(TranslatorRequest, ResolveThatFailsIsReported) {
  const fsf_fid a = volume.create("a");
  disk.unknownFiles = {a};
  EXPECT_TRUE(make().resolve(a));
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_THAT(failures, ElementsAre(EIO));
}

TEST_F(TranslatorRequest, ListTellsAllBelowAFolderInSlices) {
  volume.mkdir("d");           // A
  volume.mkdir("d/e");         // B
  volume.create("d/e/f");      // C
  volume.symlink("t", "d/s");  // D
  volume.create("d/z");        // E
  volume.setStub("d/z", true);
  volume.create("beside");
  Translator translator = make();
  translator.list(volume.fid("d"));
  EXPECT_TRUE(translator.listSome(1));
  EXPECT_THAT(taken(), ElementsAre("MKDIR A:e=B x2 listed", "SETATTR B x2",
                                   "SYMLINK A:s=D x1 listed", "SETATTR D x1"));
  while (translator.listSome(1)) {
  }
  EXPECT_THAT(taken(), ElementsAre("CREATE A:z=E x1 listed", "SETATTR E x1", "STUB E x1",
                                   "CREATE B:f=C x1 listed", "SETATTR C x1"));
}

TEST_F(TranslatorRequest, ListLeavesOutWhatIsLeftOutAndWhatVanished) {
  disk.leaveOut = {volume.mkdir("own")};
  volume.create("own/db");
  volume.create("a");
  disk.namesAtOnce = 1;
  Translator translator = make();
  translator.list(volume.fid(""));
  EXPECT_TRUE(translator.listSome(1));
  volume.unlink("a");
  while (translator.listSome(1)) {
  }
  EXPECT_THAT(taken(), ElementsAre("CREATE /:a=C x1 listed", "SETATTR C x1"));
}

TEST_F(TranslatorRequest, ListOfAFolderThatIsGoneTellsNothing) {
  const fsf_fid folder = volume.mkdir("d");
  volume.rmdir("d");
  Translator translator = make();
  translator.list(folder);
  while (translator.listSome(10)) {
  }
  EXPECT_THAT(taken(), IsEmpty());
  EXPECT_THAT(failures, IsEmpty());
}

TEST_F(TranslatorRequest, ListReportsAFolderThatCannotBeReadAndGoesOn) {
  volume.mkdir("d");
  disk.unknownFiles = {volume.mkdir("d/e")};
  disk.unknownNames = {"x"};
  volume.create("d/x");
  volume.create("d/z");
  Translator translator = make();
  translator.list(volume.fid("d/e"));
  translator.list(volume.fid("d"));
  while (translator.listSome(10)) {
  }
  EXPECT_THAT(taken(), ElementsAre("CREATE A:z=D x1 listed", "SETATTR D x1"));
  EXPECT_THAT(failures, ElementsAre(EIO, EIO, EIO));
}

TEST_F(TranslatorRequest, NoopSaysNothing) {
  make().noop();
  EXPECT_THAT(taken(), ElementsAre("NOOP"));
}

}  // namespace
}  // namespace kddc::test
