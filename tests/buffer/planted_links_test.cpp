// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Symbolic links that somebody planted where the queue keeps its files lead it nowhere: what they
// point at is never read, written, emptied or deleted.
#include <fcntl.h>

#include "buffer/persistent_raw_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_folders.h"

using kddc::test::add;
using kddc::test::exceptionOf;

namespace {

namespace fs = std::filesystem;

constexpr char kDriver[] = "DriverThreadShutdownIndicator", kDb[] = "DbThreadShutdownIndicator";
constexpr char kClosed[] = "GracefullClosedDbs";

// Somebody else's folder, with files whose names are like ours, must stay as it is.
class PlantedLinks : public kddc::test::QueueFolders {
 protected:
  void SetUp() override {
    QueueFolders::SetUp();
    fs::create_directory(theirs);
    for (const std::string& name : kTheirFiles) put(theirs + "/" + name, stored("theirs"));
    fs::create_directory(theirs + "/swap.sub");
  }
  void TearDown() override {
    std::vector<std::string> expected = kTheirFiles;
    expected.push_back("swap.sub");
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(listing(theirs), expected);
    for (const std::string& name : kTheirFiles)
      EXPECT_EQ(contents(theirs + "/" + name), stored("theirs")) << name;
    QueueFolders::TearDown();
  }

  std::string in(const std::string& name) const { return buffer + "/" + name; }
  void linkTo(const std::string& target, const std::string& path) const {
    fs::create_symlink(theirs + "/" + target, path);
  }
  // A buffer folder as a graceful stop leaves it, with one record.
  void leaveRecord() const {
    fs::create_directory(buffer);
    for (const char* name : {kDriver, kDb}) put(in(name), "");
    put(in("swap.0"), stored("ours"));
  }
  static void fill(DCRawBuffer& queue, int blocks) {
    for (int i = 0; i < 64 * blocks; ++i) add(queue, std::string(32766, '.'));
  }
  static void start(PersistentDCRawBuffer& queue) {
    queue.DriverThreadStarted();
    queue.DbThreadStarted();
  }
  static void stop(PersistentDCRawBuffer& queue) {
    queue.DriverThreadShutDown();
    queue.DbThreadShutDown();
  }

