// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "records/record_layout.h"
#include "tests/support/bytes.h"
#include "tests/support/record_samples.h"
#include "tests/support/record_text.h"

using kddc::test::Bytes;
using kddc::test::bytes;
using kddc::test::oneOfEachCommand;
using kddc::test::record;
using kddc::test::recordText;
using kddc::test::Sample;
namespace samples = kddc::test::samples;

namespace {

constexpr std::size_t kHeader = 26;

// What the encoder writes, told by the length it puts into the header. Behind it the buffer must be
// untouched.
Bytes encoded(const FlrJrnCommandRaw& r) {
  Bytes buffer(4096, 0xee);
  EXPECT_EQ(encodeRawCmd(&r, buffer.data()), 0);
  const std::size_t length = std::size_t{buffer[1]} << 16 | std::size_t{buffer[2]} << 8 | buffer[3];
  for (std::size_t i = length; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], 0xee) << i;
  buffer.resize(length);
  return buffer;
}

FlrJrnCommandRaw decoded(const Bytes& wire) {
  FlrJrnCommandRaw r;
  std::memset(&r, 0x77, sizeof r);
  EXPECT_EQ(decodeRawCmd(wire.data(), &r), 0);
  return r;
}

class EachCommand : public testing::TestWithParam<Sample> {};
INSTANTIATE_TEST_SUITE_P(Record, EachCommand, testing::ValuesIn(oneOfEachCommand()),
                         [](const auto& sample) { return std::string(sample.param.name); });

TEST_P(EachCommand, TravelsInTheseBytes) {
  EXPECT_EQ(encoded(GetParam().record), bytes(GetParam().wire));
}

TEST_P(EachCommand, IsReadBackFieldByField) {
  const Bytes wire = bytes(GetParam().wire);
  EXPECT_EQ(recordText(decoded(wire)), recordText(GetParam().record));
}

TEST_P(EachCommand, KnowsItsSize) {
  EXPECT_EQ(getRawCmdSize(&GetParam().record), bytes(GetParam().wire).size());
}

TEST_P(EachCommand, DecodesWhateverTheLengthFieldSays) {
  Bytes wire = bytes(GetParam().wire);
  wire[1] = wire[2] = wire[3] = 0xff;
  EXPECT_EQ(recordText(decoded(wire)), recordText(GetParam().record));
  wire[1] = wire[2] = wire[3] = 0;
  EXPECT_EQ(recordText(decoded(wire)), recordText(GetParam().record));
}

TEST_P(EachCommand, DecodesTwiceToTheSame) {
  const Bytes wire = bytes(GetParam().wire);
  const FlrJrnCommandRaw first = decoded(wire), second = decoded(wire);
  using Image = std::array<unsigned char, sizeof(FlrJrnCommandRaw)>;
  EXPECT_EQ(std::bit_cast<Image>(first), std::bit_cast<Image>(second));
}

TEST_P(EachCommand, DecodesAtAnyAlignment) {
  const Bytes wire = bytes(GetParam().wire);
  for (std::size_t shift = 1; shift < 8; ++shift) {
    Bytes moved(shift, 0xee);
    moved.insert(moved.end(), wire.begin(), wire.end());
    FlrJrnCommandRaw r;
    EXPECT_EQ(decodeRawCmd(moved.data() + shift, &r), 0);
    EXPECT_EQ(recordText(r), recordText(GetParam().record));
  }
}

TEST_P(EachCommand, HasTheNameThatDumpsAndLogsUse) {
  EXPECT_EQ(kddc::commandName(GetParam().record.cmd), std::string("FLR_JRN_") + GetParam().name);
}

TEST(Codes, AreTheseNumbers) {
  std::vector<unsigned int> codes;
  for (const Sample& sample : oneOfEachCommand()) codes.push_back(sample.record.cmd);
  EXPECT_THAT(codes, testing::UnorderedElementsAre(0, 1, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14,
                                                   15, 16, 17, 18, 19, 20, 21, 22, 23));
  EXPECT_STREQ(kddc::commandName(3), "UNKNOWN");
  EXPECT_STREQ(kddc::commandName(24), "UNKNOWN");
}

