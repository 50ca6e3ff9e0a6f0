// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Producer and consumer at once, through blocks and swap files, and over a restart.
#include <numeric>
#include <thread>

#include "buffer/persistent_raw_buffer.h"
#include "tests/support/queue_folders.h"

using kddc::test::add;

namespace {

constexpr int kManyRecords = 600;  // 19 MB: several swap files when the consumer starts late

class RestartedThreads : public kddc::test::QueueFolders {
 protected:
  static std::string record(int number) {
    std::string text = std::to_string(number) + " ";
    text.resize(32000, '.');
    return text;
  }
  // Reads until `last` has come; a number for each record.
  static std::vector<int> readTo(DCRawBuffer& queue, int last) {
    std::vector<int> numbers;
    while (numbers.empty() || numbers.back() < last) {
      unsigned char* data = nullptr;
      int length = 0;
      if (queue.ReadEntry(&data, &length))
        numbers.push_back(std::stoi(kddc::test::asText(data, length)));
    }
    return numbers;
  }
  static std::vector<int> range(int first, int last) {
    std::vector<int> numbers(static_cast<size_t>(last - first + 1));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
  }
};

TEST_F(RestartedThreads, PassEveryRecordOnceAndInOrder) {
  PersistentDCRawBuffer queue(true);
  std::thread producer([&] {
    for (int i = 0; i < kManyRecords; ++i) add(queue, record(i));
  });
  EXPECT_EQ(readTo(queue, kManyRecords - 1), range(0, kManyRecords - 1));
  producer.join();
}

TEST_F(RestartedThreads, ThatStopAtTheSameMomentLeaveEveryRecordForTheNextStart) {
  for (int round = 0; round < 20; ++round) {
    {
      PersistentDCRawBuffer queue(true);
      queue.DriverThreadStarted();
      queue.DbThreadStarted();
      std::thread producer([&] {
        for (int i = 0; i < 100; ++i) add(queue, record(i));
        queue.DriverThreadShutDown();
      });
      EXPECT_EQ(readTo(queue, 9), range(0, 9));
      queue.DbThreadShutDown();
      producer.join();
      ASSERT_TRUE(queue.AreJournalsSavedToDisk());
      ASSERT_TRUE(queue.IsSaveExact());
    }
    PersistentDCRawBuffer queue(false);
    ASSERT_FALSE(queue.IsRescanNeeded(nullptr));
    EXPECT_EQ(readTo(queue, 99), range(10, 99));
  }
}

}  // namespace
