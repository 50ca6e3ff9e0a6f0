// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The numbers of records over restarts and crashes, for each file system.
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

struct SequenceFile : testing::Test {
  TempFolder temp;
  std::string file = temp / "numbers";

  std::string text() const {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  static void expect(const RecordNumbers& numbers, unsigned long long next,
                     unsigned long long expected) {
    EXPECT_EQ(numbers.next, next);
    EXPECT_EQ(numbers.expected, expected);
  }
};

TEST_F(SequenceFile, TheFirstRunBeginsWithOne) {
  const NumbersByDevt numbers = beginNumbering(file, {7, 9});
  ASSERT_EQ(numbers.size(), 2U);
  expect(numbers.at(7), 1, 1);
  expect(numbers.at(9), 1, 1);
}

TEST_F(SequenceFile, ARunBeginsWhereTheOneBeforeHasEnded) {
  keepNumbers(file, {{7, {12, 10}}, {9, {5, 5}}});
  EXPECT_EQ(text(), "7 12 10\n9 5 5\n");
  const NumbersByDevt numbers = beginNumbering(file, {7, 9});
  expect(numbers.at(7), 12, 10);
  expect(numbers.at(9), 5, 5);
}

TEST_F(SequenceFile, DuringARunItHoldsNumbersFarAheadForTheCaseOfACrash) {
  keepNumbers(file, {{7, {12, 10}}});
  beginNumbering(file, {7, 9});
  EXPECT_EQ(text(), "7 4294967308 4294967308\n9 4294967297 4294967297\n");
}

TEST_F(SequenceFile, AFileSystemThatIsNotFollowedIsForgotten) {
  keepNumbers(file, {{7, {12, 10}}, {9, {5, 5}}});
  const NumbersByDevt numbers = beginNumbering(file, {9});
  ASSERT_EQ(numbers.size(), 1U);
  expect(numbers.at(9), 5, 5);
  EXPECT_EQ(text(), "9 4294967301 4294967301\n");
}

TEST_F(SequenceFile, ALineThatMakesNoSenseIsNotThere) {
  for (const char* line : {"", "x\n", "7\n", "7 12\n", "7 0 0\n", "7 5 6\n", "7 a 1\n", "\n\n",
                           "7 5 5 5\n", "7 5 5x\n", "7  5 5\n", "7 -1 -1\n", "7 5 -5\n", "-7 5 5\n",
                           "7 99999999999999999999 1\n"}) {
    temp.write("numbers", std::string(line) + "\n9 5 5\n");
    const NumbersByDevt numbers = beginNumbering(file, {7, 9});
    expect(numbers.at(7), 1, 1);
    expect(numbers.at(9), 5, 5);
  }
}

TEST_F(SequenceFile, ANumberFromWhichTheNextOneWouldStartAnewIsNotThere) {
  temp.write("numbers", "7 18446744073709551615 5\n9 9223372036854775809 5\n");
  const NumbersByDevt numbers = beginNumbering(file, {7, 9});
  expect(numbers.at(7), 1, 1);
  expect(numbers.at(9), 1, 1);
  EXPECT_EQ(text(), "7 4294967297 4294967297\n9 4294967297 4294967297\n");
}

TEST_F(SequenceFile, TheGreatestNumberLeavesRoomForACrash) {
  temp.write("numbers", "7 9223372036854775808 5\n");
  expect(beginNumbering(file, {7}).at(7), 9223372036854775808U, 5);
  EXPECT_EQ(text(), "7 9223372041149743104 9223372041149743104\n");
}

TEST_F(SequenceFile, ALinkIsReplacedAndNotFollowed) {
  temp.write("other", "7 7 7\n");
  std::filesystem::create_symlink(temp / "other", file);
  expect(beginNumbering(file, {7}).at(7), 1, 1);
  EXPECT_FALSE(std::filesystem::is_symlink(file));
  std::ifstream other(temp / "other");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(other), {}), "7 7 7\n");
}

TEST_F(SequenceFile, ItIsPrivateAndFailuresAreNamed) {
  keepNumbers(file, {});
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
  try {
    keepNumbers(temp / "none/numbers", {});
    FAIL() << "nothing was thrown";
  } catch (const Failure& failure) {
    EXPECT_EQ(failure.what(), "cannot keep the numbers of records in " + (temp / "none/numbers") +
                                  ": No such file or directory");
  }
}

}  // namespace
}  // namespace kddc::test