TEST(Noop, ZeroesTheFirstByteOfThePayload) {
  EXPECT_EQ(decoded(bytes(samples::noop().wire)).u.noop, 0);
}

TEST(SetAttr, TravelsWholeWhenNoFlagIsSet) {
  FlrJrnCommandRaw r = samples::setattr().record;
  std::memset(&r.u.setattr.mode_valid, 0, 8);
  const Bytes wire = encoded(r);
  EXPECT_EQ(wire.size(), 118u);
  EXPECT_EQ(wire[117], 0x48);  // blocks
}

TEST(Create, HasItsNameAtOffset74AndItsModeBehindTheNul) {
  const Bytes wire = encoded(samples::create().record);
  EXPECT_EQ(wire.size(), 120u);
  EXPECT_EQ(wire[74], 'a');
  EXPECT_EQ(wire[75], 0);
  EXPECT_EQ(Bytes(wire.begin() + 76, wire.begin() + 80), bytes("000081a4"));
}

TEST(Create, MayHaveAnEmptyNameAndNonAsciiOnes) {
  FlrJrnCommandRaw r = samples::create().record;
  r.u.create.short_name = "";
  EXPECT_EQ(encoded(r).size(), 119u);
  r.u.create.short_name = "\xff\xc3\x28\n";
  EXPECT_EQ(recordText(decoded(encoded(r))), recordText(r));
}

TEST(Time, IsReadBackUnsigned) {
  const Bytes wire = bytes(samples::create().wire);
  EXPECT_EQ(decoded(wire).u.create.atime.tv_sec, 4294967295LL);
}

TEST(Time, LosesWhatIsAbove32Bits) {
  FlrJrnCommandRaw r = samples::create().record;
  r.u.create.atime = {-1, 0x500000007};
  const Bytes wire = encoded(r);
  const FlrJrnTime atime = decoded(wire).u.create.atime;
  EXPECT_EQ(atime.tv_sec, 4294967295LL);
  EXPECT_EQ(atime.tv_nsec, 7);
}

TEST(Rename, KeepsTheLowByteOfDstFidValid) {
  FlrJrnCommandRaw r = samples::rename().record;
  r.u.rename.dst_fid_valid = 0x101;
  EXPECT_EQ(encoded(r), bytes(samples::rename().wire));
  const Bytes wire = encoded(r);
  EXPECT_EQ(decoded(wire).u.rename.dst_fid_valid, 1u);
  r.u.rename.dst_fid_valid = 0xff;
  const Bytes full = encoded(r);
  EXPECT_EQ(decoded(full).u.rename.dst_fid_valid, 255u);
}

TEST(Rename, SendsTheReplacedFileEvenWhenThereIsNone) {
  FlrJrnCommandRaw r = samples::rename().record;
  r.u.rename.dst_fid_valid = 0;
  Bytes expected = bytes(samples::rename().wire);
  expected[kHeader + 24 + 24 + 3] = 0;
  EXPECT_EQ(encoded(r), expected);
}

TEST(Write, MayBeEmptyAndThenPointsBehindItsSize) {
  FlrJrnCommandRaw r = samples::write().record;
  r.u.write.size = 0;
  r.u.write.data = nullptr;
  const Bytes wire = encoded(r);
  EXPECT_EQ(wire.size(), 62u);
  EXPECT_EQ(decoded(wire).u.write.data, wire.data() + 62);
}

TEST(Write, MayContainNuls) {
  FlrJrnCommandRaw r = samples::write().record;
  const unsigned char zeros[] = {0, 0, 1, 0};
  r.u.write.size = 4;
  r.u.write.data = zeros;
  const Bytes wire = encoded(r);
  EXPECT_EQ(recordText(decoded(wire)), recordText(r));
}

TEST(Decoder, LeavesStringsAndBlocksWhereTheyAre) {
  const Bytes wire = bytes(samples::setXattr().wire);
  const FlrJrnCommandRaw r = decoded(wire);
  EXPECT_EQ(static_cast<const void*>(r.u.setxattr.attr_name), wire.data() + 54);
  EXPECT_EQ(r.u.setxattr.value, wire.data() + wire.size() - 2);
}

