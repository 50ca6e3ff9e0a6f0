// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "records/fsf_fid.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "platform/exceptions.h"
#include "tests/support/bytes.h"

using kddc::test::Bytes;
using kddc::test::bytes;
using testing::ElementsAre;

namespace {

fsf_fid fid(std::string_view text) {
  const Bytes data = bytes(text);
  fsf_fid result;
  EXPECT_EQ(data.size(), sizeof result.data);
  std::copy(data.begin(), data.end(), result.data);
  return result;
}

Bytes bytesOf(const fsf_fid& f) {
  return Bytes(std::begin(f.data), std::end(f.data));
}

// An identifier of zeros but for one byte.
fsf_fid only(std::size_t position, unsigned char value) {
  fsf_fid result{};
  result.data[position] = value;
  return result;
}

const std::string kText = "000102030405060708090a0b0c0d0e0f10111213141516ff";

// What str2fid says of `text`.
std::string complaint(const char* text) {
  try {
    str2fid(text);
  } catch (const KdException& e) {
    EXPECT_EQ(e.getCode(), -1);
    EXPECT_EQ(e.getFunction(), "str2fid");
    EXPECT_EQ(e.getFile(), "db_access");
    EXPECT_GT(e.getLine(), 0);
    return e.getMessage();
  }
  return "nothing";
}

TEST(Order, EqualBytesAreEqualAndNeitherIsLess) {
  EXPECT_TRUE(fid(kText) == fid(kText));
  EXPECT_FALSE(fid(kText) < fid(kText));
}

TEST(Order, EveryByteMakesADifference) {
  for (std::size_t i = 0; i < 24; ++i) {
    EXPECT_FALSE(only(i, 1) == fsf_fid{}) << i;
    EXPECT_TRUE(fsf_fid{} < only(i, 1)) << i;
    EXPECT_FALSE(only(i, 1) < fsf_fid{}) << i;
  }
}

TEST(Order, IsThatOfThreeUnsignedWordsOfALittleEndianHost) {
  EXPECT_TRUE(only(0, 0xff) < only(7, 1));     // the last byte of a word weighs most
  EXPECT_TRUE(only(7, 0x7f) < only(7, 0x80));  // unsigned
  EXPECT_TRUE(only(15, 0xff) < only(0, 1));    // word 0 before word 1
  EXPECT_TRUE(only(23, 0xff) < only(8, 1));    // word 1 before word 2
}

TEST(Order, ALaterWordDecidesOnlyWhenTheEarlierOnesAreEqual) {
  fsf_fid a = only(0, 1), b = only(0, 2);
  a.data[8] = 9;
  a.data[16] = 9;
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
}

TEST(Text, IsTwoLowerCaseDigitsPerByteInByteOrder) {
  char out[49];
  const fsf_fid f = fid(kText);
  EXPECT_EQ(fid2hex(&f, out), out);
  EXPECT_STREQ(out, "000102030405060708090a0b0c0d0e0f10111213141516ff");
  EXPECT_EQ(kddc::fid2str(only(0, 0xab)), "ab" + std::string(46, '0'));
  EXPECT_EQ(kddc::fid2str(fsf_fid{}), std::string(48, '0'));
}

TEST(Text, WritesExactly49Bytes) {
  std::array<char, 50> out;
  out.fill('~');
  const fsf_fid f{};
  fid2hex(&f, out.data());
  EXPECT_EQ(out[47], '0');
  EXPECT_EQ(out[48], '\0');
  EXPECT_EQ(out[49], '~');
}

TEST(Parsing, TakesUpperAndLowerCaseAlike) {
  const Bytes expected = bytes("abcdef abcdef abcdef abcdef abcdef abcdef abcdef abcdef");
  EXPECT_EQ(bytesOf(str2fid("abcdefabcdefabcdefabcdefabcdefabcdefabcdefabcdef")), expected);
  EXPECT_EQ(bytesOf(str2fid("ABCDEFABCDEFABCDEFABCDEFABCDEFABCDEFABCDEFABCDEF")), expected);
  EXPECT_EQ(bytesOf(str2fid(kText.c_str())), bytesOf(fid(kText)));
}

TEST(Parsing, CountsACharacterThatIsNoDigitAsItsCodeMinus48) {
  const std::string zeros(46, '0');
  EXPECT_EQ(str2fid(("0g" + zeros).c_str()).data[0], 55);
  EXPECT_EQ(str2fid(("0G" + zeros).c_str()).data[0], 55);       // lower-cased first
  EXPECT_EQ(str2fid(("g0" + zeros).c_str()).data[0], 0x70);     // 55 << 4 = 0x370
  EXPECT_EQ(str2fid((" 0" + zeros).c_str()).data[0], 0x00);     // -16 << 4 = -256
  EXPECT_EQ(str2fid(("0 " + zeros).c_str()).data[0], 0xf0);     // -16
  EXPECT_EQ(str2fid(("1/" + zeros).c_str()).data[0], 0xff);     // 0x10 | -1
  EXPECT_EQ(str2fid(("0\xff" + zeros).c_str()).data[0], 0xcf);  // 255 - 48
  EXPECT_EQ(str2fid(("0@" + zeros).c_str()).data[0], 0x10);     // 64 - 48
  EXPECT_EQ(str2fid(("0`" + zeros).c_str()).data[0], 0x30);     // 96 - 48
}

TEST(Parsing, TakesALoneLastDigitOf47AsTheLastByte) {
  const fsf_fid f = str2fid("00000000000000000000000000000000000000000000aae");
  EXPECT_EQ(f.data[22], 0xaa);
  EXPECT_EQ(f.data[23], 0x0e);
}

TEST(Parsing, RefusesTextsThatEndEarlyAndQuotesNothing) {
  EXPECT_EQ(complaint(""), "Invalid FID \"\": too short.");
  for (std::size_t n = 1; n <= 46; ++n)
    EXPECT_EQ(complaint(kText.substr(0, n).c_str()), "Invalid FID \"\": too short.") << n;
}

TEST(Parsing, RefusesTextsThatGoOnAndQuotesTheRest) {
  EXPECT_EQ(complaint((kText + "7").c_str()), "Invalid FID \"7\": too long.");
  EXPECT_EQ(complaint((kText + "5E").c_str()), "Invalid FID \"5E\": too long.");
}

TEST(Columns, HoldSixBytesEachTheLowestFirst) {
  const fsf_fid f = fid(kText);
  std::array<unsigned long long, 4> columns;
  columns.fill(~0ULL);
  unsigned long long* out = columns.data();
  GetIntForBlob(&f, &out);
  EXPECT_THAT(columns, ElementsAre(0x050403020100, 0x0b0a09080706, 0x11100f0e0d0c, 0xff1615141312));
}

TEST(Columns, GiveBackTheSameBytes) {
  const unsigned long long columns[] = {0x050403020100, 0x0b0a09080706, 0x11100f0e0d0c,
                                        0xff1615141312};
  fsf_fid f{};
  GetBlobForInt(columns, &f);
  EXPECT_EQ(bytesOf(f), bytesOf(fid(kText)));
}

TEST(Columns, IgnoreTheHigh16BitsOfANumber) {
  const unsigned long long columns[] = {0xffff000000000001, 0xffff000000000002, 0xffff000000000003,
                                        0xffff000000000004};
  fsf_fid f;
  GetBlobForInt(columns, &f);
  EXPECT_EQ(kddc::fid2str(f), "010000000000020000000000030000000000040000000000");
}

TEST(FileType, FollowsFromTheTypeBitsOfAMode) {
  EXPECT_EQ(GetFileType(0100644), 0);
  EXPECT_EQ(GetFileType(040755), 1);
  EXPECT_EQ(GetFileType(0120777), 2);
  EXPECT_EQ(GetFileType(0020600), 3);
  EXPECT_EQ(GetFileType(0060600), 4);
  EXPECT_EQ(GetFileType(0010600), 5);
  EXPECT_EQ(GetFileType(0140600), 6);
  EXPECT_EQ(GetFileType(0000644), 7);
  EXPECT_EQ(GetFileType(0xF000), 7);
  EXPECT_EQ(GetFileType(0xFFFF8000u), 0);  // bits above the type do not count
}

}  // namespace
