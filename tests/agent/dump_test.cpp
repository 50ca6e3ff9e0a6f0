// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc dump as its users meet it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "tests/support/program.h"
#include "tests/support/record_files.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

using testing::HasSubstr;

constexpr char kHeader[] =
    "timestamp........ 1000\nseq_num.......... 9\ndevt............. 0x7\nmask............. 0x05\n";

std::string headed(const std::string& cmd, const std::string& payload = "") {
  return "cmd.............. FLR_JRN_" + cmd + "\n" + kHeader + payload;
}

// What the samples of these commands look like.
const std::string kNoop = headed("NOOP");
const std::string kTxtmsg = headed("TXTMSG", "msg.............. hello\n");
const std::string kRmdir = headed("RMDIR",
                                  "dir_fid.......... a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1"
                                  "a1\npar_fid.......... b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2"
                                  "b2b2b2\nshort_name....... ab\n");

std::string message(const char* text) {
  FlrJrnCommandRaw r = record(FLR_JRN_TXTMSG);
  r.u.txtmsg = {text};
  return wireOf(r);
}

std::string written(const std::string& bytes) {
  FlrJrnCommandRaw r = samples::write().record;
  r.u.write.size = static_cast<unsigned int>(bytes.size());
  r.u.write.data = data(bytes.data());
  return wireOf(r);
}

struct DumpTest : testing::Test {
  TempFolder temp;

  std::string file(const std::string& bytes) const { return temp.write("file", bytes); }
  Outcome dump(const std::string& bytes, std::vector<std::string> more = {}) const {
    more.insert(more.begin(), {"dump", file(bytes)});
    return Program::run(more);
  }
  // A complaint about temp/file.
  std::string complaint(const std::string& what) const {
    return "kddc: " + temp / "file" + ": " + what + "\n";
  }
  static void expect(const Outcome& outcome, int exitCode, const std::string& out,
                     const std::string& err = "") {
    EXPECT_EQ(outcome.exitCode, exitCode) << outcome;
    EXPECT_EQ(outcome.out, out);
    EXPECT_EQ(outcome.err, err);
  }
};

TEST_F(DumpTest, PrintsTheRecordsOfAStreamWithAnEmptyLineBetweenThem) {
  expect(dump(stream({samples::noop(), samples::rmdir(), samples::txtmsg()})), 0,
         kNoop + "\n" + kRmdir + "\n" + kTxtmsg);
}

TEST_F(DumpTest, PrintsTheRecordsOfASwapFileTheSameWay) {
  expect(dump(swapFile({samples::noop(), samples::rmdir(), samples::txtmsg()})), 0,
         kNoop + "\n" + kRmdir + "\n" + kTxtmsg);
}

TEST_F(DumpTest, TellsTheFormatByTheFirstRecordWhicheverCommandItIs) {
  for (const Sample& sample : oneOfEachCommand()) {
    const Outcome one = dump(stream({sample})), other = dump(swapFile({sample}));
    EXPECT_EQ(one.exitCode, 0) << sample.name << one;
    EXPECT_THAT(one.out, HasSubstr(std::string("FLR_JRN_") + sample.name + "\n"));
    EXPECT_EQ(other.out, one.out) << sample.name << other;
  }
}

TEST_F(DumpTest, ASwapFileIsStillOneWhenItsFirstRecordsAreDamaged) {
  std::string damaged = wireOf(samples::txtmsg());
  damaged[3] = 99;
  expect(dump(framed(damaged) + framed(damaged) + swapFile({samples::txtmsg()})), 1, kTxtmsg,
         complaint("byte 0: a record of 32 bytes is not well formed") +
             complaint("byte 34: a record of 32 bytes is not well formed"));
}