TEST(Encoder, KeepsTheLowBitsOfCommandAndMask) {
  FlrJrnCommandRaw r = record(0x105);  // no CREATE: a code above 23
  r.mask = 0x12345678;
  EXPECT_EQ(encoded(r), bytes("05 00001a 0000000000000007 0000000000000009 000003e8 5678"));
}

TEST(Encoder, KeepsTheLow24BitsOfTheLength) {
  const std::size_t count = 0x1000005;
  const Bytes block(count);
  FlrJrnCommandRaw r = samples::write().record;
  r.u.write.size = static_cast<unsigned int>(count);
  r.u.write.data = block.data();
  Bytes buffer(62 + count);
  EXPECT_EQ(encodeRawCmd(&r, buffer.data()), 0);
  EXPECT_EQ(Bytes(buffer.begin(), buffer.begin() + 4), bytes("04 000043"));  // 0x1000043
  EXPECT_EQ(getRawCmdSize(&r), 0x1000043u);
}

class UnknownCode : public testing::TestWithParam<unsigned int> {};
INSTANTIATE_TEST_SUITE_P(Code, UnknownCode, testing::Values(3, 24, 255));

TEST_P(UnknownCode, EncodesToABareHeader) {
  Bytes expected = bytes("00 00001a 0000000000000007 0000000000000009 000003e8 0005");
  expected[0] = static_cast<unsigned char>(GetParam());
  EXPECT_EQ(encoded(record(GetParam())), expected);
}

TEST_P(UnknownCode, HasSizeZero) {
  const FlrJrnCommandRaw r = record(GetParam());
  EXPECT_EQ(getRawCmdSize(&r), 0u);
}

TEST_P(UnknownCode, IsRejectedByTheDecoderWithTheHeaderFilled) {
  const Bytes wire = encoded(record(GetParam()));
  FlrJrnCommandRaw r{};
  EXPECT_EQ(decodeRawCmd(wire.data(), &r), -1);
  EXPECT_EQ(recordText(r), recordText(record(GetParam())));
}

