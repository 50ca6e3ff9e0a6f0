// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/sequence_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "agent/errors.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

struct SequenceFileTest : testing::Test {
  TempFolder folder;
  std::string file = folder / "numbers";

  std::string contents() const {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  void expectBegins(unsigned long long next, unsigned long long expected) {
    const RecordNumbers numbers = beginNumbering(file);
    EXPECT_EQ(numbers.next, next);
    EXPECT_EQ(numbers.expected, expected);
  }
};

TEST_F(SequenceFileTest, TheFirstRunBeginsWithOne) {
  expectBegins(1, 1);
}

TEST_F(SequenceFileTest, ARunBeginsWithTheNumbersThatTheLastOneKept) {
  keepNumbers(file, {120, 100});
  EXPECT_EQ(contents(), "120 100\n");
  expectBegins(120, 100);
}

TEST_F(SequenceFileTest, AfterARunThatKeptNothingNoNumberComesAgain) {
  keepNumbers(file, {120, 100});
  beginNumbering(file);
  EXPECT_EQ(contents(), "4294967416 4294967416\n");
  expectBegins(4294967416, 4294967416);
  expectBegins(8589934712, 8589934712);
}

TEST_F(SequenceFileTest, NumbersOfAnyLengthAreKept) {
  keepNumbers(file, {18446744069414584319ULL, 1});
  expectBegins(18446744069414584319ULL, 1);
}

TEST_F(SequenceFileTest, AFileThatCannotBeUnderstoodCountsAsNone) {
  for (const char* text : {"", "7", "x y", "7 0", "6 7", "\n\n", "-"}) {
    folder.write("numbers", text);
    expectBegins(1, 1);
  }
}

TEST_F(SequenceFileTest, ALinkIsNotFollowed) {
  folder.write("other", "7 7\n");
  std::filesystem::create_symlink(folder / "other", file);
  expectBegins(1, 1);
  EXPECT_FALSE(std::filesystem::is_symlink(file));
  std::ifstream other(folder / "other");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(other), {}), "7 7\n");
}

TEST_F(SequenceFileTest, TheFileIsReplacedInOnePieceAndIsItsOwnersAlone) {
  keepNumbers(file, {2, 1});
  struct stat before {
  }, after{};
  ASSERT_EQ(stat(file.c_str(), &before), 0);
  const std::ifstream open(file);  // keeps the old inode number from being used again
  keepNumbers(file, {3, 1});
  ASSERT_EQ(stat(file.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  EXPECT_EQ(after.st_mode & 0777, 0600u);
  EXPECT_FALSE(std::filesystem::exists(file + ".new"));
}

TEST_F(SequenceFileTest, NumbersThatCannotBeKeptAreAFailure) {
  const std::string nowhere = folder / "missing/numbers";
  try {
    keepNumbers(nowhere, {2, 1});
    FAIL();
  } catch (const Failure& failure) {
    EXPECT_STREQ(failure.what(), ("cannot keep the numbers of records in " + nowhere +
                                  ": No such file or directory")
                                     .c_str());
  }
  EXPECT_THROW(beginNumbering(nowhere), Failure);
}

}  // namespace
}  // namespace kddc::test
