// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One block: what fits, what reads answer, and what is made of damaged bytes.
#include <algorithm>
#include <iterator>
#include <limits>
#include <map>
#include <new>
#include <string>
#include <vector>

#include "tests/support/in_memory_fixture.h"
#include "tests/support/log_capture.h"

using kddc::test::add;
using kddc::test::InMemory;
using kddc::test::LogCapture;
using kddc::test::read;

namespace {

TEST_F(InMemory, IsEmptySharedAndBlockingWhenItIsMade) {
  const Block block(100);
  EXPECT_EQ(block.BufferSize_m, 100);
  EXPECT_EQ(block.writePointer(), 0);
  EXPECT_EQ(block.readPointer(), 0);
  EXPECT_EQ(block.Mode_m, 2);
  EXPECT_TRUE(block.Blocking_m);
  EXPECT_FALSE(block.full());
  EXPECT_EQ(block.MaxTrials_m, 10u);
  EXPECT_EQ(block.BufferId_m, 0u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(block.Buffer_m[static_cast<size_t>(i)], 0);
}

TEST_F(InMemory, ToleratesAsManyPartialWritesAsConfiguredButNeverFewerThanTen) {
  for (const auto& [value, trials] : std::map<std::string, unsigned>{{"5", 10},
                                                                     {"10", 10},
                                                                     {"-3", 10},
                                                                     {"11", 11},
                                                                     {"25", 25},
                                                                     {"99999999999", 4294967295}}) {
    configure("TolerateWriteErrors = " + value);
    EXPECT_EQ(Block().MaxTrials_m, trials) << value;
  }
}

TEST_F(InMemory, LogsAndPassesOnThatThereIsNoMemoryForIt) {
  LogCapture log(0);
  EXPECT_THROW(Block(-1), std::bad_alloc);
  EXPECT_TRUE(log.mentions("error 0 InMemoryBuffer :: InMemoryBuffer: eRRoR -- std::bad_a"));
}

TEST_F(InMemory, StoresRecordsBehindTheirLengths) {
  Block block;
  EXPECT_TRUE(add(block, "abc"));
  EXPECT_TRUE(add(block, "de"));
  EXPECT_EQ(block.writePointer(), 9);
  EXPECT_EQ(kddc::test::asText(block.Buffer_m.get(), 10), std::string("\3\0abc\2\0de\0", 10));
  EXPECT_EQ(read(block), "abc");
  EXPECT_EQ(read(block), "de");
}

TEST_F(InMemory, HandsRecordsOutWhereTheyLie) {
  Block block;
  add(block, "abc");
  bool eof = true;
  unsigned char* data = nullptr;
  int length = 0;
  ASSERT_TRUE(block.Read(&eof, &data, &length));
  EXPECT_FALSE(eof);
  EXPECT_EQ(data, &block.Buffer_m[2]);
  EXPECT_EQ(length, 3);
}

TEST_F(InMemory, TakesARecordThatFillsItToTheLastByteAndNoneThatIsLonger) {
  Block exact(12), small(11);
  EXPECT_TRUE(add(exact, "0123456789"));
  EXPECT_EQ(exact.writePointer(), 12);
  EXPECT_FALSE(add(small, "0123456789"));
  EXPECT_EQ(small.writePointer(), 0);
  EXPECT_EQ(small.Buffer_m[0], 0);
}

TEST_F(InMemory, TakesTheLongestRecordThereIs) {
  Block block(40000);
  EXPECT_TRUE(add(block, std::string(32767, 'x')));
  EXPECT_EQ(read(block), std::string(32767, 'x'));
}

TEST_F(InMemory, IsMarkedFullOnlyInSharedMode) {
  for (const auto& [mode, full] : std::map<int, bool>{{0, false}, {1, false}, {2, true}}) {
    Block block(8);
    block.SetMode(mode);
    EXPECT_FALSE(add(block, "1234567"));
    EXPECT_EQ(block.full(), full) << mode;
  }
}

TEST_F(InMemory, IsNoLongerFullWhenAShorterRecordFits) {
  Block block(8);
  EXPECT_FALSE(add(block, "1234567"));
  EXPECT_TRUE(add(block, "123456"));
  EXPECT_FALSE(block.full());
}

TEST_F(InMemory, RefusesANegativeLengthAndNothingHappens) {
  Block block;
  unsigned char byte = 1;
  EXPECT_FALSE(block.Write(&byte, -1));
  EXPECT_FALSE(block.Write(&byte, std::numeric_limits<short>::min()));
  EXPECT_FALSE(block.full());
  EXPECT_EQ(block.writePointer(), 0);
  EXPECT_EQ(block.Buffer_m[0], 0);
}

TEST_F(InMemory, AnswersEofWhenItIsEmptyAndSingleThreaded) {
  Block block;
  block.SetMode(0);
  EXPECT_EQ(read(block), "eof");
}

TEST_F(InMemory, AnswersEofWhenItIsSharedAndFull) {
  Block block(8);
  add(block, "1234567");
  EXPECT_EQ(read(block), "eof");
}

TEST_F(InMemory, AnswersNothingWhenItIsSharedAndNonBlocking) {
  Block block;
  block.SetNonBlocking();
  EXPECT_EQ(read(block), "none");
  EXPECT_EQ(block.readPointer(), 0);
}

TEST_F(InMemory, FailsEveryReadOfAWriteOnlyBlock) {
  Block block;
  block.SetMode(1);
  EXPECT_TRUE(add(block, "abc"));
  EXPECT_EQ(read(block), "none");
  EXPECT_EQ(block.readPointer(), 0);
  block.SetMode(7);
  EXPECT_EQ(read(block), "none");
}

TEST_F(InMemory, ReadsRawBytesUpToTheLastOneWritten) {
  Block block;
  block.SetMode(0);
  add(block, "abc");
  bool eof = true;
  unsigned char* data = nullptr;
  ASSERT_TRUE(block.ReadData(&eof, &data, 4));
  EXPECT_FALSE(eof);
  EXPECT_EQ(data, &block.Buffer_m[0]);
  EXPECT_FALSE(block.ReadData(&eof, &data, 2));
  EXPECT_TRUE(eof);
  ASSERT_TRUE(block.ReadData(&eof, &data, 1));
  EXPECT_EQ(*data, 'c');
  EXPECT_FALSE(block.ReadData(&eof, &data, std::numeric_limits<int>::max()));
  EXPECT_FALSE(block.ReadData(&eof, &data, -1));
  EXPECT_EQ(block.readPointer(), 5);
}

TEST_F(InMemory, EndsAtALengthOfZeroAndTakesIt) {
  Block block;
  load(block, std::string("\2\0ab\0\0\0\0", 8));
  LogCapture log(9);
  EXPECT_EQ(read(block), "ab");
  bool eof = true;
  unsigned char* data = nullptr;
  int length = -1;
  EXPECT_FALSE(block.Read(&eof, &data, &length));
  EXPECT_FALSE(eof);
  EXPECT_EQ(length, -1);
  EXPECT_EQ(block.readPointer(), 6);
  EXPECT_EQ(block.DamagedLengths(), 0u);
  EXPECT_TRUE(log.lines().empty());
}

struct BlockDamage {
  const char* name;
  std::string bytes;
  const char* line;
};

// One good record, and then what a cut or damaged file may hold.
const BlockDamage kDamages[] = {
    {"a negative length",
     std::string("\2\0ab\xff\xff"
                 "cdef",
                 10),
     "error 0 InMemoryBuffer :: Read: Block 3 is damaged before byte 6 of 10: a record of -1 bytes "
     "does not fit, what is behind it is lost"},
    {"one byte too few", std::string("\2\0ab\5\0cdef", 10),
     "error 0 InMemoryBuffer :: Read: Block 3 is damaged before byte 6 of 10: a record of 5 bytes "
     "does not fit, what is behind it is lost"},
    {"the longest length", std::string("\2\0ab\xff\x7f", 6),
     "error 0 InMemoryBuffer :: Read: Block 3 is damaged before byte 6 of 6: a record of 32767 "
     "bytes does not fit, what is behind it is lost"},
};

TEST_F(InMemory, EndsAtALengthThatDoesNotFitAndReportsIt) {
  for (const BlockDamage& damage : kDamages) {
    Block block;
    block.BufferId_m = 3;
    load(block, damage.bytes);
    LogCapture log(9);
    EXPECT_EQ(read(block), "ab");
    bool eof = true;
    unsigned char* data = nullptr;
    int length = -1;
    EXPECT_FALSE(block.Read(&eof, &data, &length)) << damage.name;
    EXPECT_FALSE(eof) << damage.name;
    EXPECT_EQ(length, -1);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(block.DamagedLengths(), 1u) << damage.name;
    EXPECT_EQ(log.lines(), std::vector<std::string>{damage.line});
    EXPECT_EQ(read(block), "eof") << "nothing behind the damage is taken for a record";
  }
}

TEST_F(InMemory, ReportsALengthThatWasCutInTheMiddle) {
  Block block;
  load(block, std::string("\2\0ab\5", 5));
  LogCapture log(9);
  EXPECT_EQ(read(block), "ab");
  EXPECT_EQ(read(block), "eof");
  EXPECT_EQ(read(block), "eof");
  EXPECT_EQ(block.DamagedLengths(), 1u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(InMemory, DeliversNothingButWholeRecordsHoweverItIsCut) {
  const std::string image = stored("first") + stored("second") + stored("third");
  const size_t ends[] = {7, 15, 22};
  LogCapture log(0);
  for (size_t cut = 0; cut <= image.size(); ++cut) {
    Block block;
    load(block, image.substr(0, cut));
    std::vector<std::string> records;
    for (std::string record = read(block); record != "eof"; record = read(block))
      if (record != "end") records.push_back(record);
    const auto whole =
        std::count_if(std::begin(ends), std::end(ends), [&](size_t end) { return end <= cut; });
    EXPECT_EQ(static_cast<long>(records.size()), whole) << cut;
    const bool between = cut == 0 || cut == 7 || cut == 15 || cut == 22;
    EXPECT_EQ(block.DamagedLengths(), between ? 0u : 1u) << cut;
  }
}

TEST_F(InMemory, IsEmptyAfterItIsInitialisedAgainButStaysAsBlockingAsItWas) {
  Block block(8);
  add(block, "1234");
  add(block, "1234567");
  block.SetNonBlocking();
  block.ReInitialize();
  EXPECT_EQ(block.writePointer(), 0);
  EXPECT_FALSE(block.full());
  EXPECT_FALSE(block.Blocking_m);
  EXPECT_EQ(block.Buffer_m[0], 0);
  block.SetBlocking();
  EXPECT_TRUE(block.Blocking_m);
}

}  // namespace
