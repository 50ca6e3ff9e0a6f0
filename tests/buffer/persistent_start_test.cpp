// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a start makes of the buffer folder that it finds, and the reads and threads that follow it.
#include <atomic>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/big_records.h"
#include "tests/support/log_capture.h"
#include "tests/support/persistent_fixture.h"

using kddc::test::add;
using kddc::test::exceptionOf;
using kddc::test::LogCapture;
using kddc::test::Persistent;
using kddc::test::readOnce;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

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
