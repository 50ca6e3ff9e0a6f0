// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The first mode: records through blocks in memory, and through swap files when none is free.
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/big_records.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_fixture.h"

using kddc::test::add;
using kddc::test::big;
using kddc::test::exceptionOf;
using kddc::test::fill;
using kddc::test::kInBlock;
using kddc::test::LogCapture;
using kddc::test::numbers;
using kddc::test::Raw;
using kddc::test::readOnce;
using kddc::test::upTo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST_F(Raw, DeliversRecordsInTheOrderTheyCame) {
  Queue queue;
  for (const char* record : {"one", "two", "three"}) EXPECT_EQ(add(queue, record), 0);
  EXPECT_EQ(readOnce(queue), "one");
  EXPECT_EQ(readOnce(queue), "two");
  EXPECT_EQ(readOnce(queue), "three");
}

TEST_F(Raw, RefusesARecordThatNoBlockHolds) {
  Queue queue;
  std::vector<unsigned char> bytes(2097152);
  LogCapture log(1);
  EXPECT_EQ(exceptionOf([&] { queue.AddEntry(bytes.data(), 2097151); }),
            "1 0 Improper usage. InMemoryBufferSize_m is smaller than Data size");
  EXPECT_THAT(
      log.lines(),
      ElementsAre(
          "error 0 DCRawBuffer :: AddEntry: eRRoR -- InMemoryBufferSize_m[2097152] is "
          "smaller than Data size[2097151] ",
          "debug 1 DCRawBuffer :: AddEntry: eRRoR -- Function[DCRawBuffer :: AddEntry] "
          "Type[1] Error[0] Improper usage. InMemoryBufferSize_m is smaller than Data size"));
}

TEST_F(Raw, RefusesALengthThatSixteenBitsDoNotHoldAndLeavesTheQueueAsItWas) {
  Queue queue;
  add(queue, "before");
  std::vector<unsigned char> bytes(2097150, 'x');
  const InMemoryBuffer* block = queue.writeBlock();
  LogCapture log(1);
  for (const int length : {32768, 65536, 65536 + 5, 2097150, -1, -65531}) {
    EXPECT_EQ(exceptionOf([&] { queue.AddEntry(bytes.data(), length); }),
              "1 0 Write failed even after the Buffers are flushed!")
        << length;
  }
  EXPECT_EQ(log.lines().size(), 6u) << "at debug level, once each";
  EXPECT_EQ(log.lines().front(),
            "debug 1 DCRawBuffer :: AddEntry: eRRoR -- Function[DCRawBuffer :: AddEntry] Type[1] "
            "Error[0] Write failed even after the Buffers are flushed!");
  EXPECT_EQ(queue.writeBlock(), block);
  EXPECT_EQ(queue.counter(), 0u);
  EXPECT_EQ(queue.AddEntry(bytes.data(), 32767), 0);
  EXPECT_EQ(readOnce(queue), "before");
  EXPECT_EQ(readOnce(queue), std::string(32767, 'x'));
  EXPECT_THAT(listing(buffer), IsEmpty());
}

TEST_F(Raw, DoesNotQueueABlockThatTheConsumerIsReading) {
  Queue queue;
  fill(queue, 0, kInBlock);
  EXPECT_EQ(queue.counter(), 0u);
  const InMemoryBuffer* first = queue.writeBlock();
  fill(queue, kInBlock, 1);
  EXPECT_NE(queue.writeBlock(), first);
  EXPECT_EQ(queue.readBlock(), first);
  EXPECT_THAT(queue.queued(), IsEmpty());
  EXPECT_EQ(queue.counter(), 1u) << "counted all the same";
  EXPECT_EQ(numbers(queue, kInBlock), upTo(0, kInBlock));
  EXPECT_EQ(readOnce(queue), std::nullopt) << "the switch itself brings no record";
  EXPECT_EQ(queue.readBlock(), queue.writeBlock());
  EXPECT_EQ(numbers(queue, 1), upTo(kInBlock, 1));
  EXPECT_THAT(queue.freeBlocks(), ElementsAre(first));
}

TEST_F(Raw, QueuesFullBlocksWhileThereAreFreeOnes) {
  configure("nRawBufferMaxVMSize = 4");
  Queue queue;
  fill(queue, 0, 3 * kInBlock + 1);
  EXPECT_THAT(queue.queued(), ElementsAre("block 2:1", "block 3:2"));
  EXPECT_THAT(listing(buffer), IsEmpty());
  EXPECT_EQ(numbers(queue, 3 * kInBlock + 1), upTo(0, 3 * kInBlock + 1));
  EXPECT_THAT(queue.queued(), IsEmpty());
}

