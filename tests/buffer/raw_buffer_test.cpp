// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The queue in its three modes, on one thread: blocks, swap files, folders, messages.
#include "buffer/raw_buffer.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "tests/support/big_records.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_folders.h"

using kddc::test::add;
using kddc::test::big;
using kddc::test::exceptionOf;
using kddc::test::fill;
using kddc::test::kInBlock;
using kddc::test::LogCapture;
using kddc::test::numbers;
using kddc::test::readOnce;
using kddc::test::upTo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// Looks at the fields; one thread, no locks.
class Queue : public DCRawBuffer {
 public:
  explicit Queue(UDCRawBufferMode mode = UDC_RAW_MODE1, bool create = true)
      : DCRawBuffer(2049, mode, create) {}
  using DCRawBuffer::AllBuffers_m;
  using DCRawBuffer::InMemoryBufferSize_m;
  using DCRawBuffer::LoadBuffer_m;
  using DCRawBuffer::NumBuffers_m;
  using DCRawBuffer::SwapDir_m;
  using DCRawBuffer::SwapFilePermissions_m;
  const InMemoryBuffer* readBlock() const NO_THREAD_SAFETY_ANALYSIS { return ReadBuffer_m; }
  const InMemoryBuffer* writeBlock() const NO_THREAD_SAFETY_ANALYSIS { return WriteBuffer_m; }
  const auto& freeBlocks() const NO_THREAD_SAFETY_ANALYSIS { return FreeBuffers_m; }
  unsigned long long counter() const NO_THREAD_SAFETY_ANALYSIS { return WriteFileCounter_m; }

  // Each queued block as "<block or swap>:<number>".
  std::vector<std::string> queued() const NO_THREAD_SAFETY_ANALYSIS {
    std::vector<std::string> entries;
    for (const Buf_File_s& entry : SwapQueue_m)
      entries.push_back(
          (entry.buffer ? "block " + std::to_string(entry.buffer->BufferId_m) : "swap") + ":" +
          std::to_string(entry.fileNumber));
    return entries;
  }
};

class Raw : public kddc::test::QueueFolders {
 protected:
  std::string in(const std::string& name) const { return buffer + "/" + name; }
};

TEST_F(Raw, HasTwoBlocksOrAsManyMoreAsConfiguredAndOneToLoadInto) {
  for (const auto& [value, blocks] : std::map<std::string, int>{{"", 2},
                                                                {"nRawBufferMaxVMSize = 1", 2},
                                                                {"nRawBufferMaxVMSize = 2", 2},
                                                                {"nRawBufferMaxVMSize = -9", 2},
                                                                {"nRawBufferMaxVMSize = 5", 5}}) {
    configure(value);
    const Queue queue;
    EXPECT_EQ(queue.NumBuffers_m, blocks) << value;
    EXPECT_EQ(static_cast<int>(queue.AllBuffers_m.size()), blocks + 1) << value;
    EXPECT_EQ(static_cast<int>(queue.freeBlocks().size()), blocks - 1) << value;
    unsigned long long number = 0;
    for (const InMemoryBuffer* block : queue.AllBuffers_m) EXPECT_EQ(block->BufferId_m, ++number);
    EXPECT_EQ(queue.LoadBuffer_m, queue.AllBuffers_m.back());
    EXPECT_EQ(queue.writeBlock(), queue.AllBuffers_m.front());
    EXPECT_EQ(queue.readBlock(), queue.writeBlock());
    EXPECT_EQ(queue.InMemoryBufferSize_m, 2097152);
    EXPECT_EQ(queue.counter(), 0u);
    EXPECT_EQ(queue.SwapFilePermissions_m, 384);
  }
}

TEST_F(Raw, RefusesANumberOfBlocksThatNoCounterHolds) {
  configure("nRawBufferMaxVMSize = 4294967299");
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([] { Queue queue; }), "1 0 nRawBufferMaxVMSize is out of range");
}

TEST_F(Raw, NamesItsFolderByItsMode) {
  EXPECT_EQ(Queue(UDC_RAW_MODE1).SwapDir_m, buffer);
  EXPECT_EQ(Queue(UDC_RAW_MODE2).SwapDir_m, buffer + "/2049_mode2");
  EXPECT_EQ(Queue(UDC_RAW_MODE3).SwapDir_m, buffer + "/2049");
}

TEST_F(Raw, MakesTheFolderForItsOwnerAlone) {
  LogCapture log(2);
  const Queue queue;
  EXPECT_EQ(modeOf(buffer), 0700);
  EXPECT_THAT(
      log.lines(),
      ElementsAre("debug 2 DCRawBuffer :: ReadRegistryAndSetupFolder: Buffer Folder: " + buffer));
}

TEST_F(Raw, EmptiesTheFolderBeforeItStartsAnew) {
  std::filesystem::create_directories(in("2049_mode2/deeper"));
  for (const char* name : {"swap.7", "swapped", "DriverThreadShutdownIndicator",
                           "DbThreadShutdownIndicator", "GracefullClosedDbs", "2049_mode2/swap.1"})
    put(in(name), "x");
  LogCapture log(2);
  const Queue queue;
  EXPECT_THAT(listing(buffer), IsEmpty());
  EXPECT_TRUE(log.has("debug 2 DCRawBuffer :: RemoveSwapDir: rmdir[" + in("2049_mode2/deeper]")));
  EXPECT_TRUE(log.has("debug 2 DCRawBuffer :: RemoveSwapDir: rmdir[" + in("2049_mode2]")));
  EXPECT_TRUE(log.has("debug 2 DCRawBuffer :: RemoveSwapDir: rmdir[" + buffer + "]"));
}