TEST(NullPointers, AreRejectedAndNothingIsWritten) {
  FlrJrnCommandRaw r = record(FLR_JRN_NOOP);
  Bytes buffer(64, 0xee);
  EXPECT_EQ(encodeRawCmd(nullptr, buffer.data()), -1);
  EXPECT_EQ(encodeRawCmd(&r, nullptr), -1);
  EXPECT_EQ(__encodeRawCmd(nullptr, buffer.data(), nullptr, nullptr), -1);
  EXPECT_EQ(__encodeRawCmd(&r, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(buffer, Bytes(64, 0xee));
  EXPECT_EQ(decodeRawCmd(nullptr, &r), -1);
  EXPECT_EQ(decodeRawCmd(buffer.data(), nullptr), -1);
  EXPECT_EQ(recordText(r), recordText(record(FLR_JRN_NOOP)));
  EXPECT_EQ(getRawCmdSize(nullptr), 0u);
}

// The calls of a copy callback: how much, from where, to where.
struct Copies {
  int status = 0;
  int calls = 0;
  unsigned int length = 0;
  const void* from = nullptr;
  void* to = nullptr;

  static int copy(void* dst, const void* src, unsigned int length, void* ctx) {
    auto& self = *static_cast<Copies*>(ctx);
    ++self.calls;
    self.length = length;
    self.from = src;
    self.to = dst;
    std::memset(dst, 0x2a, length);
    return self.status;
  }
};

class StreamedCommand : public testing::TestWithParam<Sample> {};
INSTANTIATE_TEST_SUITE_P(Record, StreamedCommand,
                         testing::Values(samples::write(), samples::twrite(), samples::setAcl(),
                                         samples::setXattr()),
                         [](const auto& sample) { return std::string(sample.param.name); });

// The block of a sample, which ends its record.
std::string_view blockOf(const Sample& sample) {
  if (sample.record.cmd == FLR_JRN_SETXATTR) return "hi";
  return sample.record.cmd == FLR_JRN_SET_ACL ? "acls" : "abc";
}

TEST_P(StreamedCommand, LetsTheCallbackPlaceItsBlockOnce) {
  const Bytes wire = bytes(GetParam().wire);
  const std::size_t count = blockOf(GetParam()).size();
  Bytes buffer(wire.size());
  Copies copies;
  EXPECT_EQ(__encodeRawCmd(&GetParam().record, buffer.data(), Copies::copy, &copies), 0);

  EXPECT_EQ(copies.calls, 1);
  EXPECT_EQ(copies.length, count);
  EXPECT_EQ(static_cast<const char*>(copies.from), blockOf(GetParam()));
  EXPECT_EQ(copies.to, buffer.data() + wire.size() - count);

  Bytes expected = wire;
  std::fill_n(expected.end() - static_cast<std::ptrdiff_t>(count), count, 0x2a);
  EXPECT_EQ(buffer, expected);
}

TEST_P(StreamedCommand, AnswersWhatTheCallbackAnswers) {
  Bytes buffer(bytes(GetParam().wire).size());
  Copies copies{.status = 17};
  EXPECT_EQ(__encodeRawCmd(&GetParam().record, buffer.data(), Copies::copy, &copies), 17);
  EXPECT_EQ(buffer[3], bytes(GetParam().wire)[3]);  // the length is there all the same
}

TEST(Streaming, CallsForAnEmptyBlockToo) {
  FlrJrnCommandRaw r = samples::write().record;
  r.u.write.size = 0;
  Bytes buffer(62);
  Copies copies{.status = -5};
  EXPECT_EQ(__encodeRawCmd(&r, buffer.data(), Copies::copy, &copies), -5);
  EXPECT_EQ(copies.calls, 1);
}

TEST(Streaming, NeverCallsForAnyOtherCommandNotEvenSetXattrAix) {
  for (const Sample& sample : oneOfEachCommand()) {
    const unsigned int cmd = sample.record.cmd;
    if (cmd == FLR_JRN_WRITE || cmd == FLR_JRN_TWRITE || cmd == FLR_JRN_SET_ACL ||
        cmd == FLR_JRN_SETXATTR)
      continue;
    const Bytes wire = bytes(sample.wire);
    Bytes buffer(wire.size());
    Copies copies{.status = 17};
    EXPECT_EQ(__encodeRawCmd(&sample.record, buffer.data(), Copies::copy, &copies), 0);
    EXPECT_EQ(copies.calls, 0) << sample.name;
    EXPECT_EQ(buffer, wire);
  }
}

TEST(Header, TravelsInTheseBytes) {
  const FlrJrnHdrRaw header{.cmd = 0x123,
                            .length = 0xff010203,
                            .devt = 0x1112131415161718,
                            .seq_num = 0x2122232425262728,
                            .timestamp = 0x31323334,
                            .mask = 0xffff4142};
  Bytes buffer(27, 0xee);
  encodeRawHdr(&header, buffer.data());
  EXPECT_EQ(buffer, bytes("23 010203 1112131415161718 2122232425262728 31323334 4142 ee"));
}

TEST(Header, IsReadBackFieldByField) {
  const Bytes wire = bytes("ff fefdfc 8182838485868788 9192939495969798 a1a2a3a4 b1b2");
  FlrJrnHdrRaw header;
  decodeRawHdr(wire.data(), &header);
  EXPECT_EQ(header.cmd, 0xffu);
  EXPECT_EQ(header.length, 0xfefdfcu);
  EXPECT_EQ(header.devt, 0x8182838485868788u);
  EXPECT_EQ(header.seq_num, 0x9192939495969798u);
  EXPECT_EQ(header.timestamp, 0xa1a2a3a4u);
  EXPECT_EQ(header.mask, 0xb1b2u);
}

TEST(Header, IsLeftAloneByNullPointers) {
  FlrJrnHdrRaw header{1, 2, 3, 4, 5, 6};
  decodeRawHdr(nullptr, &header);
  EXPECT_EQ(header.cmd, 1u);
  EXPECT_EQ(header.mask, 6u);
  decodeRawHdr(bytes(samples::noop().wire).data(), nullptr);
}

}  // namespace
