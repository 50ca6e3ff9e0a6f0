// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The list of databases that were closed gracefully, from one process to the next.
#include <cstdlib>
#include <filesystem>
#include <list>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/persistent_fixture.h"

using kddc::test::LogCapture;
using kddc::test::Persistent;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

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

}  // namespace
