// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a queue needs to begin: its settings, its folder, and what it removes there and what not.
#include <filesystem>
#include <map>
#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/raw_fixture.h"

using kddc::test::exceptionOf;
using kddc::test::LogCapture;
using kddc::test::Raw;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

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

TEST_F(Raw, LeavesTheFolderInPlaceWhenItGoesInTheFirstMode) {
  { const Queue queue; }
  EXPECT_TRUE(std::filesystem::exists(buffer));
}

}  // namespace
