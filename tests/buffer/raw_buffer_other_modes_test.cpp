// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The second and the third mode: every record goes through swap files, and the phases of each.
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/big_records.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_fixture.h"

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

TEST_F(Raw, TakesEveryRecordThroughSwapFilesInTheSecondMode) {
  std::filesystem::create_directory(buffer);
  {
    Queue queue(UDC_RAW_MODE2);
    EXPECT_NE(queue.writeBlock(), queue.readBlock());
    EXPECT_THAT(queue.AllBuffers_m, IsEmpty());
    const std::string file = in("2049_mode2/swap.0");
    LogCapture log(2);
    fill(queue, 0, kInBlock);
    EXPECT_EQ(readOnce(queue), std::nullopt);
    fill(queue, kInBlock, 1);
    EXPECT_EQ(numbers(queue, kInBlock), upTo(0, kInBlock));
    EXPECT_TRUE(std::filesystem::exists(file)) << "until the next load";
    EXPECT_EQ(readOnce(queue), std::nullopt);
    EXPECT_FALSE(std::filesystem::exists(file));
    EXPECT_THAT(log.lines(),
                ElementsAre("debug 2 DCRawBuffer :: SwapOrFlushBuffer: MODE2/MODE3 Swapped to [" +
                                file + "]. FileCounter[0] Offset[2097152]",
                            "debug 2 DCRawBuffer :: SwapOrLoadBuffer: MODE2/MODE3 Loaded [" + file +
                                "]. FileCounter[0] Offset[2097152]"));
    queue.SetContextDbThreadRead();
    EXPECT_EQ(numbers(queue, 1), upTo(kInBlock, 1)) << "a load brings a record in the same call";
  }
  EXPECT_THAT(listing(buffer), IsEmpty()) << "the folder goes with the queue";
}

TEST_F(Raw, SwitchesPhasesInTheThirdMode) {
  std::filesystem::create_directory(buffer);
  Queue queue(UDC_RAW_MODE3);
  EXPECT_EQ(queue.writeBlock(), queue.readBlock());
  queue.SetContextDbThreadWrite();
  fill(queue, 0, kInBlock + 2);
  EXPECT_EQ(readOnce(queue), std::nullopt) << "a write-only block";
  queue.SetContextDbThreadRead();
  EXPECT_THAT(listing(in("2049")), ElementsAre("swap.0", "swap.1"));
  queue.SetContextDcIfind();
  queue.ReadUntil(1, 65536);
  EXPECT_EQ(numbers(queue, kInBlock + 2), upTo(0, kInBlock + 2));
  EXPECT_EQ(readOnce(queue), std::nullopt);
  EXPECT_FALSE(queue.SwapOrLoadBuffer());
  EXPECT_THAT(listing(in("2049")), IsEmpty());
}

TEST_F(Raw, ReadsTheLastFileOnlyUpToTheRecordedByteInTheThirdMode) {
  std::filesystem::create_directory(buffer);
  Queue queue(UDC_RAW_MODE3);
  fill(queue, 0, 3);
  queue.SetContextDbThreadRead();
  fill(queue, 3, 3);
  queue.SetContextDbThreadRead();
  fill(queue, 6, 1);
  queue.SetContextDbThreadRead();
  queue.SetContextDcIfind();
  queue.ReadUntil(1, 2 * 32768);
  EXPECT_EQ(numbers(queue, 6), upTo(0, 5));
  EXPECT_FALSE(queue.SwapOrLoadBuffer());
  EXPECT_EQ(queue.DamagedBlocks(), 0u) << "the rest of the file was not wanted";
  EXPECT_THAT(listing(in("2049")), ElementsAre("swap.2"));
}

TEST_F(Raw, NeverReadsOutsideTheBlockWhateverByteWasRecorded) {
  std::filesystem::create_directory(buffer);
  for (const int offset : {-1, 2147483647}) {
    Queue queue(UDC_RAW_MODE3);
    fill(queue, 0, 2);
    queue.SetContextDbThreadRead();
    queue.SetContextDcIfind();
    queue.ReadUntil(0, offset);
    EXPECT_EQ(numbers(queue, 2), offset < 0 ? std::vector<int>{} : upTo(0, 2));
  }
}

TEST_F(Raw, SaysWhichSwapFileIsMissingInTheThirdMode) {
  std::filesystem::create_directory(buffer);
  Queue queue(UDC_RAW_MODE3);
  queue.SetContextDcIfind();
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { readOnce(queue); }), "0 2 swap file open failed");
  EXPECT_TRUE(
      log.has("error 0 DCRawBuffer :: SwapOrLoadBuffer: could not open " + in("2049/swap.0")));
}

TEST_F(Raw, RemovesTheFolderInTheThirdModeOnlyAfterTheReadingPhase) {
  std::filesystem::create_directory(buffer);
  { const Queue queue(UDC_RAW_MODE3); }
  EXPECT_THAT(listing(buffer), ElementsAre("2049"));
  { Queue(UDC_RAW_MODE3).SetContextDcIfind(); }
  EXPECT_THAT(listing(buffer), IsEmpty());
}

TEST_F(Raw, SwallowsAFailureOfTheHandOverAndOfItsDestructor) {
  std::filesystem::create_directory(buffer);
  LogCapture log(0);
  {
    Queue queue(UDC_RAW_MODE2);
    std::filesystem::remove(in("2049_mode2"));
    queue.SetContextDbThreadRead();
    EXPECT_TRUE(
        log.has("error 0 DCRawBuffer :: SetContextDbThreadRead: eRRoR -- "
                "Function[DCRawBuffer :: SwapOrFlushBuffer] Type[0] Error[2] swap file open "
                "failed"));
  }
  EXPECT_TRUE(
      log.has("error 0 DCRawBuffer :: ~DCRawBuffer: eRRoR -- Function[DCRawBuffer :: "
              "RemoveSwapDir] Type[0] Error[2] Unable to Open the Dir"));
}

TEST_F(Raw, CountsADamagedSwapFileInTheOtherModesToo) {
  std::filesystem::create_directory(buffer);
  Queue queue(UDC_RAW_MODE2);
  fill(queue, 0, kInBlock + 1);
  std::ofstream(in("2049_mode2/swap.0"), std::ios::binary | std::ios::app) << "more";
  EXPECT_EQ(numbers(queue, kInBlock), upTo(0, kInBlock));
  EXPECT_EQ(queue.DamagedBlocks(), 1u);
}

}  // namespace