TEST_F(Raw, LogsTheBlocksBeforeAndAfterASwitch) {
  Queue queue;
  fill(queue, 0, kInBlock);
  LogCapture log(5);
  fill(queue, 0, 1);
  const std::string flush = "debug 5 DCRawBuffer :: SwapOrFlushBuffer: ^^^^^^^^^^";
  EXPECT_THAT(log.lines(), ElementsAre(flush + "Start--WriteBuf:1", flush + "Start--ReadBuf:1",
                                       flush + "End--WriteBuf:2", flush + "End--ReadBuf:1"));
  numbers(queue, kInBlock);
  LogCapture second(5);
  readOnce(queue);
  const std::string load = "debug 5 DCRawBuffer :: SwapOrLoadBuffer: ^^^^^^^^^^";
  EXPECT_THAT(second.lines(), ElementsAre(load + "Start--WriteBuf:2", load + "Start--ReadBuf:1",
                                          load + "End--WriteBuf:2", load + "End--ReadBuf:2"));
}

TEST_F(Raw, DumpsABlockWhenNoneIsFreeAndReadsItBackInOrder) {
  Queue queue;
  fill(queue, 0, 2 * kInBlock);
  LogCapture log(4);
  fill(queue, 2 * kInBlock, 2 * kInBlock);
  EXPECT_THAT(queue.queued(), ElementsAre("swap:1", "swap:2"));
  EXPECT_THAT(listing(buffer), ElementsAre("swap.1", "swap.2"));
  EXPECT_THAT(
      log.lines(),
      ElementsAre("debug 4 DCRawBuffer :: SwapOrFlushBuffer: Dumping to swap [" + in("swap.1]"),
                  "debug 4 DCRawBuffer :: SwapOrFlushBuffer: Dumping to swap [" + in("swap.2]")));
  EXPECT_EQ(modeOf(in("swap.1")), 0600);
  std::string image;
  for (int i = kInBlock; i < 2 * kInBlock; ++i) image += stored(big(i));
  EXPECT_TRUE(contents(in("swap.1")) == image);

  LogCapture reading(4);
  EXPECT_EQ(numbers(queue, 4 * kInBlock), upTo(0, 4 * kInBlock));
  EXPECT_THAT(
      reading.lines(),
      ElementsAre("debug 4 DCRawBuffer :: SwapOrLoadBuffer: Loading swap file[" + in("swap.1]"),
                  "debug 4 DCRawBuffer :: SwapOrLoadBuffer: Loading swap file[" + in("swap.2]")));
  EXPECT_THAT(listing(buffer), IsEmpty());
  EXPECT_EQ(queue.DamagedBlocks(), 0u);
}

TEST_F(Raw, ReportsTheSwapFileItWroteAndNothingElse) {
  Queue queue;
  unsigned long long number = 77;
  int bytes = 77;
  fill(queue, 0, 1);
  queue.SwapOrFlushBuffer(&number, &bytes);
  EXPECT_EQ(number, 77u);
  EXPECT_EQ(bytes, 77);
  fill(queue, 1, 1);
  queue.SwapOrFlushBuffer(&number, &bytes);
  EXPECT_EQ(number, 1u);
  EXPECT_EQ(bytes, 32768);
}

TEST_F(Raw, KeepsTheRecordsWhenASwapFileCannotBeMade) {
  Queue queue;
  fill(queue, 0, 2 * kInBlock);
  std::filesystem::create_directory(in("swap.1"));
  LogCapture log(0);
  EXPECT_THAT(exceptionOf([&] { add(queue, big(128)); }),
              ::testing::AnyOf("0 21 swap file open failed", "0 22 swap file open failed"));
  EXPECT_THAT(log.lines().front(),
              ::testing::StartsWith("error 0 DCRawBuffer :: SwapOrFlushBuffer: eRRoR -- failed to "
                                    "open files[" +
                                    in("swap.1].errno[2")));
  EXPECT_THAT(queue.queued(), IsEmpty());
  std::filesystem::remove(in("swap.1"));
  fill(queue, 128, 1);
  EXPECT_EQ(numbers(queue, 129), upTo(0, 129));
}

