// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The text of records, byte for byte: logs and tools read it.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "records/journal_record.h"
#include "tests/support/bytes.h"
#include "tests/support/record_samples.h"

namespace kddc::test {
namespace {

constexpr unsigned int kRoom = 4096;
constexpr char kUntouched = '\x7e';

// All `size` bytes of a buffer after the call, which is surrounded by bytes that must stay.
std::string printedBytes(const FlrJrnCommandRaw& r, unsigned int size) {
  std::string buffer(size + 2, kUntouched);
  char* out = buffer.data() + 1;
  EXPECT_EQ(printRawCmd(out, size, &r), out + size - 1);
  EXPECT_EQ(buffer.front(), kUntouched);
  EXPECT_EQ(buffer.back(), kUntouched);
  EXPECT_EQ(out[size - 1], '\0');
  return buffer.substr(1, size);
}

std::string printed(const FlrJrnCommandRaw& r, unsigned int size = kRoom) {
  return printedBytes(r, size).c_str();
}

// The value behind a label.
std::string field(const FlrJrnCommandRaw& r, const std::string& label) {
  const std::string text = "\n" + printed(r) + "\n";
  const std::size_t line = text.find("\n" + label + ".");
  if (line == std::string::npos) return "no such line";
  const std::size_t value = text.find(' ', line) + 1;
  return text.substr(value, text.find('\n', value) - value);
}

// What samples of every command print, without their five lines of header.
const std::map<std::string, std::string> kPayloads = {
    {"NOOP", ""},
    {"SNAP", R"(
job_id........... 1230066625199609624
job_token........ tok
set_id........... 2387509390608836392)"},
    {"SETATTR", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
mode_valid....... 1
uid_valid........ 2
gid_valid........ 3
atime_valid...... 4
mtime_valid...... 5
ctime_valid...... 6
size_valid....... 7
blocks_valid..... 255
mode............. 100644
uid.............. 501
gid.............. 20
atime............ (1, 2)
mtime............ (3, 4)
ctime............ (5, 6)
size............. 3544952156018063160
blocks........... 4702394921427289928)"},
    {"WRITE", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
offset........... 5859837686836516696
size............. 3
data............. abc...)"},
    {"CREATE", R"(
par_fid.......... a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
fid.............. b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2
short_name....... a
mode............. 100644
uid.............. 501
gid.............. 20
atime............ (4294967295, 2)
mtime............ (3, 4)
rdev............. 0x6162636465666768)"},
    {"MKDIR", R"(
par_fid.......... a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
fid.............. b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2
short_name....... a
mode............. 100644
uid.............. 501
gid.............. 20
atime............ (4294967295, 2)
mtime............ (3, 4))"},
    {"REMOVE", R"(
par_fid.......... a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
short_name....... ab
file_fid......... b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2
nlink............ 2)"},
    {"RMDIR", R"(
dir_fid.......... a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
par_fid.......... b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2
short_name....... ab)"},
    {"LINK", R"(
src_fid.......... a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
dst_par_fid...... b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2
dst_short_name... ab)"},
    {"SYMLINK", R"(
src_name......... to/x
dst_par_fid...... a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
dst_short_name... ab
dst_fid.......... b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2
uid.............. 501
gid.............. 20)"},
    {"RENAME", R"(
src_fid.......... a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
src_par_fid...... b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2
src_short_name... ab
dst_fid_valid.... 1
dst_fid.......... c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3c3
dst_par_fid...... d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4d4
dst_short_name... xyz)"},
    {"EXT2_SETFLAGS", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
flags............ 0x71727374)"},
    {"SET_ACL", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
data_len......... 4)"},
    {"SETXATTR", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
flags............ -2122153084
attr_name........ user.x
attr_len......... 2)"},
    {"RMXATTR", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
attr_name........ user.x)"},
    {"STUB", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
meta............. m)"},
    {"UNSTUB", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1)"},
    {"TWRITE", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
offset........... 5859837686836516696
size............. 3
data............. abc...)"},
    {"WRITE_DDR", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
offset........... 5859837686836516696
size............. -1852664940)"},
    {"FCLEAR", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
offset........... 5859837686836516696
length........... -6799692559826901080)"},
    {"SETXATTR_AIX", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
flags............ -2122153084
attr_name........ user.x
attr_len......... 2)"},
    {"RMXATTR_AIX", R"(
fid.............. a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1
attr_name........ user.x)"},
    {"TXTMSG", R"(
msg.............. hello)"},
};

class DumpOfEachCommand : public testing::TestWithParam<Sample> {};
INSTANTIATE_TEST_SUITE_P(Record, DumpOfEachCommand, testing::ValuesIn(oneOfEachCommand()),
                         [](const auto& sample) { return std::string(sample.param.name); });

TEST_P(DumpOfEachCommand, HasALineForEachFieldAndNoNewlineBehindTheLast) {
  const std::string name = GetParam().name;
  EXPECT_EQ(printed(GetParam().record), "cmd.............. FLR_JRN_" + name + R"(
timestamp........ 1000
seq_num.......... 9
devt............. 0x7
mask............. 0x05)" + kPayloads.at(name));
}

TEST_P(DumpOfEachCommand, IsTheSameWhenTheRecordWasDecoded) {
  const Bytes wire = bytes(GetParam().wire);
  FlrJrnCommandRaw decoded;
  ASSERT_EQ(decodeRawCmd(wire.data(), &decoded), 0);
  EXPECT_EQ(printed(decoded), printed(GetParam().record));
}

TEST_P(DumpOfEachCommand, IsCutOffAtEverySizeOfTheBuffer) {
  const std::string whole = printed(GetParam().record);
  for (unsigned int size = 1; size <= whole.size() + 1; ++size)
    EXPECT_EQ(printed(GetParam().record, size), whole.substr(0, size - 1));
}

TEST(Dump, ACommandWithoutANameIsUnknownAndShowsItsHeader) {
  for (const unsigned int cmd : {3U, 24U, 255U, 256U, 0xffffffffU})
    EXPECT_EQ(printed(record(cmd)), R"(cmd.............. UNKNOWN
timestamp........ 1000
seq_num.......... 9
devt............. 0x7
mask............. 0x05)");
}

TEST(Dump, TheHeaderIsShownToItsLastBit) {
  FlrJrnCommandRaw r = record(FLR_JRN_NOOP);
  r.timestamp = 0xffffffff;  // wider as a long, so it keeps its sign
  r.seq_num = 0xffffffffffffffff;
  r.devt = 0xfedcba9876543210;
  r.mask = 0x12345;
  EXPECT_EQ(printed(r), R"(cmd.............. FLR_JRN_NOOP
timestamp........ 4294967295
seq_num.......... -1
devt............. 0xfedcba9876543210
mask............. 0x12345)");
  r.devt = 0;
  r.mask = 0;
  EXPECT_EQ(field(r, "devt"), "0x0");
  EXPECT_EQ(field(r, "mask"), "0x00");
}

TEST(Dump, IntegersInDecimalAreSigned) {
  FlrJrnCommandRaw r = samples::setattr().record;
  r.u.setattr.uid = 0xffffffffffffffff;
  r.u.setattr.size = 0x8000000000000000;
  r.u.setattr.atime = {-1, -2};
  EXPECT_EQ(field(r, "uid"), "-1");
  EXPECT_EQ(field(r, "size"), "-9223372036854775808");
  EXPECT_EQ(field(r, "atime"), "(-1, -2)");

  r = samples::remove().record;
  r.u.remove.nlink = 0xffffffff;
  EXPECT_EQ(field(r, "nlink"), "-1");
  r = samples::rename().record;
  r.u.rename.dst_fid_valid = 0x80000000;  // not yet encoded: its low byte alone travels
  EXPECT_EQ(field(r, "dst_fid_valid"), "-2147483648");
  r = samples::setAcl().record;
  r.u.set_acl.data_len = 0xfffffffe;
  EXPECT_EQ(field(r, "data_len"), "-2");
}

TEST(Dump, ModesAreOctalAndFlagsOfInodesAndDevicesHexadecimal) {
  FlrJrnCommandRaw r = samples::create().record;
  r.u.create.mode = 0644;
  r.u.create.rdev = 0;
  EXPECT_EQ(field(r, "mode"), "644");
  EXPECT_EQ(field(r, "rdev"), "0x0");
  r.u.create.mode = 0xffffffff;
  EXPECT_EQ(field(r, "mode"), "37777777777");
  r = samples::ext2SetFlags().record;
  r.u.ext2_setflags.flags = 0xffffffff;
  EXPECT_EQ(field(r, "flags"), "0xffffffff");
}

TEST(Dump, NamesComeByteForByteAndMayBeEmpty) {
  FlrJrnCommandRaw r = samples::txtmsg().record;
  r.u.txtmsg = {""};
  EXPECT_EQ(printed(r).substr(121), "msg.............. ");
  r.u.txtmsg = {"two\nlines \x1b[31m \xff %s %n"};
  EXPECT_EQ(printed(r).substr(121), "msg.............. two\nlines \x1b[31m \xff %s %n");
}

// The data line of a WRITE of these bytes.
std::string preview(const std::string& written) {
  FlrJrnCommandRaw r = samples::write().record;
  r.u.write.size = static_cast<unsigned int>(written.size());
  r.u.write.data = data(written.data());
  const std::string text = printed(r);
  const std::string label = "\ndata............. ";
  return text.substr(text.find(label) + label.size());
}

TEST(Dump, DataIsShownByItsFirstSixtyBytesAndAlwaysThreeDots) {
  const std::string sixty = "0123456789abcdefghijklmnopqrstuvwxyz0123456789ABCDEFGHIJKLMN";
  EXPECT_EQ(preview(""), "...");
  EXPECT_EQ(preview("abc"), "abc...");
  EXPECT_EQ(preview(sixty.substr(1)), sixty.substr(1) + "...");
  EXPECT_EQ(preview(sixty), sixty + "...");
  EXPECT_EQ(preview(sixty + "x"), sixty + "...");
  EXPECT_EQ(preview(sixty + std::string(40, 'x')), sixty + "...");
}

TEST(Dump, DataIsNotEscapedAndANulEndsIt) {
  EXPECT_EQ(preview("a\n\x1b\xff"), "a\n\x1b\xff...");
  EXPECT_EQ(preview(std::string("ab\0cd", 5)), "ab");
}

TEST(Dump, EmptyDataMayBeANullPointer) {
  FlrJrnCommandRaw r = samples::twrite().record;
  r.u.write.size = 0;
  r.u.write.data = nullptr;
  EXPECT_EQ(field(r, "data"), "...");
}

TEST(Dump, ATinyBufferHoldsTheBeginningAndANul) {
  const FlrJrnCommandRaw r = samples::noop().record;
  EXPECT_EQ(printedBytes(r, 1), std::string("\0", 1));
  EXPECT_EQ(printedBytes(r, 2), std::string("c\0", 2));
  EXPECT_EQ(printedBytes(r, 10), std::string("cmd......\0", 10));
}

TEST(Dump, ATextThatFillsTheBufferExactlyLosesItsLastCharacter) {
  const FlrJrnCommandRaw r = samples::noop().record;
  const std::string whole = printed(r);
  EXPECT_EQ(whole.size(), 118U);
  EXPECT_EQ(printed(r, 118), whole.substr(0, 117));
  EXPECT_EQ(printed(r, 119), whole);
}

TEST(Dump, ALargerBufferGetsItsLastByteSetAndKeepsWhatLiesBetween) {
  const std::string buffer = printedBytes(samples::noop().record, 123);
  EXPECT_EQ(buffer.substr(118), std::string("\0~~~\0", 5));
}

}  // namespace
}  // namespace kddc::test