TEST_F(DumpTest, TheFormatCanBeForced) {
  const std::string bytes = stream({samples::noop()});
  expect(dump(bytes, {"--format", "stream"}), 0, kNoop);
  // 00 00: a length of 0, and something behind it.
  expect(dump(bytes, {"--format", "swap"}), 1, "",
         complaint("byte 3: there is something behind the end of the records"));
  expect(dump(bytes, {"--format", "tar"}), 2, "",
         "kddc: --format: tar not in {swap,stream}; see kddc --help\n");
}

TEST_F(DumpTest, AnEmptyFileHoldsNoRecords) {
  expect(dump(""), 0, "");
  expect(dump("", {"--format", "swap"}), 0, "");
}

TEST_F(DumpTest, ALengthOfZeroEndsASwapFileWhoseRestIsBlank) {
  expect(dump(swapFile({samples::noop()}) + std::string(600000, '\0')), 0, kNoop);
}

TEST_F(DumpTest, SomethingBehindTheEndOfASwapFileIsReported) {
  expect(dump(swapFile({samples::noop()}) + std::string(300000, '\0') + "x"), 1, kNoop,
         complaint("byte 300028: there is something behind the end of the records"));
}

TEST_F(DumpTest, ReadsStandardInput) {
  const std::string path = file(swapFile({samples::noop()}));
  const Outcome outcome =
      Program::run({"dump", "-"}, [&] { dup2(open(path.c_str(), O_RDONLY), STDIN_FILENO); });
  expect(outcome, 0, kNoop);
}

TEST_F(DumpTest, DamageOfStandardInputIsReportedUnderItsName) {
  const std::string path = file("\x05");
  const Outcome outcome =
      Program::run({"dump", "-"}, [&] { dup2(open(path.c_str(), O_RDONLY), STDIN_FILENO); });
  expect(outcome, 1, "",
         "kddc: standard input: byte 0: the file ends inside the header of a record\n");
}

TEST_F(DumpTest, ADamagedTailIsReportedAndTheRestOfAllFilesPrinted) {
  const std::string torn =
      temp.write("torn", stream({samples::noop(), samples::txtmsg()}) + "\x05");
  const std::string whole = temp.write("whole", swapFile({samples::rmdir()}));
  expect(Program::run({"dump", torn, whole}), 1, kNoop + "\n" + kTxtmsg + "\n" + kRmdir,
         "kddc: " + torn + ": byte 58: the file ends inside the header of a record\n");
}

TEST_F(DumpTest, AStreamCutAnywhereGivesItsWholeRecordsAndOneComplaint) {
  const std::string bytes = stream({samples::noop(), samples::txtmsg()});
  for (std::size_t length : {1U, 25U})
    expect(dump(bytes.substr(0, length)), 1, "",
           complaint("byte 0: the file ends inside the header of a record"));
  expect(dump(bytes.substr(0, 26)), 0, kNoop);
  expect(dump(bytes.substr(0, 51)), 1, kNoop,
         complaint("byte 26: the file ends inside the header of a record"));
  for (std::size_t length : {52U, 57U})
    expect(dump(bytes.substr(0, length)), 1, kNoop,
           complaint("byte 26: the file ends inside a record of 32 bytes"));
}

TEST_F(DumpTest, ASwapFileCutAnywhereGivesItsWholeRecordsAndOneComplaint) {
  const std::string bytes = swapFile({samples::noop(), samples::txtmsg()});
  expect(dump(bytes.substr(0, 28)), 0, kNoop);
  expect(dump(bytes.substr(0, 29)), 1, kNoop, complaint("byte 28: the file ends inside a length"));
  for (std::size_t length : {30U, 61U})
    expect(dump(bytes.substr(0, length)), 1, kNoop,
           complaint("byte 28: the file ends inside a record of 32 bytes"));
}

TEST_F(DumpTest, ABadLengthEndsTheFile) {
  expect(dump(swapFile({samples::noop()}) + prefix(-5) + swapFile({samples::txtmsg()})), 1, kNoop,
         complaint("byte 28: a length of -5 is negative"));
  std::string shorter = wireOf(samples::txtmsg());
  shorter[3] = 25;
  expect(dump(stream({samples::noop()}) + shorter), 1, kNoop,
         complaint("byte 26: a length of 25 is too short for a record"));
}

