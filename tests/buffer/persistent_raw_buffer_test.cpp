// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The queue over a restart: what a stop leaves, what a start finds, and the list of closed
// databases.
#include "buffer/persistent_raw_buffer.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <thread>

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

bool unlinkFails = false;

}  // namespace

// Takes the place of the C library's unlinkat in this program.
extern "C" int scriptableUnlinkAt(int folder, const char* name, int flags) asm("unlinkat");
extern "C" int scriptableUnlinkAt(int folder, const char* name, int flags) {
  errno = EACCES;
  return unlinkFails ? -1 : static_cast<int>(::syscall(SYS_unlinkat, folder, name, flags));
}

namespace {

constexpr char kDriver[] = "DriverThreadShutdownIndicator", kDb[] = "DbThreadShutdownIndicator";
constexpr char kClosed[] = "GracefullClosedDbs";

// Looks at the fields; one thread, no locks.
class Queue : public PersistentDCRawBuffer {
 public:
  explicit Queue(bool cleanStart) : PersistentDCRawBuffer(cleanStart) {}
  using DCRawBuffer::Aborted_m;
  using PersistentDCRawBuffer::DbThreadState_m;
  using PersistentDCRawBuffer::DriverThreadState_m;
  using PersistentDCRawBuffer::LoadFromDiskPending_m;
  using PersistentDCRawBuffer::StrayFolders_m;
  unsigned long long counter() const NO_THREAD_SAFETY_ANALYSIS { return WriteFileCounter_m; }

  // The numbers of the queued swap files.
  std::vector<unsigned long long> numbers() const NO_THREAD_SAFETY_ANALYSIS {
    std::vector<unsigned long long> all;
    for (const Buf_File_s& entry : SwapQueue_m) {
      EXPECT_EQ(entry.buffer, nullptr);
      all.push_back(entry.fileNumber);
    }
    return all;
  }
};

class Persistent : public kddc::test::QueueFolders {
 protected:
  std::string in(const std::string& name) const { return buffer + "/" + name; }
  std::string cached(const std::string& name) const { return cacheRoot + "/" + name; }

  // A buffer folder as a graceful stop leaves it.
  void leave(const std::map<std::string, std::string>& files) const {
    std::filesystem::create_directory(buffer);
    for (const char* indicator : {kDriver, kDb}) put(in(indicator), "");
    for (const auto& [name, text] : files) put(in(name), text);
  }
  static void startThreads(PersistentDCRawBuffer& queue) {
    queue.DriverThreadStarted();
    queue.DbThreadStarted();
  }
  static void stop(PersistentDCRawBuffer& queue) {
    queue.DriverThreadShutDown();
    queue.DbThreadShutDown();
  }
  static std::list<std::string> strays(PersistentDCRawBuffer& queue) {
    std::list<std::string> names;
    queue.IsRescanNeeded(&names);
    return names;
  }
  static std::list<std::string> closed(PersistentDCRawBuffer& queue) {
    std::list<std::string> names;
    queue.GetListOfDBsGracefullyClosed(&names);
    return names;
  }
};

TEST_F(Persistent, NeedsARescanAfterACleanStart) {
  leave({{"swap.0", stored("old")}});
  Queue queue(true);
  EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
  EXPECT_FALSE(queue.LoadFromDiskPending_m);
  EXPECT_THAT(listing(buffer), IsEmpty());
  EXPECT_EQ(modeOf(buffer), 0700);
  EXPECT_EQ(queue.counter(), 1u);
  EXPECT_FALSE(queue.AreJournalsSavedToDisk());
  EXPECT_TRUE(queue.IsSaveExact());
  EXPECT_EQ(queue.DriverThreadState_m, 0);
  EXPECT_EQ(queue.DbThreadState_m, 0);
}

TEST_F(Persistent, RefusesToGoOnInAFolderThatIsNotThere) {
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([] { Queue queue(false); }), "1 0 Buffer Folder does not exist");
}

TEST_F(Persistent, NeedsARescanUnlessBothIndicatorsAreThere) {
  for (const auto& present : std::vector<std::vector<std::string>>{{}, {kDriver}, {kDb}}) {
    std::filesystem::remove_all(buffer);
    std::filesystem::create_directory(buffer);
    for (const std::string& name : present) put(in(name), "");
    put(in("swap.0"), stored("old"));
    Queue queue(false);
    EXPECT_FALSE(queue.WasShutdownGraceful());
    EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
    EXPECT_THAT(listing(buffer), IsEmpty());
  }
}

