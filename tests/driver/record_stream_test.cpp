// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "driver/record_stream.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tests/support/bytes.h"

namespace kddc::test {
namespace {

FlrJrnCommandRaw message(const char* text) {
  FlrJrnCommandRaw record{};
  record.cmd = FLR_JRN_TXTMSG;
  record.timestamp = 3;
  record.mask = 5;
  record.u.txtmsg.msg = text;
  return record;
}

TEST(RecordStream, GivesRecordsTheirDeviceAndRisingNumbers) {
  std::vector<Bytes> sent;
  RecordStream stream(7, 9, [&](std::span<unsigned char> record) {
    sent.emplace_back(record.begin(), record.end());
  });
  EXPECT_EQ(stream.nextSequence(), 9u);
  EXPECT_TRUE(stream.write(message("a")));
  EXPECT_TRUE(stream.write(message("b")));
  EXPECT_EQ(stream.nextSequence(), 11u);
  const std::vector<Bytes> expected = {
      bytes("17 00001c 0000000000000007 0000000000000009 00000003 0005 6100"),
      bytes("17 00001c 0000000000000007 000000000000000a 00000003 0005 6200")};
  EXPECT_EQ(sent, expected);
}

TEST(RecordStream, DropsARecordThatIsTooLongOrUnknownWithoutUsingItsNumberUp) {
  std::size_t sent = 0;
  RecordStream stream(7, 1, [&](std::span<unsigned char> record) { sent = record.size(); });
  const std::string longest(32767 - 26 - 1, 'x');
  EXPECT_FALSE(stream.write(message((longest + "x").c_str())));
  FlrJrnCommandRaw unknown{};
  unknown.cmd = 3;
  EXPECT_FALSE(stream.write(unknown));
  EXPECT_EQ(sent, 0u);
  EXPECT_EQ(stream.nextSequence(), 1u);
  EXPECT_TRUE(stream.write(message(longest.c_str())));
  EXPECT_EQ(sent, 32767u);
  EXPECT_EQ(stream.nextSequence(), 2u);
}

TEST(RecordStream, GivesTheNumberOfARecordThatTheSinkRefusedToTheNextOne) {
  bool refuse = true;
  RecordStream stream(7, 1, [&](std::span<unsigned char>) {
    if (refuse) throw std::runtime_error("full");
  });
  EXPECT_THROW(stream.write(message("a")), std::runtime_error);
  EXPECT_EQ(stream.nextSequence(), 1u);
  refuse = false;
  EXPECT_TRUE(stream.write(message("a")));
  EXPECT_EQ(stream.nextSequence(), 2u);
}

}  // namespace
}  // namespace kddc::test
