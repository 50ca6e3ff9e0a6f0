// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a stop saves, where, and whether it says so when the save is not exact.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/big_records.h"
#include "tests/support/log_capture.h"
#include "tests/support/persistent_fixture.h"

using kddc::test::add;
using kddc::test::big;
using kddc::test::fill;
using kddc::test::kInBlock;
using kddc::test::LogCapture;
using kddc::test::numbers;
using kddc::test::Persistent;
using kddc::test::readOnce;
using kddc::test::upTo;
using ::testing::ElementsAre;

namespace {

bool unlinkFails = false;

}  // namespace

// Takes the place of the C library's unlinkat in this program.
extern "C" int scriptableUnlinkAt(int folder, const char* name, int flags) asm("unlinkat");
extern "C" int scriptableUnlinkAt(int folder, const char* name, int flags) {
  errno = EACCES;
  return unlinkFails ? -1 : static_cast<int>(::syscall(SYS_unlinkat, folder, name, flags));
}

namespace {

TEST_F(Persistent, SavesNothingWhenOnlyOneThreadShutsDown) {
  for (const bool driver : {true, false}) {
    Queue queue(true);
    startThreads(queue);
    add(queue, "a");
    driver ? queue.DriverThreadShutDown() : queue.DbThreadShutDown();
    EXPECT_THAT(listing(buffer), ElementsAre(driver ? kDriver : kDb));
    EXPECT_FALSE(queue.AreJournalsSavedToDisk());
    LogCapture log(1);
    driver ? queue.DbThreadShutDown() : queue.DriverThreadShutDown();
    EXPECT_THAT(listing(buffer), ElementsAre(kDb, kDriver, "swap.0"));
    EXPECT_TRUE(queue.AreJournalsSavedToDisk());
    EXPECT_TRUE(queue.IsSaveExact());
    EXPECT_EQ(contents(in("swap.0")), stored("a"));
    for (const char* name : {kDb, kDriver, "swap.0"}) EXPECT_EQ(modeOf(in(name)), 0600);
    EXPECT_THAT(log.lines(),
                ElementsAre("debug 1 PersistentDCRawBuffer :: FlushJournalsToDisk:  "
                            "****************************************** SAVED JOURNALS TO DISK "
                            "******************************** "));
  }
}

TEST_F(Persistent, SavesOnlyWhatHasNotBeenRead) {
  Queue queue(true);
  startThreads(queue);
  for (const char* record : {"a", "b", "c"}) add(queue, record);
  EXPECT_EQ(readOnce(queue), "a");
  stop(queue);
  EXPECT_EQ(contents(in("swap.0")), stored("b") + stored("c"));
}

TEST_F(Persistent, NumbersTheFilesOfASaveBehindEachOther) {
  configure("nRawBufferMaxVMSize = 4");
  {
    Queue queue(true);
    startThreads(queue);
    fill(queue, 0, 3 * kInBlock + 1);
    EXPECT_EQ(numbers(queue, 1), upTo(0, 1));
    stop(queue);
    EXPECT_THAT(listing(buffer), ElementsAre(kDb, kDriver, "swap.0", "swap.2", "swap.3", "swap.4"));
    EXPECT_TRUE(queue.IsSaveExact());
  }
  Queue queue(false);
  startThreads(queue);
  EXPECT_EQ(numbers(queue, 3 * kInBlock), upTo(1, 3 * kInBlock));
}

TEST_F(Persistent, SavesTheWriteBlockToFileTwoWhenNoBlockIsQueued) {
  Queue queue(true);
  startThreads(queue);
  fill(queue, 0, kInBlock + 1);
  stop(queue);
  EXPECT_THAT(listing(buffer), ElementsAre(kDb, kDriver, "swap.0", "swap.2"));
  EXPECT_EQ(contents(in("swap.2")), stored(big(kInBlock)));
  EXPECT_TRUE(queue.IsSaveExact());
}

TEST_F(Persistent, SaysThatASaveOverwroteAFileThatWaitedOnTheDisk) {
  // With two blocks the second one goes to file 2, where the write block's rest is saved too.
  Queue queue(true);
  startThreads(queue);
  fill(queue, 0, 2 * kInBlock + 1);
  EXPECT_THAT(queue.numbers(), ElementsAre(2u));
  stop(queue);
  EXPECT_EQ(contents(in("swap.2")), stored(big(2 * kInBlock)));
  EXPECT_FALSE(queue.IsSaveExact());
  EXPECT_TRUE(queue.AreJournalsSavedToDisk());
}

TEST_F(Persistent, SaysThatASaveSortedTheLastRecordsBeforeOlderOnes) {
  leave({{"swap.0", stored("a")}, {"swap.5", stored("b")}});
  Queue queue(false);
  startThreads(queue);
  EXPECT_EQ(readOnce(queue), "a");
  add(queue, "c");
  stop(queue);
  EXPECT_THAT(listing(buffer), ElementsAre(kDb, kDriver, "swap.0", "swap.2", "swap.5"));
  EXPECT_EQ(contents(in("swap.2")), stored("c"));
  EXPECT_FALSE(queue.IsSaveExact());
}

TEST_F(Persistent, SavesExactlyWhenNoNewRecordStandsBeforeAnOlderOne) {
  leave({{"swap.0", stored("a")}, {"swap.5", stored("b")}});
  Queue queue(false);
  startThreads(queue);
  EXPECT_EQ(readOnce(queue), "a");
  stop(queue);
  EXPECT_TRUE(queue.IsSaveExact());
}

TEST_F(Persistent, SaysThatAStopBeforeTheFirstReadOverwroteTheRestoredRecords) {
  leave({{"swap.0", stored("a")}});
  Queue queue(false);
  startThreads(queue);
  add(queue, "new");
  stop(queue);
  EXPECT_EQ(contents(in("swap.0")), stored("new"));
  EXPECT_FALSE(queue.IsSaveExact());
}

TEST_F(Persistent, SaysThatAStopBeforeTheFirstReadSortedNewRecordsBeforeRestoredOnes) {
  leave({{"swap.3", stored("a")}});  // file 0 was removed by hand
  Queue queue(false);
  startThreads(queue);
  add(queue, "new");
  stop(queue);
  EXPECT_EQ(contents(in("swap.0")), stored("new"));
  EXPECT_EQ(contents(in("swap.3")), stored("a"));
  EXPECT_FALSE(queue.IsSaveExact());
}

TEST_F(Persistent, SaysThatASwapFileThatCouldNotBeDeletedWouldComeAgain) {
  leave({{"swap.0", stored("a")}, {"swap.1", stored("b")}});
  Queue queue(false);
  startThreads(queue);
  EXPECT_EQ(readOnce(queue), "a");
  unlinkFails = true;
  LogCapture log(0);
  EXPECT_EQ(readOnce(queue), std::nullopt);
  unlinkFails = false;
  EXPECT_EQ(readOnce(queue), "b");
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 DCRawBuffer :: SwapOrLoadBuffer: unlink failed on [" +
                          in("swap.1] errno[13]")));
  stop(queue);
  EXPECT_FALSE(queue.IsSaveExact());
}