TEST_F(Persistent, TakesNoSymbolicLinkForAnIndicator) {
  leave({{"swap.0", ""}});
  std::filesystem::remove(in(kDb));
  std::filesystem::create_symlink(folder / "settings.ini", in(kDb));
  Queue queue(false);
  EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
  EXPECT_TRUE(std::filesystem::exists(folder / "settings.ini"));
}

TEST_F(Persistent, QueuesTheSwapFilesOfAGracefulStopInTheOrderOfTheirNumbers) {
  leave({{"swap.10", stored("c")},
         {"swap.0", stored("a")},
         {"swap.3", stored("b")},
         {kClosed, "12\n"}});
  Queue queue(false);
  EXPECT_TRUE(queue.WasShutdownGraceful());
  EXPECT_FALSE(queue.IsRescanNeeded(nullptr));
  EXPECT_TRUE(queue.LoadFromDiskPending_m);
  EXPECT_THAT(queue.numbers(), ElementsAre(0u, 3u, 10u));
  EXPECT_EQ(queue.counter(), 11u);

  startThreads(queue);
  add(queue, "d");
  LogCapture log(4);
  EXPECT_EQ(readOnce(queue), "a") << "with the first call";
  EXPECT_THAT(log.lines(), ElementsAre("debug 4 PersistentDCRawBuffer :: ReadEntry: Loading swap "
                                       "file[" +
                                       in("swap.0]")));
  EXPECT_FALSE(queue.LoadFromDiskPending_m);
  EXPECT_THAT(listing(buffer), ElementsAre("swap.10", "swap.3"));
  for (const char* record : {"b", "c", "d"}) {
    EXPECT_EQ(readOnce(queue), std::nullopt) << "a switch";
    EXPECT_EQ(readOnce(queue), record);
  }
  EXPECT_THAT(listing(buffer), IsEmpty());
}

TEST_F(Persistent, StartsWithNumberOneWhenAGracefulStopLeftNoSwapFile) {
  leave({});
  Queue queue(false);
  EXPECT_FALSE(queue.IsRescanNeeded(nullptr));
  EXPECT_EQ(queue.counter(), 1u);
  startThreads(queue);
  add(queue, "new");
  EXPECT_EQ(readOnce(queue), "new");
}

TEST_F(Persistent, ReadsTheNumberBehindThePoint) {
  Queue queue(true);
  EXPECT_EQ(queue.GetFileNum("swap.12"), 12u);
  EXPECT_EQ(queue.GetFileNum("swap.9223372036854775807"), 9223372036854775807u);
  EXPECT_EQ(queue.GetFileNum("swap.x"), 0u);
  EXPECT_EQ(queue.GetFileNum("swap."), 0u);
}

TEST_F(Persistent, TurnsARestoreThatFindsAStrangersFileIntoARescanAndLeavesTheFile) {
  leave({{"swap.0", stored("a")}, {"notes.txt", "mine"}, {kClosed, "12\n"}});
  put(cached(kClosed), "12\n");
  LogCapture log(0);
  Queue queue(false);
  EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
  EXPECT_THAT(queue.numbers(), IsEmpty());
  EXPECT_EQ(queue.counter(), 1u);
  EXPECT_THAT(listing(buffer), ElementsAre("notes.txt"));
  EXPECT_EQ(contents(in("notes.txt")), "mine");
  EXPECT_THAT(
      log.lines(),
      ElementsAre("error 0 PersistentDCRawBuffer :: InitializeFromDisk: Encountered file [" +
                      in("notes.txt] not in swap format"),
                  "error 0 PersistentDCRawBuffer :: InitializeFromDisk: eRRoR -- "
                  "Function[PersistentDCRawBuffer :: InitializeFromDisk] Type[1] Error[0] "
                  "Unexpected file encountered",
                  "error 0 DCRawBuffer :: RemoveSwapDir: Encountered file [" +
                      in("notes.txt] not in swap format"),
                  "error 0 DCRawBuffer :: RemoveSwapDir: eRRoR -- Function[DCRawBuffer :: "
                  "RemoveSwapDir] Type[1] Error[0] Unexpected file encountered"));
}

TEST_F(Persistent, StartsBesideAStrangersFileHoweverItIsToStart) {
  for (const bool clean : {false, true}) {
    std::filesystem::create_directory(buffer);
    put(in("notes.txt"), "mine");
    put(in("swap.4"), "old");
    LogCapture log(0);
    Queue queue(clean);
    EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
    EXPECT_THAT(listing(buffer), ElementsAre("notes.txt"));
    EXPECT_TRUE(log.mentions("Encountered file [" + in("notes.txt] not in swap format")));
  }
}

