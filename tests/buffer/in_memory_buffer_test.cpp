// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One block: what fits, what reads answer, and how it goes to a file and back.
#include "buffer/in_memory_buffer.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <limits>
#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/queue_folders.h"

using kddc::test::add;
using kddc::test::exceptionOf;
using kddc::test::LogCapture;
using kddc::test::read;

namespace {

// Stands in for write(2) while it is set; the descriptor -7 marks the calls that are meant for it.
std::function<ssize_t(const void*, size_t)> scriptedWrite;
constexpr int kScripted = -7;

}  // namespace

// Takes the place of the C library's write in this program.
extern "C" ssize_t scriptableWrite(int fd, const void* data, size_t size) asm("write");
extern "C" ssize_t scriptableWrite(int fd, const void* data, size_t size) {
  if (fd == kScripted && scriptedWrite) return scriptedWrite(data, size);
  return ::syscall(SYS_write, fd, data, size);
}

namespace {

// Looks at the fields; one thread, no locks.
class Block : public InMemoryBuffer {
 public:
  explicit Block(int size = 64) : InMemoryBuffer(size) {}
  using InMemoryBuffer::Blocking_m;
  using InMemoryBuffer::Buffer_m;
  using InMemoryBuffer::BufferSize_m;
  using InMemoryBuffer::MaxTrials_m;
  using InMemoryBuffer::Mode_m;
  int readPointer() const NO_THREAD_SAFETY_ANALYSIS { return ReadPointer_m; }
  int writePointer() const NO_THREAD_SAFETY_ANALYSIS { return WritePointer_m; }
  bool full() const NO_THREAD_SAFETY_ANALYSIS { return Full_m; }
  void setFull() NO_THREAD_SAFETY_ANALYSIS { Full_m = true; }
};

class InMemory : public kddc::test::QueueFolders {
 protected:
  void TearDown() override {
    scriptedWrite = nullptr;
    QueueFolders::TearDown();
  }
  // Writes at most `most` bytes a call, and keeps them.
  void writeAtMost(size_t most) {
    scriptedWrite = [this, most](const void* data, size_t size) {
      ++writes;
      const size_t count = std::min(most, size);
      written.append(static_cast<const char*>(data), count);
      return static_cast<ssize_t>(count);
    };
  }
  // A block in single-threaded mode that was loaded from a file of these bytes.
  void load(Block& block, std::string_view bytes) {
    put(folder / "image", bytes);
    const int fd = ::open((folder / "image").c_str(), O_RDONLY);
    block.SetMode(0);
    EXPECT_EQ(block.Load(fd, 1000), static_cast<int>(bytes.size()));
    ::close(fd);
  }

