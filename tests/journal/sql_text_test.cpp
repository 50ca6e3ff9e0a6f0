// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "journal/sql_text.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

using kddc::SqlText;

TEST(SqlText, IsMadeOfWordsAndUnsignedNumbers) {
  std::array<char, 64> buffer{};
  SqlText sql(buffer);
  sql.add("A=", 0U, ", B=", 18446744073709551615ULL);
  EXPECT_STREQ(sql.text(), "A=0, B=18446744073709551615");
  EXPECT_EQ(sql.size(), 27U);
}

TEST(SqlText, IsCutBackAndWrittenAnew) {
  std::array<char, 64> buffer{};
  SqlText sql(buffer);
  const std::size_t head = sql.add("SET ").size();
  sql.add("a long end");
  sql.cut(head);
  sql.add("B");
  EXPECT_STREQ(sql.text(), "SET B");
}

TEST(SqlText, FillsItsBufferToTheLastByteAndNotBeyond) {
  std::array<char, 8> buffer{};
  buffer.fill('#');
  const std::span<char> seven(buffer.data(), 7);  // six characters and a NUL
  SqlText(seven).add("ab", 1234U);
  EXPECT_STREQ(buffer.data(), "ab1234");
  EXPECT_THROW(SqlText(seven).add("abcdefg"), std::length_error);
  EXPECT_THROW(SqlText(seven).add("ab", 12345U), std::length_error);
  EXPECT_EQ(buffer[7], '#');
}

}  // namespace