TEST_F(Persistent, TurnsASwapFileThatCouldNotBeFoundAgainIntoARescan) {
  for (const char* name : {"swap.07", "swapfile", "swap.-1", "swap.99999999999999999999"}) {
    leave({{name, "x"}});
    LogCapture log(0);
    Queue queue(false);
    EXPECT_TRUE(queue.IsRescanNeeded(nullptr)) << name;
    EXPECT_TRUE(log.mentions("Encountered file [" + in(name) + "] not in swap format"));
    EXPECT_THAT(listing(buffer), IsEmpty());
  }
}

TEST_F(Persistent, TurnsASymbolicLinkInASwapFilesPlaceIntoARescan) {
  leave({});
  put(folder / "elsewhere", stored("planted"));
  std::filesystem::create_symlink(folder / "elsewhere", in("swap.0"));
  LogCapture log(0);
  Queue queue(false);
  EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
  EXPECT_THAT(listing(buffer), IsEmpty());
  EXPECT_EQ(contents(folder / "elsewhere"), stored("planted"));
}

TEST_F(Persistent, ListsTheSubFoldersItFindsAndRemovesThemOnRequest) {
  leave({{"swap.0", ""}});
  for (const char* name : {"2049_mode2", "77", "_odd_one", "5_6_7"}) {
    std::filesystem::create_directory(in(name));
    put(in(std::string(name) + "/swap.3"), "x");
  }
  Queue queue(false);
  EXPECT_THAT(strays(queue), ::testing::UnorderedElementsAre("2049", "77", "_odd_one", "5"));
  EXPECT_FALSE(queue.IsRescanNeeded(nullptr));
  queue.RemoveStrayFolders();
  EXPECT_THAT(queue.StrayFolders_m, IsEmpty());
  EXPECT_THAT(listing(buffer), ElementsAre(kDb, kDriver, "swap.0"));
}

TEST_F(Persistent, HasNoStrayFoldersToRemoveWhenTheRestoreFailed) {
  leave({{"notes.txt", ""}});
  std::filesystem::create_directory(in("2049_mode2"));
  LogCapture log(0);
  Queue queue(false);
  EXPECT_THAT(listing(buffer), ElementsAre("notes.txt"));
  queue.RemoveStrayFolders();
  EXPECT_THAT(queue.StrayFolders_m, IsEmpty());
}

TEST_F(Persistent, DeletesAnIndicatorWhenItsThreadStarts) {
  leave({{"swap.0", ""}});
  Queue queue(false);
  queue.DriverThreadStarted();
  EXPECT_THAT(listing(buffer), ElementsAre(kDb, "swap.0"));
  EXPECT_EQ(queue.DriverThreadState_m, 1);
  queue.DbThreadStarted();
  EXPECT_THAT(listing(buffer), ElementsAre("swap.0"));
  EXPECT_EQ(queue.DbThreadState_m, 1);
  startThreads(queue);  // a missing file is no failure
}

TEST_F(Persistent, DoesNotStartAThreadWhoseIndicatorStays) {
  Queue queue(true);
  std::filesystem::create_directory(in(kDriver));
  std::filesystem::create_directory(in(kDb));
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { queue.DriverThreadStarted(); }),
            "0 21 delete failed for DriverThreadShutdownIndicator_m");
  EXPECT_EQ(exceptionOf([&] { queue.DbThreadStarted(); }),
            "0 21 delete failed for DbThreadShutdownIndicator");
  EXPECT_TRUE(
      log.has("error 0 PersistentDCRawBuffer :: DriverThreadStarted: eRRoR -- unlink failed "
              "for[" +
              in(kDriver) + "]. errno[21]"));
  EXPECT_TRUE(
      log.has("error 0 PersistentDCRawBuffer :: DbThreadStarted: eRRoR -- unlink failed for[" +
              in(kDb) + "]. errno[21]"));
  EXPECT_EQ(queue.DriverThreadState_m, 0);
}

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

TEST_F(Persistent, RestoresNothingTwice) {
  {
    Queue queue(true);
    startThreads(queue);
    add(queue, "a");
    stop(queue);
  }
  {
    Queue queue(false);
    startThreads(queue);
    EXPECT_EQ(readOnce(queue), "a");
  }  // a crash: nobody shut down
  Queue queue(false);
  EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
}