TEST_F(Persistent, LosesNoRecordWhenABlockIsFilledBeforeTheFirstReadButDoesNotVouchForTheSave) {
  leave({{"swap.0", stored("1000 a")}, {"swap.4", stored("1001 b")}});
  Queue queue(false);
  startThreads(queue);
  fill(queue, 0, 3 * kInBlock);
  std::vector<int> expected = {1000, 1001};
  for (const int number : upTo(0, 3 * kInBlock)) expected.push_back(number);
  EXPECT_EQ(numbers(queue, 2 + 3 * kInBlock), expected);
  fill(queue, 0, 5 * kInBlock);
  EXPECT_EQ(numbers(queue, 5 * kInBlock), upTo(0, 5 * kInBlock)) << "all blocks still go round";
  stop(queue);
  EXPECT_FALSE(queue.IsSaveExact());
}

TEST_F(Persistent, LeavesTheFilesOfASaveAloneWhenAThreadShutsDownTwice) {
  configure("nRawBufferMaxVMSize = 3");
  Queue queue(true);
  startThreads(queue);
  fill(queue, 0, 2 * kInBlock + 1);
  stop(queue);
  stop(queue);
  queue.FlushJournalsToDisk();
  EXPECT_EQ(std::filesystem::file_size(in("swap.2")), 2097152u);
}

TEST_F(Persistent, LeavesNoSecondIndicatorWhenTheSaveFails) {
  Queue queue(true);
  startThreads(queue);
  add(queue, "a");
  std::filesystem::create_directory(in("swap.0"));
  queue.DriverThreadShutDown();
  LogCapture log(0);
  queue.DbThreadShutDown();
  EXPECT_THAT(listing(buffer), ElementsAre(kDriver, "swap.0"));
  EXPECT_FALSE(queue.AreJournalsSavedToDisk());
  EXPECT_FALSE(queue.IsSaveExact());
  EXPECT_TRUE(
      log.has("error 0 PersistentDCRawBuffer :: FlushJournalsToDisk: eRRoR -- "
              "Function[PersistentDCRawBuffer :: FlushJournalsToDisk] Type[0] Error[21] swap "
              "file open failed"));
  EXPECT_TRUE(
      log.has("error 0 PersistentDCRawBuffer :: DbThreadShutDown: eRRoR -- "
              "Function[PersistentDCRawBuffer :: FlushJournalsToDisk] Type[0] Error[21] swap "
              "file open failed"));

  std::filesystem::remove(in("swap.0"));
  queue.DbThreadShutDown();
  EXPECT_EQ(contents(in("swap.0")), stored("a")) << "a second attempt has lost nothing";
  EXPECT_TRUE(queue.AreJournalsSavedToDisk());
  EXPECT_TRUE(queue.IsSaveExact());
}

TEST_F(Persistent, HasSavedTheJournalsEvenWhenTheIndicatorCannotBeMade) {
  Queue queue(true);
  startThreads(queue);
  std::filesystem::create_directory(in(kDb));
  LogCapture log(0);
  stop(queue);
  EXPECT_TRUE(queue.AreJournalsSavedToDisk());
  EXPECT_TRUE(log.mentions("error 0 PersistentDCRawBuffer :: DbThreadShutDown: eRRoR -- "));
}

}  // namespace