TEST_F(Raw, LeavesTheFolderAsItIsWhenItIsNotToStartAnew) {
  std::filesystem::create_directory(buffer);
  put(in("swap.7"), "x");
  const Queue queue(UDC_RAW_MODE1, false);
  EXPECT_THAT(listing(buffer), ElementsAre("swap.7"));
}

TEST_F(Raw, SaysWhyItCannotBeMade) {
  const std::string tag = "error 0 DCRawBuffer :: ReadRegistryAndSetupFolder: eRRoR -- ";
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([] { Queue queue(UDC_RAW_MODE1, false); }),
            "1 0 Buffer Folder does not exist");
  EXPECT_TRUE(log.has(tag + "Function[DCRawBuffer :: ReadRegistryAndSetupFolder] Type[1] Error[0] "
                            "Buffer Folder does not exist"));

  folder.write("settings.ini", "[DataClassification]\ndRawBufferDir = " + folder.path() + "/a/b\n");
  EXPECT_EQ(exceptionOf([] { Queue queue; }), "0 2 Unable to Create the Buffer Dir");

  folder.write("settings.ini", "");
  EXPECT_EQ(exceptionOf([] { Queue queue; }), "1 0 failed to get buufer_dir from the registry");

  configure("nRawBufferMaxVMSize = many");
  const std::string wrong = exceptionOf([] { Queue queue; });
  EXPECT_THAT(wrong, ::testing::StartsWith("5 0 ")) << "a failure of the settings, wrapped";
  EXPECT_THAT(wrong, ::testing::HasSubstr("\"nRawBufferMaxVMSize\""));
  EXPECT_TRUE(log.has(tag + wrong.substr(4)));
}

TEST_F(Raw, RemovesOnlyWhatIsItsOwnAndSaysWhatIsNot) {
  std::filesystem::create_directories(in("sub"));
  put(in("swap"), "exactly four characters");
  put(in("swap.1"), "x");
  put(in("sub/notes.txt"), "x");
  put(in("sub/swap.2"), "x");
  Queue queue(UDC_RAW_MODE1, false);
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { queue.RemoveSwapDir(buffer.c_str()); }),
            "1 0 Unexpected file encountered");
  const std::string tag = "error 0 DCRawBuffer :: RemoveSwapDir: ";
  EXPECT_TRUE(log.has(tag + "Encountered file [" + in("swap] not in swap format")));
  EXPECT_TRUE(log.has(tag + "Encountered file [" + in("sub/notes.txt] not in swap format")));
  EXPECT_TRUE(log.has(tag + "eRRoR -- Function[DCRawBuffer :: RemoveSwapDir] Type[1] Error[0] "
                            "Unexpected file encountered"));
  EXPECT_THAT(listing(buffer), ElementsAre("sub", "swap"));
  EXPECT_THAT(listing(in("sub")), ElementsAre("notes.txt"));
}

TEST_F(Raw, CannotRemoveAFolderThatIsNotThere) {
  Queue queue;
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { queue.RemoveSwapDir(in("nowhere").c_str()); }),
            "0 2 Unable to Open the Dir");
}

TEST_F(Raw, FollowsNoSymbolicLinkWhenItRemovesAFolder) {
  std::filesystem::create_directory(folder / "elsewhere");
  put(folder / "elsewhere/swap.1", "x");
  std::filesystem::create_directory(buffer);
  std::filesystem::create_symlink(folder / "elsewhere", in("swap.dir"));
  std::filesystem::create_symlink(folder / "elsewhere/swap.1", in("swap.2"));
  const Queue queue;
  EXPECT_THAT(listing(buffer), IsEmpty());
  EXPECT_THAT(listing(folder / "elsewhere"), ElementsAre("swap.1"));

  std::filesystem::remove(buffer);
  std::filesystem::create_symlink(folder / "elsewhere", buffer);
  LogCapture log(0);
  EXPECT_THAT(exceptionOf([] { Queue another; }), ::testing::HasSubstr("Unable to Open the Dir"));
  EXPECT_THAT(listing(folder / "elsewhere"), ElementsAre("swap.1"));
}

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

TEST_F(Raw, CountsADamagedSwapFileInTheOtherModesToo) {
  std::filesystem::create_directory(buffer);
  Queue queue(UDC_RAW_MODE2);
  fill(queue, 0, kInBlock + 1);
  std::ofstream(in("2049_mode2/swap.0"), std::ios::binary | std::ios::app) << "more";
  EXPECT_EQ(numbers(queue, kInBlock), upTo(0, kInBlock));
  EXPECT_EQ(queue.DamagedBlocks(), 1u);
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

TEST_F(Raw, LeavesTheFolderInPlaceWhenItGoesInTheFirstMode) {
  { const Queue queue; }
  EXPECT_TRUE(std::filesystem::exists(buffer));
}

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

}  // namespace