  const kddc::test::LogCapture quiet{0};
  const std::string theirs = folder / "theirs";
  const std::vector<std::string> kTheirFiles{kDb,      kDriver,  kClosed, "swap.0",
                                             "swap.1", "swap.2", "swap.3"};
};

TEST_F(PlantedLinks, InPlaceOfTheFileOfAFullBlockMakeTheAddFail) {
  for (const char* target : {"swap.2", "nothing"}) {
    PersistentDCRawBuffer queue(true);
    linkTo(target, in("swap.2"));
    fill(queue, 2);
    EXPECT_EQ(exceptionOf([&] { fill(queue, 1); }), "0 40 swap file open failed");  // ELOOP
    EXPECT_TRUE(fs::is_symlink(in("swap.2")));
  }
}

TEST_F(PlantedLinks, InPlaceOfAFileThatWaitsMakeTheReadFail) {
  PersistentDCRawBuffer queue(true);
  fill(queue, 2);
  add(queue, std::string(32766, '.'));
  fs::remove(in("swap.2"));
  linkTo("swap.2", in("swap.2"));
  unsigned char* data = nullptr;
  int length = 0;
  EXPECT_EQ(exceptionOf([&] {
              for (int i = 0; i < 70; ++i) queue.ReadEntry(&data, &length);
            }),
            "0 40 swap file open failed");
}

TEST_F(PlantedLinks, InPlaceOfAFileOfTheSaveLeaveNoSecondIndicator) {
  for (const char* target : {"swap.0", "nothing"}) {
    PersistentDCRawBuffer queue(true);
    start(queue);
    add(queue, "record");
    linkTo(target, in("swap.0"));
    stop(queue);
    EXPECT_FALSE(queue.WasShutdownGraceful());
    EXPECT_FALSE(queue.IsSaveExact());
  }
}

TEST_F(PlantedLinks, InPlaceOfAnIndicatorAreNotTakenForItNorWrittenThrough) {
  for (const char* indicator : {kDriver, kDb})
    for (const std::string& target : {std::string(indicator), std::string("nothing")}) {
      fs::remove_all(buffer);
      leaveRecord();
      fs::remove(in(indicator));
      linkTo(target, in(indicator));
      PersistentDCRawBuffer queue(false);
      EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
      start(queue);
      linkTo(target, in(indicator));
      stop(queue);
      EXPECT_FALSE(queue.WasShutdownGraceful());
    }
}

TEST_F(PlantedLinks, ThatAnIndicatorBecameAreDeletedThemselves) {
  for (const char* indicator : {kDriver, kDb}) {
    fs::remove_all(buffer);
    leaveRecord();
    PersistentDCRawBuffer queue(false);
    fs::remove(in(indicator));
    linkTo(indicator, in(indicator));
    start(queue);
    EXPECT_FALSE(fs::exists(fs::symlink_status(in(indicator))));
  }
}

TEST_F(PlantedLinks, AmongTheRestoredFilesMakeTheRestoreFail) {
  for (const char* name : {"swap.0", "swap.1", "7_mode2", "notes"}) {
    for (const char* target : {"swap.0", "swap.sub", "", "nothing"}) {
      SCOPED_TRACE(std::string(name) + " to " + target);
      fs::remove_all(buffer);
      leaveRecord();
      fs::remove(in(name));
      linkTo(target, in(name));
      PersistentDCRawBuffer queue(false);
      EXPECT_TRUE(queue.IsRescanNeeded(nullptr));
      std::list<std::string> strays;
      queue.IsRescanNeeded(&strays);
      EXPECT_TRUE(strays.empty());
    }
  }
}

TEST_F(PlantedLinks, InPlaceOfTheBufferFolderAreRefused) {
  fs::create_directory_symlink(theirs, buffer);
  for (const bool clean : {true, false}) {
    EXPECT_EQ(exceptionOf([&] { const PersistentDCRawBuffer queue(clean); }).substr(0, 2), "0 ");
  }
  EXPECT_TRUE(fs::is_symlink(buffer));
}

TEST_F(PlantedLinks, ThatTheBufferFolderBecameLeadNowhere) {
  PersistentDCRawBuffer queue(true);
  start(queue);
  fill(queue, 2);
  fs::rename(buffer, folder / "moved");
  fs::create_directory_symlink(theirs, buffer);
  EXPECT_EQ(exceptionOf([&] { fill(queue, 2); }).substr(0, 2), "0 ");
  EXPECT_EQ(exceptionOf([&] { queue.DriverThreadStarted(); }).substr(0, 2), "0 ");
  EXPECT_EQ(exceptionOf([&] { queue.RemoveSwapDir(buffer.c_str()); }).substr(0, 2), "0 ");
  stop(queue);
  EXPECT_FALSE(queue.WasShutdownGraceful());
  EXPECT_FALSE(queue.IsSaveExact());
}

TEST_F(PlantedLinks, ThatAStrayFolderBecameAreNotFollowed) {
  leaveRecord();
  fs::create_directory(in("7_mode2"));
  PersistentDCRawBuffer queue(false);
  fs::remove(in("7_mode2"));
  fs::create_directory_symlink(theirs, in("7_mode2"));
  EXPECT_EQ(exceptionOf([&] { queue.RemoveStrayFolders(); }).substr(0, 2), "0 ");
}

// Both of the other modes: the folder is swapped while a loaded file waits to be deleted.
TEST_F(PlantedLinks, ThatTheFolderOfAnotherModeBecameAreNotFollowed) {
  fs::create_directory(buffer);
  for (const UDCRawBufferMode mode : {UDC_RAW_MODE2, UDC_RAW_MODE3}) {
    const std::string own = in(mode == UDC_RAW_MODE2 ? "7_mode2" : "7");
    DCRawBuffer queue(7, mode, true);
    fill(queue, 1);
    unsigned long long number = 0;
    int bytes = 0;
    queue.SwapOrFlushBuffer(&number, &bytes);
    if (mode == UDC_RAW_MODE3) queue.ReadUntil(number, bytes);
    queue.SetContextDcIfind();
    unsigned char* data = nullptr;
    int length = 0;
    EXPECT_TRUE(queue.ReadEntry(&data, &length));
    fs::rename(own, own + "_moved");
    fs::create_directory_symlink(theirs, own);
    while (queue.ReadEntry(&data, &length)) {
    }
  }
}

TEST_F(PlantedLinks, InPlaceOfTheListOfClosedDatabasesAreNotFollowed) {
  for (const char* target : {kClosed, "nothing"}) {
    PersistentDCRawBuffer queue(true);
    linkTo(target, cacheRoot + "/" + kClosed);
    queue.DbShutDown(12);
    std::list<std::string> closed;
    queue.GetListOfDBsGracefullyClosed(&closed);
    EXPECT_TRUE(closed.empty());
    queue.FinishedHandlingCorruptDbs();
    EXPECT_TRUE(fs::is_empty(cacheRoot)) << "the link itself is deleted";
  }
}

TEST_F(PlantedLinks, InPlaceOfTheListInTheBufferFolderAreNotMoved) {
  leaveRecord();
  linkTo(kClosed, in(kClosed));
  const PersistentDCRawBuffer queue(false);
  EXPECT_TRUE(fs::is_empty(cacheRoot));
}

TEST_F(PlantedLinks, InPlaceOfTheCacheRootAreNotFollowed) {
  fs::remove(cacheRoot);
  fs::create_directory_symlink(theirs, cacheRoot);
  leaveRecord();
  put(in(kClosed), "12\n");
  PersistentDCRawBuffer queue(false);
  queue.DbShutDown(34);
  std::list<std::string> closed;
  queue.GetListOfDBsGracefullyClosed(&closed);
  EXPECT_TRUE(closed.empty());
  queue.FinishedHandlingCorruptDbs();
  EXPECT_EQ(contents(in(kClosed)), "12\n");
}

}  // namespace
