// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the disk may do to a queue: take its folder away, cut a swap file at any byte, flip any bit.
#include <utility>

#include "buffer/persistent_raw_buffer.h"
#include "records/journal_record.h"
#include "tests/support/bytes.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_folders.h"
#include "tests/support/record_samples.h"

using kddc::test::add;
using kddc::test::exceptionOf;
using ::testing::ElementsAre;

namespace {

using Records = std::vector<std::string>;

// Takes the place of the C library's fsync in this program: no power is cut here.
extern "C" int noSync(int fd) asm("fsync");
extern "C" int noSync(int) {
  return 0;
}

class Queue : public PersistentDCRawBuffer {
 public:
  using PersistentDCRawBuffer::PersistentDCRawBuffer;

  // Every record that is there, without waiting for more.
  Records readAll() {
    Records records;
    unsigned char* data = nullptr;
    int length = 0;
    while (!isEmpty())
      if (ReadEntry(&data, &length)) records.push_back(kddc::test::asText(data, length));
    return records;
  }

 private:
  bool isEmpty() const NO_THREAD_SAFETY_ANALYSIS {
    return SwapQueue_m.empty() && ReadBuffer_m == WriteBuffer_m && ReadBuffer_m->Unread() == 0;
  }
};

struct Damage : kddc::test::QueueFolders {
  const kddc::test::LogCapture quiet{0};

  // A graceful stop left one swap file; what a start makes of it, and how much damage it counts.
  std::pair<Records, unsigned long long> restore(const std::string& swapFile) const {
    std::filesystem::create_directory(buffer);
    for (const char* name : {"/DriverThreadShutdownIndicator", "/DbThreadShutdownIndicator"})
      put(buffer + name, "");
    put(buffer + "/swap.0", swapFile);
    Queue queue(false);
    EXPECT_FALSE(queue.IsRescanNeeded(nullptr));
    Records records = queue.readAll();
    EXPECT_THAT(listing(buffer),
                ElementsAre("DbThreadShutdownIndicator", "DriverThreadShutdownIndicator"));
    return {records, queue.DamagedBlocks()};
  }
  static std::string encoded(const kddc::test::Sample& sample) {
    const kddc::test::Bytes wire = kddc::test::bytes(sample.wire);
    return {wire.begin(), wire.end()};
  }
  static std::string big(int number) {
    std::string record = std::to_string(number) + " ";
    record.resize(32766, '.');
    return record;
  }
};

TEST_F(Damage, OfASwapFileThatWasCutCostsTheRecordThatWasHitAndIsCounted) {
  const std::string file = stored("first") + stored("x") + stored("last one");
  for (std::size_t length = 0; length <= file.size(); ++length) {
    SCOPED_TRACE("cut to " + std::to_string(length) + " bytes");
    const auto [records, damage] = restore(file.substr(0, length));
    Records whole{"first", "x", "last one"};
    whole.resize(length < 7 ? 0 : length < 10 ? 1 : length < 20 ? 2 : 3);
    EXPECT_EQ(records, whole);
    // The format has no mark for the end of a file: a cut between two records cannot be seen.
    const bool between = length == 0 || length == 7 || length == 10 || length == 20;
    EXPECT_EQ(damage, between ? 0u : 1u);
  }
}

TEST_F(Damage, OfAnyBitNeverLeadsOutOfTheFileAndWhatFailsTheCheckIsNotDecoded) {
  const std::string file = stored(encoded(kddc::test::samples::noop())) +
                           stored(encoded(kddc::test::samples::txtmsg())) +
                           stored(encoded(kddc::test::samples::unstub()));
  int lost = 0;
  for (std::size_t bit = 0; bit < 8 * file.size(); ++bit) {
    SCOPED_TRACE("bit " + std::to_string(bit));
    std::string flipped = file;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ (1 << bit % 8));
    const auto [records, damage] = restore(flipped);
    std::size_t bytes = 0;
    for (const std::string& record : records) {
      EXPECT_NE(flipped.find(record), std::string::npos);
      bytes += record.size() + 2;
      const auto* data = reinterpret_cast<const unsigned char*>(record.data());
      if (!kddc::isWellFormedRecord(data, record.size())) continue;
      FlrJrnCommandRaw decoded;
      EXPECT_EQ(decodeRawCmd(data, &decoded), 0);
      EXPECT_LE(getRawCmdSize(&decoded), record.size());
    }
    EXPECT_LE(bytes, file.size());
    if (bytes < file.size()) {
      EXPECT_EQ(damage, 1u) << "records are missing";
      ++lost;
    }
    if (HasFailure()) break;
  }
  EXPECT_GT(lost, 0);
}

TEST_F(Damage, ByALengthOfZeroIsTheEndOfNothingButItself) {
  const auto [records, damage] = restore(stored("a") + std::string("\0\0", 2) + stored("b"));
  EXPECT_THAT(records, ElementsAre("a", "b"));
  EXPECT_EQ(damage, 0u);
}

// ---- the folder vanishes -------------------------------------------------------------------

TEST_F(Damage, ByAFolderThatVanishedKeepsTheRecordsInMemoryAndIsReported) {
  Queue queue(true);
  queue.DriverThreadStarted();
  queue.DbThreadStarted();
  int added = 0;
  std::filesystem::remove(buffer);
  std::string failure = "no exception";
  while (failure == "no exception" && added < 1000)
    failure = exceptionOf([&] { add(queue, big(added++)); });
  EXPECT_EQ(failure, "0 2 swap file open failed");  // ENOENT
  EXPECT_EQ(exceptionOf([&] { add(queue, big(added - 1)); }), "0 2 swap file open failed");

  std::filesystem::create_directory(buffer);
  EXPECT_EQ(add(queue, big(added - 1)), 0);
  Records expected;
  for (int i = 0; i < added; ++i) expected.push_back(big(i));
  EXPECT_EQ(queue.readAll(), expected);
}

TEST_F(Damage, ByAFolderThatVanishedBeforeTheStopIsNoSaveToBeTrusted) {
  {
    Queue queue(true);
    queue.DriverThreadStarted();
    queue.DbThreadStarted();
    add(queue, "lost");
    std::filesystem::remove(buffer);
    queue.DriverThreadShutDown();
    queue.DbThreadShutDown();
    EXPECT_FALSE(queue.IsSaveExact());
    EXPECT_FALSE(std::filesystem::exists(buffer));
  }
  EXPECT_EQ(exceptionOf([] { const Queue queue(false); }), "1 0 Buffer Folder does not exist");
  std::filesystem::create_directory(buffer);
  EXPECT_TRUE(Queue(false).IsRescanNeeded(nullptr));
}

TEST_F(Damage, ByASwapFileThatVanishedIsReportedAtEachRead) {
  Queue queue(true);
  int added = 0;
  while (listing(buffer).empty() && added < 1000) add(queue, big(added++));
  ASSERT_THAT(listing(buffer), ElementsAre("swap.2"));
  std::filesystem::remove(buffer + "/swap.2");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(exceptionOf([&] { queue.readAll(); }), "0 2 swap file open failed");
  }
}

}  // namespace