  int writes = 0;
  std::string written;
};

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

struct Damage {
  const char* name;
  std::string bytes;
  const char* line;
};

// One good record, and then what a cut or damaged file may hold.
const Damage kDamages[] = {
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
  for (const Damage& damage : kDamages) {
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

TEST_F(InMemory, LoadsWhatOneReadBringsAndForgetsWhatItHeld) {
  Block block;
  add(block, "a record of before that was longer");
  bool eof = false;
  unsigned char* data = nullptr;
  block.ReadData(&eof, &data, 7);
  load(block, stored("new"));
  EXPECT_EQ(block.writePointer(), 5);
  EXPECT_EQ(block.readPointer(), 0);
  EXPECT_EQ(block.Buffer_m[5], 0);
  EXPECT_EQ(read(block), "new");
}

// The reader need not ask again for what it has seen written, unless it is gone.
TEST_F(InMemory, HandsOutNothingThatWasThereBeforeItWasEmptied) {
  const std::function<void(Block&)> ways[] = {[](Block& block) { block.ReInitialize(); },
                                              [](Block& block) { block.Flush(kScripted); },
                                              [this](Block& block) { load(block, ""); }};
  writeAtMost(1000);
  for (const auto& empty : ways) {
    Block block;
    block.SetMode(0);
    add(block, "abc");
    add(block, "def");
    EXPECT_EQ(read(block), "abc");
    empty(block);
    EXPECT_EQ(read(block), "eof");
  }
}

TEST_F(InMemory, IsNotFullAfterALoad) {
  Block block(8);
  add(block, "1234567");
  put(folder / "image", "");
  const int fd = ::open((folder / "image").c_str(), O_RDONLY);
  EXPECT_EQ(block.Load(fd, 8), 0);
  ::close(fd);
  EXPECT_FALSE(block.full());
}

TEST_F(InMemory, NeverLoadsMoreThanItHoldsNorANegativeNumberOfBytes) {
  put(folder / "image", std::string(100, 'x'));
  const int fd = ::open((folder / "image").c_str(), O_RDONLY);
  Block block(10);
  EXPECT_EQ(block.Load(fd, 100), 10);
  EXPECT_EQ(block.Load(fd, -1), 0);
  EXPECT_EQ(block.Load(fd, 3), 3);
  ::close(fd);
}

TEST_F(InMemory, ReportsALoadThatFails) {
  Block block;
  add(block, "abc");
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { block.Load(-1, 10); }), "0 9 Failed to Load data");
  EXPECT_EQ(block.Buffer_m[0], 0);
  EXPECT_TRUE(
      log.has("error 0 InMemoryBuffer :: Load: eRRoR -- Function[InMemoryBuffer :: Load] "
              "Type[0] Error[9] Failed to Load data"));
}

TEST_F(InMemory, FlushesFromTheFirstByteAndIsEmptyThen) {
  for (const int mode : {0, 1, 2}) {
    Block block(10);
    block.SetMode(0);
    add(block, "abc");
    add(block, "de");
    EXPECT_EQ(read(block), "abc");
    block.SetMode(mode);
    block.setFull();
    writeAtMost(100);
    EXPECT_EQ(block.Flush(kScripted), 9);
    EXPECT_EQ(written, stored("abc") + stored("de"));
    EXPECT_EQ(block.writePointer(), 0);
    EXPECT_EQ(block.readPointer(), 0);
    EXPECT_FALSE(block.full());
    EXPECT_EQ(block.Buffer_m[0], 0);
    written.clear();
  }
}

TEST_F(InMemory, FlushesNothingWithOneWrite) {
  Block block;
  writeAtMost(100);
  EXPECT_EQ(block.Flush(kScripted), 0);
  EXPECT_EQ(writes, 1);
}

TEST_F(InMemory, AnswersTheResultOfTheLastWriteOfAFlush) {
  Block block;
  add(block, "12345678");
  writeAtMost(4);
  EXPECT_EQ(block.Flush(kScripted), 2);
  EXPECT_EQ(writes, 3);
  EXPECT_EQ(written, stored("12345678"));
}

TEST_F(InMemory, GivesUpAFlushAfterTenPartialWritesAndKeepsItsContents) {
  Block block;
  add(block, "123456789");  // 11 bytes: ten writes of one byte leave one
  writeAtMost(1);
  LogCapture log(0);
  errno = 0;
  EXPECT_EQ(exceptionOf([&] { block.Flush(kScripted); }),
            "0 0 Failed to Flush data after Max Trials");
  EXPECT_EQ(writes, 10);
  EXPECT_TRUE(log.mentions("error 0 InMemoryBuffer :: Flush: eRRoR -- "));
  EXPECT_EQ(block.writePointer(), 11);
  writeAtMost(100);
  written.clear();
  EXPECT_EQ(block.Flush(kScripted), 11);
  EXPECT_EQ(written, stored("123456789"));
}

TEST_F(InMemory, FlushesWithAsManyPartialWritesAsAreTolerated) {
  Block block;
  add(block, "12345678");  // 10 bytes
  writeAtMost(1);
  EXPECT_EQ(block.Flush(kScripted), 1);
  EXPECT_EQ(writes, 10);
}

TEST_F(InMemory, ReportsAFlushThatFailsAndKeepsItsContents) {
  Block block;
  add(block, "abc");
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { block.Flush(-1); }), "0 9 Failed to Flush data");
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                "error 0 InMemoryBuffer :: Flush: WritePointer_m:5, Ret:-1, errno:9",
                "error 0 InMemoryBuffer :: Flush: eRRoR -- Function[InMemoryBuffer :: Flush] "
                "Type[0] Error[9] Failed to Flush data"}));
  EXPECT_EQ(read(block), "abc") << "and its monitor is free";
}

TEST_F(InMemory, FlushesWhatIsUnreadAndChangesNothing) {
  Block block;
  add(block, "abc");
  add(block, "de");
  EXPECT_EQ(read(block), "abc");
  EXPECT_EQ(block.Unread(), 4);
  writeAtMost(3);
  block.FlushRemainingData(kScripted);
  EXPECT_EQ(written, stored("de"));
  EXPECT_EQ(block.readPointer(), 5);
  EXPECT_EQ(block.writePointer(), 9);
  EXPECT_EQ(read(block), "de");
  writes = 0;
  block.FlushRemainingData(kScripted);
  EXPECT_EQ(writes, 0);
}

TEST_F(InMemory, GivesUpWritingTheRestAfterTenPartialWrites) {
  Block block;
  add(block, "123456789");
  writeAtMost(1);
  LogCapture log(0);
  errno = 0;
  EXPECT_EQ(exceptionOf([&] { block.FlushRemainingData(kScripted); }),
            "0 0 Failed to Flush data after Max Trials");
  EXPECT_EQ(writes, 10);
  EXPECT_TRUE(log.mentions("error 0 InMemoryBuffer :: FlushRemainingData: eRRoR -- "));
}

TEST_F(InMemory, WritesTheRestAgainForAsLongAsTheWriteFails) {
  Block block;
  add(block, "123");
  LogCapture log(0);
  scriptedWrite = [&](const void*, size_t size) -> ssize_t {
    if (++writes > 1000) return static_cast<ssize_t>(size);
    errno = ENOSPC;
    return -1;
  };
  block.FlushRemainingData(kScripted);
  EXPECT_EQ(writes, 1001);
  EXPECT_EQ(log.lines().size(), 1000u);
  EXPECT_TRUE(
      log.has("error 0 InMemoryBuffer :: FlushRemainingData: WritePointer_m:5, Ret:-1, errno:28"));
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