TEST_F(DumpTest, ADamagedRecordWhoseLengthHoldsIsLeftOut) {
  std::string unknown = wireOf(samples::txtmsg());
  unknown[0] = 24;
  std::string endless = wireOf(samples::txtmsg());
  endless.back() = 'x';
  const std::string before = stream({samples::noop()}), behind = stream({samples::txtmsg()});
  const std::string left = kNoop + "\n" + kTxtmsg;
  for (const std::string& damaged : {unknown, endless}) {
    expect(dump(std::string(before).append(damaged).append(behind)), 1, left,
           complaint("byte 26: a record of 32 bytes is not well formed"));
    expect(dump(framed(before).append(framed(damaged)).append(framed(behind))), 1, left,
           complaint("byte 28: a record of 32 bytes is not well formed"));
  }
}

TEST_F(DumpTest, ARecordThatDoesNotFillItsPlaceInASwapFileIsNotTrusted) {
  expect(dump(swapFile({samples::txtmsg()}) + prefix(27) + wireOf(samples::noop()) + "x"), 1,
         kTxtmsg, complaint("byte 34: a record of 27 bytes is not well formed"));
}

TEST_F(DumpTest, AFileThatIsNotThereIsNamedAndTheOthersArePrinted) {
  const std::string there = temp.write("there", stream({samples::noop()}));
  expect(Program::run({"dump", temp / "gone", there}), 3, kNoop,
         "kddc: cannot read " + temp / "gone" + ": No such file or directory\n");
  expect(Program::run({"dump", temp.path()}), 3, "",
         "kddc: cannot read " + temp.path() + ": Is a directory\n");
  const Outcome usage = Program::run({"dump"});
  expect(usage, 2, "", "kddc: FILE is required; see kddc --help\n");
}

TEST_F(DumpTest, NamesAndDataGoIntoAFileByteForByte) {
  const Outcome outcome = dump(message("a\n\x1b[31m\xff") + written("\x1b\xff"));
  EXPECT_THAT(outcome.out, HasSubstr("msg.............. a\n\x1b[31m\xff\n"));
  EXPECT_THAT(outcome.out, HasSubstr("data............. \x1b\xff...\n"));
}

TEST_F(DumpTest, OnATerminalNoByteOfANameOrOfDataActs) {
  const std::string path =
      file(message("a\n\x1b[31m\xff gr\xc3\xbc\xc3\x9f") + written("ab\n\x1b\xff\x7f~"));
  const UniqueFd terminal(posix_openpt(O_RDWR | O_NOCTTY));
  if (!terminal || grantpt(terminal.get()) != 0 || unlockpt(terminal.get()) != 0)
    GTEST_SKIP() << "no pseudo-terminal here";
  const std::string name = ptsname(terminal.get());
  const UniqueFd ourEnd(open(name.c_str(), O_RDWR | O_NOCTTY));  // keeps what was written to it
  Program program({"dump", path}, [&] { dup2(ourEnd.get(), STDOUT_FILENO); });
  std::string shown;
  std::array<char, 4096> piece;
  while (shown.find("~...\r\n") == std::string::npos) {
    const ssize_t count = ::read(terminal.get(), piece.data(), piece.size());
    ASSERT_GT(count, 0) << shown;
    shown.append(piece.data(), static_cast<std::size_t>(count));
  }
  EXPECT_EQ(program.finish().exitCode, 0);
  EXPECT_THAT(shown, HasSubstr("msg.............. a\\n\\x1b[31m\\xff gr\xc3\xbc\xc3\x9f\r\n"));
  EXPECT_THAT(shown, HasSubstr("data............. ab....~...\r\n"));
}

