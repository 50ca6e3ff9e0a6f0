// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How a block goes to a file and back, with writes that take only a part or fail.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/in_memory_fixture.h"
#include "tests/support/log_capture.h"

using kddc::test::add;
using kddc::test::exceptionOf;
using kddc::test::InMemory;
using kddc::test::LogCapture;
using kddc::test::read;

namespace {

constexpr int kScripted = -7;

// Where writes to the descriptor kScripted go while it lives: takes at most so many bytes a call.
class ScriptedFile {
 public:
  explicit ScriptedFile(size_t mostAtOnce) : most(mostAtOnce) { open_ = this; }
  ~ScriptedFile() { open_ = nullptr; }
  ScriptedFile(const ScriptedFile&) = delete;
  ScriptedFile& operator=(const ScriptedFile&) = delete;

  static ScriptedFile* behind(int fd) { return fd == kScripted ? open_ : nullptr; }
  ssize_t write(const void* data, size_t size) {
    if (++writes <= failures) {
      errno = ENOSPC;
      return -1;
    }
    const size_t count = std::min(most, size);
    written.append(static_cast<const char*>(data), count);
    return static_cast<ssize_t>(count);
  }

  size_t most;
  int failures = 0;  // so many writes fail first
  int writes = 0;
  std::string written;

 private:
  static inline ScriptedFile* open_ = nullptr;
};

}  // namespace

// Takes the place of the C library's write in this program.
extern "C" ssize_t scriptableWrite(int fd, const void* data, size_t size) asm("write");
extern "C" ssize_t scriptableWrite(int fd, const void* data, size_t size) {
  if (ScriptedFile* file = ScriptedFile::behind(fd)) return file->write(data, size);
  return ::syscall(SYS_write, fd, data, size);
}

namespace {

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
  ScriptedFile file(1000);
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
    ScriptedFile file(100);
    EXPECT_EQ(block.Flush(kScripted), 9);
    EXPECT_EQ(file.written, stored("abc") + stored("de"));
    EXPECT_EQ(block.writePointer(), 0);
    EXPECT_EQ(block.readPointer(), 0);
    EXPECT_FALSE(block.full());
    EXPECT_EQ(block.Buffer_m[0], 0);
  }
}

TEST_F(InMemory, FlushesNothingWithOneWrite) {
  Block block;
  ScriptedFile file(100);
  EXPECT_EQ(block.Flush(kScripted), 0);
  EXPECT_EQ(file.writes, 1);
}

TEST_F(InMemory, AnswersTheResultOfTheLastWriteOfAFlush) {
  Block block;
  add(block, "12345678");
  ScriptedFile file(4);
  EXPECT_EQ(block.Flush(kScripted), 2);
  EXPECT_EQ(file.writes, 3);
  EXPECT_EQ(file.written, stored("12345678"));
}

TEST_F(InMemory, GivesUpAFlushAfterTenPartialWritesAndKeepsItsContents) {
  Block block;
  add(block, "123456789");  // 11 bytes: ten writes of one byte leave one
  ScriptedFile file(1);
  LogCapture log(0);
  errno = 0;
  EXPECT_EQ(exceptionOf([&] { block.Flush(kScripted); }),
            "0 0 Failed to Flush data after Max Trials");
  EXPECT_EQ(file.writes, 10);
  EXPECT_TRUE(log.mentions("error 0 InMemoryBuffer :: Flush: eRRoR -- "));
  EXPECT_EQ(block.writePointer(), 11);
  file.most = 100;
  file.written.clear();
  EXPECT_EQ(block.Flush(kScripted), 11);
  EXPECT_EQ(file.written, stored("123456789"));
}

TEST_F(InMemory, FlushesWithAsManyPartialWritesAsAreTolerated) {
  Block block;
  add(block, "12345678");  // 10 bytes
  ScriptedFile file(1);
  EXPECT_EQ(block.Flush(kScripted), 1);
  EXPECT_EQ(file.writes, 10);
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
  ScriptedFile file(3);
  block.FlushRemainingData(kScripted);
  EXPECT_EQ(file.written, stored("de"));
  EXPECT_EQ(block.readPointer(), 5);
  EXPECT_EQ(block.writePointer(), 9);
  EXPECT_EQ(read(block), "de");
  file.writes = 0;
  block.FlushRemainingData(kScripted);
  EXPECT_EQ(file.writes, 0);
}

TEST_F(InMemory, GivesUpWritingTheRestAfterTenPartialWrites) {
  Block block;
  add(block, "123456789");
  ScriptedFile file(1);
  LogCapture log(0);
  errno = 0;
  EXPECT_EQ(exceptionOf([&] { block.FlushRemainingData(kScripted); }),
            "0 0 Failed to Flush data after Max Trials");
  EXPECT_EQ(file.writes, 10);
  EXPECT_TRUE(log.mentions("error 0 InMemoryBuffer :: FlushRemainingData: eRRoR -- "));
}

TEST_F(InMemory, WritesTheRestAgainForAsLongAsTheWriteFails) {
  Block block;
  add(block, "123");
  LogCapture log(0);
  ScriptedFile file(1000);
  file.failures = 1000;
  block.FlushRemainingData(kScripted);
  EXPECT_EQ(file.writes, 1001);
  EXPECT_EQ(log.lines().size(), 1000u);
  EXPECT_TRUE(
      log.has("error 0 InMemoryBuffer :: FlushRemainingData: WritePointer_m:5, Ret:-1, errno:28"));
}

}  // namespace
