// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the records hold, what is dropped, and what is asked of the disk.
#include <gmock/gmock.h>
#include <sys/sysmacros.h>

#include <stdexcept>
#include <string>

#include "driver/translator.h"
#include "tests/driver/translator_fixture.h"
#include "tests/support/record_text.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kRoot[] = "010800000200000000000000000000000000000000000000";
constexpr char kA[] = "010800000300000000000000000000000000000000000000";

struct TranslatorRecords : TranslatorTest {
  std::string text;  // of the first record that came
  unsigned int timestamp = 0;

  TranslatorRecords() {
    onRecord = [this](const FlrJrnCommandRaw& record) {
      if (!text.empty()) return;
      text = payloadText(record);
      timestamp = record.timestamp;
    };
  }
  // The volume's clock is at 1000 and goes on by one with each change.
  std::string firstAfter(const Work& work) {
    work(volume);
    translate();
    return text;
  }
};

TEST_F(TranslatorRecords, OfANewFileTellHowItIs) {
  EXPECT_EQ(firstAfter([](FakeVolume& v) { v.create("a", S_IFBLK | 0640, makedev(8, 1)); }),
            std::string(kRoot) + " " + kA + " \"a\" 24992 0 0 1001.0 1001.0 2049 ");
  EXPECT_EQ(timestamp, 1001u);
}

TEST_F(TranslatorRecords, OfANewFolderTellHowItIs) {
  EXPECT_EQ(firstAfter([](FakeVolume& v) { v.mkdir("d"); }),
            std::string(kRoot) + " " + kA + " \"d\" 16877 0 0 1001.0 1001.0 ");
}

TEST_F(TranslatorRecords, OfANewSymbolicLinkTellItsText) {
  EXPECT_EQ(firstAfter([](FakeVolume& v) { v.symlink("to/where", "s"); }),
            "\"to/where\" " + std::string(kRoot) + " \"s\" " + kA + " 0 0 ");
}

TEST_F(TranslatorRecords, OfAttributesTellAllOfThem) {
  volume.create("a");
  forgetEvents();
  EXPECT_EQ(firstAfter([](FakeVolume& v) { v.write("a", 5); }),
            std::string(kA) + " 1 1 1 1 1 1 1 1 33188 0 0 1001.0 1003.0 1003.0 5 0 ");
  EXPECT_EQ(timestamp, 1003u);
}

TEST_F(TranslatorRecords, OfARenameLeaveOpenWhatWasReplaced) {
  volume.create("a");
  volume.create("b");
  forgetEvents();
  EXPECT_EQ(
      firstAfter([](FakeVolume& v) { v.rename("a", "b"); }),
      std::string(kA) + " " + kRoot + " \"a\" 0 " + std::string(48, '0') + " " + kRoot + " \"b\" ");
}

TEST_F(TranslatorRecords, OfWhatIsGoneCarryThePresentTime) {
  volume.create("a");
  forgetEvents();
  EXPECT_EQ(firstAfter([](FakeVolume& v) { v.unlink("a"); }),
            std::string(kRoot) + " \"a\" " + kA + " 0 ");
  EXPECT_EQ(timestamp, 777u);
}

TEST_F(TranslatorRecords, HoldNamesOfAnyByteAnd255Long) {
  std::string name;
  for (int byte = 1; byte < 256; ++byte) name += static_cast<char>(byte == '/' ? 'x' : byte);
  volume.create(name);
  EXPECT_THAT(translate(),
              ElementsAre("CREATE /:" + name + "=A x1", "SETATTR A x1", "SETATTR / x2"));
}

TEST_F(TranslatorRecords, TellALargeLinkCountBeside) {
  volume.create("a");
  for (int i = 1; i < 16382; ++i) {
    volume.link("a", std::to_string(i));
    forgetEvents();
  }
  volume.write("a", 1);
  EXPECT_THAT(translate(), ElementsAre("SETATTR A x16382"));
  volume.link("a", "more");
  EXPECT_THAT(translate(), ElementsAre("CREATE /:more=A x16383", "SETATTR A x16383",
                                       "UNSTUB A x16383", "LINKS A 16383 x16383", "SETATTR / x2"));
  volume.link("a", "still more");
  EXPECT_THAT(translate(), ElementsAre("CREATE /:still more=A x16383", "SETATTR A x16383",
                                       "UNSTUB A x16383", "LINKS A 16384 x16383", "SETATTR / x2"));
}

struct TranslatorDrops : TranslatorTest {};

TEST_F(TranslatorDrops, EventsOfItsOwnProcess) {
  volume.pid = kOwnPid;
  volume.create("a");
  EXPECT_THAT(translate(), IsEmpty());
  EXPECT_EQ(disk.looksUp + disk.looksAt, 0u);
}

struct TranslatorLeavesOut : TranslatorTest {
  TranslatorLeavesOut() {
    const fsf_fid own = volume.mkdir("own");
    options.leaveOut = {own};
    disk.leaveOut = {own};
    forgetEvents();
  }
};