constexpr char kJsonHeader[] = R"("timestamp":1000,"seq_num":9,"devt":7,"mask":5)";

std::string jsonLine(const std::string& cmd, const std::string& payload) {
  return R"({"cmd":"FLR_JRN_)" + cmd + "\"," + kJsonHeader + payload + "}\n";
}

TEST_F(DumpTest, JsonHoldsEveryFieldUnderItsName) {
  const std::string a = R"("a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1")";
  const std::string b = R"("b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2b2")";
  expect(
      dump(swapFile({samples::noop(), samples::create(), samples::remove(), samples::setattr(),
                     samples::fclear()}),
           {"--json"}),
      0,
      jsonLine("NOOP", "") +
          jsonLine("CREATE",
                   R"(,"par_fid":)" + a + R"(,"fid":)" + b +
                       R"(,"short_name":"a","mode":33188,"uid":501,"gid":20,)"
                       R"("atime":[4294967295,2],"mtime":[3,4],"rdev":7017280452245743464)") +
          jsonLine("REMOVE", R"(,"par_fid":)" + a + R"(,"short_name":"ab","file_fid":)" + b +
                                 R"(,"nlink":2)") +
          jsonLine("SETATTR",
                   R"(,"fid":)" + a +
                       R"(,"mode_valid":1,"uid_valid":2,"gid_valid":3,"atime_valid":4,)"
                       R"("mtime_valid":5,"ctime_valid":6,"size_valid":7,"blocks_valid":255,)"
                       R"("mode":33188,"uid":501,"gid":20,"atime":[1,2],"mtime":[3,4],)"
                       R"("ctime":[5,6],"size":3544952156018063160,"blocks":4702394921427289928)") +
          jsonLine("FCLEAR", R"(,"fid":)" + a +
                                 R"(,"offset":5859837686836516696,"length":11647051513882650536)"));
}

TEST_F(DumpTest, JsonGivesDataAndNamesThatAreNotUtf8InBase64) {
  const std::string a = R"("a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1a1")";
  expect(dump(written("") + written("abcd") + stream({samples::setAcl(), samples::setXattr()}) +
                  message("\xff") + message("\x1b\""),
              {"--json"}),
         0,
         jsonLine("WRITE",
                  R"(,"fid":)" + a + R"(,"offset":5859837686836516696,"size":0,"data_base64":"")") +
             jsonLine("WRITE",
                      R"(,"fid":)" + a +
                          R"(,"offset":5859837686836516696,"size":4,"data_base64":"YWJjZA==")") +
             jsonLine("SET_ACL", R"(,"fid":)" + a + R"(,"data_len":4,"data_base64":"YWNscw==")") +
             jsonLine("SETXATTR", R"(,"fid":)" + a +
                                      R"(,"flags":2172814212,"attr_name":"user.x","attr_len":2,)"
                                      R"("value_base64":"aGk=")") +
             jsonLine("TXTMSG", R"(,"msg_base64":"/w==")") +
             jsonLine("TXTMSG", R"(,"msg":"\u001b\"")"));
}

TEST_F(DumpTest, ALargeRecordIsReadFromAPipe) {
  std::string large;
  large.resize(16'000'000, 'x');
  const std::string bytes = written(large) + stream({samples::noop()});
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  UniqueFd from(ends[0]), to(ends[1]);
  Program program({"dump", "-"}, [&] {
    dup2(from.get(), STDIN_FILENO);
    to.reset();
  });
  from.reset();
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t count = ::write(to.get(), bytes.data() + sent, bytes.size() - sent);
    ASSERT_GT(count, 0);
    sent += static_cast<std::size_t>(count);
  }
  to.reset();
  const Outcome outcome = program.finish();
  EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
  EXPECT_THAT(outcome.out, HasSubstr("size............. 16000000\n"));
  EXPECT_THAT(outcome.out, testing::EndsWith("x...\n\n" + kNoop));
}

}  // namespace
}  // namespace kddc::test