TEST_F(Persistent, ReportsARestoredFileThatCannotBeOpenedAndTriesItAgain) {
  leave({{"swap.0", stored("a")}});
  Queue queue(false);
  std::filesystem::rename(in("swap.0"), folder / "aside");
  LogCapture log(0);
  EXPECT_EQ(exceptionOf([&] { readOnce(queue); }), "0 2 swap file open failed");
  EXPECT_THAT(
      log.lines(),
      ElementsAre("error 0 PersistentDCRawBuffer :: ReadEntry: could not open " + in("swap.0"),
                  "error 0 PersistentDCRawBuffer :: ReadEntry: eRRoR -- "
                  "Function[PersistentDCRawBuffer :: ReadEntry] Type[0] Error[2] swap file "
                  "open failed"));
  std::filesystem::rename(folder / "aside", in("swap.0"));
  EXPECT_EQ(readOnce(queue), std::nullopt);
  EXPECT_EQ(readOnce(queue), "a");
}

TEST_F(Persistent, ListsTheDatabasesThatWereClosed) {
  Queue queue(true);
  EXPECT_THAT(closed(queue), IsEmpty());
  queue.DbShutDown(12);
  queue.DbShutDown(18446744073709551615u);
  EXPECT_EQ(contents(cached(kClosed)), "12\n18446744073709551615\n");
  EXPECT_EQ(modeOf(cached(kClosed)), 0600);
  EXPECT_THAT(closed(queue), ElementsAre("12", "18446744073709551615"));
  std::list<std::string> more = {"before"};
  queue.GetListOfDBsGracefullyClosed(&more);
  EXPECT_THAT(more, ElementsAre("before", "12", "18446744073709551615"));
  queue.FinishedHandlingCorruptDbs();
  EXPECT_FALSE(std::filesystem::exists(cached(kClosed)));
}

TEST_F(Persistent, TakesTheLastCharacterOfEachLineForItsEnd) {
  Queue queue(true);
  put(cached(kClosed), "12\n\n345");
  EXPECT_THAT(closed(queue), ElementsAre("12", "", "34"));
}

TEST_F(Persistent, LogsThatThereWasNoListToDelete) {
  Queue queue(true);
  LogCapture log(0);
  queue.FinishedHandlingCorruptDbs();
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 PersistentDCRawBuffer :: FinishedHandlingCorruptDbs: unlink "
                          "failed on [" +
                          cached(kClosed) + "] errno[2]"));
}

TEST_F(Persistent, KeepsQuietWhenTheListCannotBeOpened) {
  Queue queue(true);
  put(folder / "elsewhere", "untouched\n");
  std::filesystem::create_symlink(folder / "elsewhere", cached(kClosed));
  LogCapture log(9);
  queue.DbShutDown(12);
  EXPECT_THAT(closed(queue), IsEmpty());
  EXPECT_EQ(contents(folder / "elsewhere"), "untouched\n");
  std::filesystem::remove_all(cacheRoot);
  queue.DbShutDown(12);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(Persistent, MovesTheListFromTheBufferFolderToTheCacheRoot) {
  leave({{kClosed, "12\n"}, {"swap.0", ""}});
  Queue queue(false);
  EXPECT_THAT(closed(queue), ElementsAre("12"));
  EXPECT_THAT(listing(buffer), ElementsAre(kDb, kDriver, "swap.0"));
}

TEST_F(Persistent, KeepsTheListOfTheCacheRootWhenThereAreTwo) {
  leave({{kClosed, "12\n"}, {"swap.0", ""}});
  put(cached(kClosed), "34\n");
  Queue queue(false);
  EXPECT_THAT(closed(queue), ElementsAre("34"));
}

TEST_F(Persistent, KeepsTheListInTheInstallationDirectoryWhenNoCacheRootIsSet) {
  folder.write("settings.ini", "[DataClassification]\ndRawBufferDir = " + buffer + "\n");
  ::setenv("ZENTHAR_DIRECTORY", folder.path().c_str(), 1);
  std::filesystem::create_directories(folder / "Korvix/jobResults/kddccache");
  LogCapture log(0);
  Queue queue(true);
  ::unsetenv("ZENTHAR_DIRECTORY");
  EXPECT_THAT(log.lines(),
              ElementsAre("error 0 PersistentDCRawBuffer :: PersistentDCRawBuffer: failed to get "
                          "buffer_dir from the registry"));
  queue.DbShutDown(7);
  EXPECT_EQ(contents(folder / "Korvix/jobResults/kddccache/GracefullClosedDbs"), "7\n");
}

TEST_F(Persistent, LetsAReaderGoWhenItIsAborted) {
  Queue queue(true);
  std::atomic<bool> done = false;
  std::optional<std::string> record = "unread";
  std::thread reader([&] {
    record = readOnce(queue);
    done = true;
  });
  while (!done) queue.Abort();
  reader.join();
  EXPECT_EQ(record, std::nullopt);
  EXPECT_TRUE(queue.Aborted_m);
}

}  // namespace