TEST_F(TranslatorLeavesOut, WhatHappensInAFolder) {
  volume.create("own/db");
  volume.write("own/db", 5);
  volume.mkdir("own/more");
  volume.chmod("own", 0700);
  EXPECT_THAT(translate(), IsEmpty());
  EXPECT_EQ(disk.looksUp + disk.looksAt, 0u);
}

TEST_F(TranslatorLeavesOut, TheFolderItself) {
  volume.rename("own", "other");
  EXPECT_THAT(translate(), IsEmpty());
}

TEST_F(TranslatorLeavesOut, ButNotAFileThatComesOutOfIt) {
  volume.create("own/db");
  forgetEvents();
  volume.rename("own/db", "b");
  EXPECT_THAT(translate(), ElementsAre("CREATE /:b=B x1", "SETATTR B x1", "SETATTR / x3"));
}

TEST_F(TranslatorLeavesOut, NorOneThatGoesIntoIt) {
  volume.create("b");
  forgetEvents();
  volume.rename("b", "own/db");
  EXPECT_THAT(translate(), ElementsAre("REMOVE /:b B 1 x1", "SETATTR B x1", "SETATTR / x3"));
}

struct TranslatorLooks : TranslatorTest {};

TEST_F(TranslatorLooks, OnceForEachNameAndFileOfABatch) {
  volume.create("a");
  volume.create("b");
  for (int i = 0; i < 5; ++i) {
    volume.pid = i;  // so that nothing merges
    volume.chmod("a", 0600);
    volume.link("a", "x");
    volume.unlink("x");
  }
  forgetEvents();
  volume.link("a", "x");
  volume.write("b", 1);
  for (int i = 0; i < 5; ++i) {
    volume.pid = i;
    volume.unlink("x");
    volume.link("b", "x");
    volume.unlink("x");
    volume.link("a", "x");
  }
  EXPECT_THAT(translate(), ElementsAre("CREATE /:x=A x2", "SETATTR A x2", "UNSTUB A x2",
                                       "SETATTR / x2", "SETATTR B x1", "UNSTUB B x1"));
  EXPECT_EQ(disk.looksUp, 1u);
  EXPECT_EQ(disk.looksAt, 2u);  // the root and b: a came with its name
  EXPECT_EQ(disk.forgotten, 1u);
}

TEST_F(TranslatorLooks, AgainInTheNextBatch) {
  Translator translator = make();
  volume.create("a");
  translator.translate(parsed(volume.read()));
  taken();
  volume.unlink("a");
  translator.translate(parsed(volume.read()));
  EXPECT_THAT(taken(), ElementsAre("REMOVE /:a A 0 x0", "SETATTR / x2"));
}

// The events of the first change are read after the second one.
TEST_F(TranslatorLooks, AtThePresentAndNotAtWhatTheEventSays) {
  volume.create("a");
  volume.rename("a", "b");
  volume.unlink("b");
  make().translate(parsed(volume.read(1)));
  EXPECT_THAT(taken(), ElementsAre("REMOVE /:a A 0 x0", "SETATTR / x2"));
}

TEST_F(TranslatorLooks, AndReportsThoseThatFailInsteadOfGuessing) {
  volume.create("a");
  volume.create("b");
  disk.unknownNames = {"a"};
  disk.unknownFiles = {volume.fid("a")};
  EXPECT_THAT(translate(), ElementsAre("CREATE /:b=B x1", "SETATTR B x1", "SETATTR / x2"));
  EXPECT_THAT(failures, ElementsAre(EIO, EIO));
}

TEST_F(TranslatorLooks, AndNamesNoFileWhoseLinksItCannotTell) {
  const fsf_fid a = volume.create("a");
  volume.link("a", "x");
  forgetEvents();
  volume.unlink("a");
  disk.unknownFiles = {a};
  EXPECT_THAT(translate(), ElementsAre("REMOVE /:a - 0 x0", "SETATTR / x2"));
  EXPECT_THAT(failures, ElementsAre(EIO));
}

TEST_F(TranslatorLooks, AndSaysNoRenameWhenOneSideCannotBeSeen) {
  volume.create("a");
  forgetEvents();
  volume.rename("a", "b");
  disk.unknownNames = {"a"};
  EXPECT_THAT(translate(), ElementsAre("CREATE /:b=A x1", "SETATTR A x1", "SETATTR / x2"));
  EXPECT_THAT(failures, ElementsAre(EIO));
}

TEST_F(TranslatorLooks, AfreshAfterTheOutputRefusedARecord) {
  Translator translator = make();
  volume.create("a");
  onRecord = [](const FlrJrnCommandRaw&) { throw std::runtime_error("full"); };
  EXPECT_THROW(translator.translate(parsed(volume.read())), std::runtime_error);
  onRecord = [](const FlrJrnCommandRaw&) {};
  volume.unlink("a");
  translator.translate(parsed(volume.read()));
  EXPECT_THAT(taken(), ElementsAre("REMOVE /:a A 0 x0", "SETATTR / x2"));
  EXPECT_EQ(disk.forgotten, 2u);
}

}  // namespace
}  // namespace kddc::test
