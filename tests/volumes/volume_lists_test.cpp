// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "tests/support/log_capture.h"
#include "tests/support/temp_folder.h"
#include "volumes/DCHelper.h"

namespace {

using kddc::test::LogCapture;
using kddc::test::TempFolder;
using testing::ElementsAre;
using testing::IsEmpty;
using List = std::list<std::string>;

struct VolumeLists : testing::Test {
  TempFolder folder;

  List volumes(std::string_view text) {
    List list;
    ReadVolListFromFile(folder.write("volumes", text), list);
    return list;
  }
  List hooked(std::string_view text) {
    List list;
    ReadVolListFromFailOverHookFile(folder.write("hook", text), list);
    return list;
  }
};

// A text that may hold NULs.
template <std::size_t size>
std::string bytes(const char (&text)[size]) {
  return {text, size - 1};
}

using HookFile = VolumeLists;

TEST_F(VolumeLists, EachLineIsAnEntryInTheOrderOfTheFile) {
  EXPECT_THAT(volumes("/b\n/a\n/b\n"), ElementsAre("/b", "/a", "/b"));
}

TEST_F(VolumeLists, ALastLineWithoutANewlineLosesItsLastByte) {
  EXPECT_THAT(volumes("/a\n/b"), ElementsAre("/a", "/"));
  EXPECT_THAT(volumes("x"), ElementsAre(""));
}

TEST_F(VolumeLists, EmptyLinesAndBlanksAreKept) {
  EXPECT_THAT(volumes("\n  \n\t/a b \n"), ElementsAre("", "  ", "\t/a b "));
}

TEST_F(VolumeLists, OnlyTheNewlineOfALineThatEndsLikeOnWindowsIsDropped) {
  EXPECT_THAT(volumes("/a\r\n"), ElementsAre("/a\r"));
}

TEST_F(VolumeLists, AnEmptyFileGivesAnEmptyList) {
  EXPECT_THAT(volumes(""), IsEmpty());
}

TEST_F(VolumeLists, AFileThatIsMissingEmptiesTheList) {
  List list{"/old"}, hook{"/old"};
  const LogCapture log(9);
  ReadVolListFromFile(folder / "missing", list);
  ReadVolListFromFailOverHookFile(folder / "missing", hook);
  EXPECT_THAT(list, IsEmpty());
  EXPECT_THAT(hook, IsEmpty());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(VolumeLists, WhatWasInTheListIsReplaced) {
  List list{"/old"}, hook{"/old"};
  ReadVolListFromFile(folder.write("list", "/new\n"), list);
  ReadVolListFromFailOverHookFile(folder.write("hook", "/new\tnode\n"), hook);
  EXPECT_THAT(list, ElementsAre("/new"));
  EXPECT_THAT(hook, ElementsAre("/new"));
}

TEST_F(VolumeLists, AFolderGivesAnEmptyList) {
  List list{"/old"};
  ReadVolListFromFile(folder.path(), list);
  EXPECT_THAT(list, IsEmpty());
}

TEST_F(VolumeLists, AFileThatMayNotBeReadGivesAnEmptyList) {
  const std::string path = folder.write("secret", "/a\n");
  chmod(path.c_str(), 0);
  const auto readAsNobody = [&] {
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0) std::exit(2);
    List list{"/old"};
    ReadVolListFromFile(path, list);
    std::exit(list.empty() ? 0 : 1);
  };
  EXPECT_EXIT(readAsNobody(), testing::ExitedWithCode(0), "");
}

TEST_F(VolumeLists, ALineOf2046BytesComesWhole) {
  const std::string line(2046, 'a');
  EXPECT_THAT(volumes(line + "\n/b\n"), ElementsAre(line, "/b"));
}

TEST_F(VolumeLists, ALineOf2047BytesLosesItsLastAndLeavesAnEmptyEntry) {
  EXPECT_THAT(volumes(std::string(2046, 'a') + "z\n/b\n"),
              ElementsAre(std::string(2046, 'a'), "", "/b"));
}

TEST_F(VolumeLists, ALongerLineComesInPiecesThatEachLoseTheirLastByte) {
  const std::string first(2046, 'a'), second(2046, 'b');
  EXPECT_THAT(volumes(first + "x" + second + "y" + "ccc\n"), ElementsAre(first, second, "ccc"));
  EXPECT_THAT(volumes(first + "x" + second + "y" + "ccc"), ElementsAre(first, second, "cc"));
}

TEST_F(VolumeLists, BytesThatAreNoTextAreKept) {
  EXPECT_THAT(volumes(bytes("\0\n/a\0b\n\xff\xfe\n\0")),
              ElementsAre(bytes("\0"), bytes("/a\0b"), "\xff\xfe", ""));
}

TEST_F(HookFile, OnlyTheFirstWordOfALineIsAnEntry) {
  EXPECT_THAT(hooked("/data\tnode2\n/home\tnode1\tmore\n"), ElementsAre("/data", "/home"));
}

TEST_F(HookFile, AWordEndsAtAnyBlankAndBlanksBeforeItAreSkipped) {
  EXPECT_THAT(hooked(" \t/a b\n/c\r\n/d\vx\n/e\fx\n"), ElementsAre("/a", "/c", "/d", "/e"));
}

TEST_F(HookFile, ALineWithoutASecondWordStillCounts) {
  EXPECT_THAT(hooked("/a\n/b\t\n"), ElementsAre("/a", "/b"));
}

TEST_F(HookFile, ALineWithoutAWordIsSkipped) {
  EXPECT_THAT(hooked("\n/a\tn\n \t \n\n/b\tn\n"), ElementsAre("/a", "/b"));
}

TEST_F(HookFile, ALastLineWithoutANewlineLosesItsLastByte) {
  EXPECT_THAT(hooked("/a\tn\n/bc"), ElementsAre("/a", "/b"));
  EXPECT_THAT(hooked("/"), IsEmpty());
}

TEST_F(HookFile, TheNextPieceOfALongLineIsALineOfItsOwn) {
  const std::string word(2046, 'a');
  EXPECT_THAT(hooked(word + "x/tail\tnode\n"), ElementsAre(word, "/tail"));
}

}  // namespace