TEST_F(Raw, KeepsTheRecordsWhenASwapFileCannotBeOpened) {
  Queue queue;
  fill(queue, 0, 2 * kInBlock + 1);
  std::filesystem::rename(in("swap.1"), folder / "aside");
  EXPECT_EQ(numbers(queue, kInBlock), upTo(0, kInBlock));
  LogCapture log(1);
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(exceptionOf([&] { readOnce(queue); }), "0 2 swap file open failed");
  EXPECT_TRUE(log.has("error 0 DCRawBuffer :: SwapOrLoadBuffer: could not open " + in("swap.1")));
  EXPECT_TRUE(
      log.has("debug 1 DCRawBuffer :: ReadEntry: eRRoR -- Function[DCRawBuffer :: "
              "SwapOrLoadBuffer <- DCRawBuffer :: ReadEntry] Type[0] Error[2] swap file open "
              "failed"));
  EXPECT_THAT(queue.queued(), ElementsAre("swap:1"));
  std::filesystem::rename(folder / "aside", in("swap.1"));
  EXPECT_EQ(numbers(queue, kInBlock + 1), upTo(kInBlock, kInBlock + 1));
}

TEST_F(Raw, FollowsNoSymbolicLinkToOrFromASwapFile) {
  Queue queue;
  fill(queue, 0, 2 * kInBlock);
  put(folder / "precious", "untouched");
  std::filesystem::create_symlink(folder / "precious", in("swap.1"));
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { add(queue, big(128)); }), "0 40 swap file open failed");
  EXPECT_EQ(contents(folder / "precious"), "untouched");
  std::filesystem::remove(in("swap.1"));
  fill(queue, 128, 1);

  std::filesystem::rename(in("swap.1"), folder / "image");
  std::filesystem::create_symlink(folder / "image", in("swap.1"));
  numbers(queue, kInBlock);
  EXPECT_EQ(exceptionOf([&] { readOnce(queue); }), "0 40 swap file open failed");
}

TEST_F(Raw, DoesNotStopAtAPipeInTheSwapFilesPlace) {
  Queue queue;
  fill(queue, 0, 2 * kInBlock + 1);
  std::filesystem::remove(in("swap.1"));
  ASSERT_EQ(::mkfifo(in("swap.1").c_str(), 0600), 0);
  numbers(queue, kInBlock);
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { readOnce(queue); }), "0 22 swap file open failed");
}

TEST_F(Raw, DeliversWhatACutSwapFileStillHoldsAndCountsTheDamage) {
  Queue queue;
  fill(queue, 0, 2 * kInBlock + 1);
  std::filesystem::resize_file(in("swap.1"), 3 * 32768 + 100);
  LogCapture log(0);
  std::vector<int> expected = upTo(0, kInBlock + 3);
  expected.push_back(2 * kInBlock);
  EXPECT_EQ(numbers(queue, kInBlock + 4), expected);
  EXPECT_EQ(queue.DamagedBlocks(), 1u);
  EXPECT_THAT(
      log.lines(),
      ElementsAre("error 0 InMemoryBuffer :: Read: Block 3 is damaged before byte 98306 of "
                  "98404: a record of 32766 bytes does not fit, what is behind it is lost"));
}

TEST_F(Raw, LoadsNoMoreThanABlockOfASwapFileThatGrewAndCountsTheDamage) {
  Queue queue;
  fill(queue, 0, 2 * kInBlock + 1);
  std::ofstream(in("swap.1"), std::ios::binary | std::ios::app) << "more";
  LogCapture log(0);
  EXPECT_EQ(numbers(queue, 2 * kInBlock + 1), upTo(0, 2 * kInBlock + 1));
  EXPECT_EQ(queue.DamagedBlocks(), 1u);
  EXPECT_THAT(log.lines(), ElementsAre("error 0 DCRawBuffer :: SwapOrLoadBuffer: Swap file [" +
                                       in("swap.1] is damaged: 4 bytes of 2097156 are lost")));
}

TEST_F(Raw, LeavesNoHalfASwapFileWhenADiskFillsUp) {
  Queue queue;
  fill(queue, 0, 2 * kInBlock);
  const auto before = std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit less{1024 * 1024, limit.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &less), 0);
  const std::string failure = exceptionOf([&] { add(queue, big(2 * kInBlock)); });
  ::setrlimit(RLIMIT_FSIZE, &limit);
  std::signal(SIGXFSZ, before);
  EXPECT_EQ(failure, "0 27 Failed to Flush data");  // EFBIG
  EXPECT_THAT(listing(buffer), IsEmpty());
  fill(queue, 2 * kInBlock, 1);
  EXPECT_EQ(numbers(queue, 2 * kInBlock + 1), upTo(0, 2 * kInBlock + 1));
}

}  // namespace
