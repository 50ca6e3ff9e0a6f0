// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The check that stands before the trusting decoder. Bytes are handed over in buffers of exactly
// their size, so that AddressSanitizer sees a check that reads too far.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "records/journal_record.h"
#include "tests/support/bytes.h"
#include "tests/support/record_samples.h"

using kddc::test::Bytes;
using kddc::test::bytes;
using kddc::test::hex;
using kddc::test::oneOfEachCommand;
using kddc::test::Sample;
namespace samples = kddc::test::samples;

namespace {

bool wellFormed(const Bytes& wire, std::size_t available) {
  const auto exact = std::make_unique<unsigned char[]>(available);
  std::copy_n(wire.begin(), available, exact.get());
  return kddc::isWellFormedRecord(exact.get(), available);
}

bool wellFormed(const Bytes& wire) {
  return wellFormed(wire, wire.size());
}

void setLength(Bytes& wire, std::size_t length) {
  wire[1] = static_cast<unsigned char>(length >> 16);
  wire[2] = static_cast<unsigned char>(length >> 8);
  wire[3] = static_cast<unsigned char>(length);
}

// `sample` with the bytes at `offset` replaced.
Bytes changed(const Sample& sample, std::size_t offset, std::string_view text) {
  Bytes wire = bytes(sample.wire);
  const Bytes patch = bytes(text);
  std::copy(patch.begin(), patch.end(), wire.begin() + static_cast<std::ptrdiff_t>(offset));
  return wire;
}

class WellFormedCommand : public testing::TestWithParam<Sample> {
 protected:
  const Bytes wire_ = bytes(GetParam().wire);
};
INSTANTIATE_TEST_SUITE_P(Record, WellFormedCommand, testing::ValuesIn(oneOfEachCommand()),
                         [](const auto& sample) { return std::string(sample.param.name); });

TEST_P(WellFormedCommand, IsWellFormed) {
  EXPECT_TRUE(wellFormed(wire_));
}

TEST_P(WellFormedCommand, IsWellFormedInAStreamOfRecords) {
  Bytes stream = wire_;
  stream.insert(stream.end(), wire_.begin(), wire_.end());
  EXPECT_TRUE(wellFormed(stream));
}

TEST_P(WellFormedCommand, HasNoProperPrefixThatIsOne) {
  for (std::size_t n = 0; n < wire_.size(); ++n)
    EXPECT_FALSE(wellFormed(wire_, n)) << n << " of " << hex(wire_);
}

TEST_P(WellFormedCommand, HasNoProperPrefixThatIsOneEvenWhenTheLengthFieldAgrees) {
  for (std::size_t n = 4; n < wire_.size(); ++n) {
    Bytes prefix(wire_.begin(), wire_.begin() + static_cast<std::ptrdiff_t>(n));
    setLength(prefix, n);
    EXPECT_FALSE(wellFormed(prefix)) << n << " of " << hex(wire_);
  }
}

TEST_P(WellFormedCommand, MayNotHaveOneByteTooMany) {
  for (const unsigned char extra : Bytes{0, 1, 255}) {
    Bytes longer = wire_;
    longer.push_back(extra);
    setLength(longer, longer.size());
    EXPECT_FALSE(wellFormed(longer));
  }
}

TEST_P(WellFormedCommand, MayNotLieAboutItsLength) {
  for (const std::size_t lie : {std::size_t{0}, std::size_t{25}, wire_.size() - 1, wire_.size() + 1,
                                std::size_t{0xffffff}}) {
    Bytes liar = wire_;
    setLength(liar, lie);
    EXPECT_FALSE(wellFormed(liar)) << lie;
    liar.resize(wire_.size() + 1);  // not even when there is room
    EXPECT_FALSE(wellFormed(liar)) << lie;
  }
}

TEST(WellFormed, IsNothingThatIsEmptyOrNull) {
  EXPECT_FALSE(wellFormed({}));
  EXPECT_FALSE(kddc::isWellFormedRecord(nullptr, 0));
  EXPECT_FALSE(kddc::isWellFormedRecord(nullptr, 100));
}

TEST(WellFormed, IsNoUnknownCommandWhateverItsLength) {
  Bytes wire = bytes(samples::noop().wire);
  for (; wire.size() < 130; wire.push_back(0)) {
    setLength(wire, wire.size());
    for (unsigned int code = 3; code < 256; code = std::max(code + 1, 24u)) {
      wire[0] = static_cast<unsigned char>(code);
      EXPECT_FALSE(wellFormed(wire)) << code << " " << wire.size();
    }
  }
}

TEST(WellFormed, IsNoBareHeaderButThatOfANoop) {
  for (unsigned char code = 0; code < 24; ++code) {
    Bytes wire = bytes(samples::noop().wire);
    wire[0] = code;
    EXPECT_EQ(wellFormed(wire), code == FLR_JRN_NOOP) << int{code};
    setLength(wire, 0);
    EXPECT_FALSE(wellFormed(wire)) << int{code};
  }
}

TEST(WellFormed, IsNoStringWithoutAnEnd) {
  EXPECT_FALSE(wellFormed(changed(samples::txtmsg(), 31, "21")));
  EXPECT_FALSE(wellFormed(changed(samples::stub(), 51, "21")));
  EXPECT_FALSE(wellFormed(changed(samples::rename(), 129, "21")));
}

TEST(WellFormed, IsNoStringThatEndsBehindTheRecord) {
  Bytes wire = changed(samples::txtmsg(), 31, "21");
  wire.push_back(0);  // of the next record
  EXPECT_FALSE(wellFormed(wire));
}

TEST(WellFormed, IsNoStringThatEndsEarlierThanTheFieldsBehindItSay) {
  EXPECT_FALSE(wellFormed(changed(samples::remove(), 50, "00")));
  EXPECT_FALSE(wellFormed(changed(samples::txtmsg(), 26, "00")));
}

TEST(WellFormed, MayHaveStringsOfAnyBytesAndEmptyOnes) {
  EXPECT_TRUE(wellFormed(changed(samples::txtmsg(), 26, "ff 80 01 0a 7f")));
  EXPECT_TRUE(wellFormed(bytes("17 00001b 0000000000000007 0000000000000009 000003e8 0005 00")));
}

TEST(WellFormed, IsNoBlockThatIsNotExactlyThere) {
  struct Count {
    Sample sample;
    std::size_t offset;
  };
  for (const Count& c :
       {Count{samples::write(), 58}, Count{samples::twrite(), 58}, Count{samples::setAcl(), 50},
        Count{samples::setXattr(), 61}, Count{samples::setXattrAix(), 61}})
    for (const char* count : {"00000000", "00000001", "00000005", "00ffffff", "7fffffff",
                              "80000000", "fffffff0", "fffffffe", "ffffffff"})
      EXPECT_FALSE(wellFormed(changed(c.sample, c.offset, count))) << c.sample.name << count;
}

TEST(WellFormed, IsNoBlockThatFillsALengthBelowTheHeaderByWrapping) {
  Bytes wire = changed(samples::write(), 58, "ffffffc2");  // 0 - 62 in 32 bits
  setLength(wire, 0);
  EXPECT_FALSE(wellFormed(wire));
}

TEST(WellFormed, MayHaveAnEmptyBlock) {
  Bytes wire = changed(samples::write(), 58, "00000000");
  wire.resize(62);
  setLength(wire, 62);
  EXPECT_TRUE(wellFormed(wire));
}

TEST(WellFormed, MayBeAsLongAsItsLengthFieldCanSay) {
  Bytes wire = changed(samples::write(), 58, "00ffffc1");  // 62 + 0xffffc1 = 0xffffff
  wire.resize(0xffffff);
  setLength(wire, wire.size());
  EXPECT_TRUE(wellFormed(wire));
  wire[61] = 0xc2;
  EXPECT_FALSE(wellFormed(wire));
}

TEST(WellFormed, DoesNotDependOnValuesThatCountNothing) {
  Bytes wire = bytes(samples::setattr().wire);
  std::fill(wire.begin() + 26, wire.end(), 0xff);
  EXPECT_TRUE(wellFormed(wire));
  EXPECT_TRUE(wellFormed(changed(samples::writeDdr(), 58, "ffffffff")));
}

}  // namespace
