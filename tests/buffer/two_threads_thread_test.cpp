// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Millions of records from thread to thread, in the three modes: each once, in order, every byte
// as it was. Whoever is slow is so by work, so that the other one really runs ahead.
#include <atomic>
#include <semaphore>
#include <thread>

#include "buffer/raw_buffer.h"
#include "platform/ev_debug.h"
#include "tests/support/numbered_records.h"
#include "tests/support/queue_folders.h"

using kddc::test::NumberedRecords;

namespace {

using Number = NumberedRecords::Number;

#if defined(__SANITIZE_THREAD__) || defined(KDDC_ADDRESS_SANITIZER)
constexpr Number kShare = 10;
#else
constexpr Number kShare = 1;
#endif

// The sanitizers slow the queue down but not this work, which must stay the slower one.
constexpr int kSlow = 5000 * static_cast<int>(kShare * kShare / 4 + 1);
constexpr unsigned int kShort = 200, kMedium = 2000, kLongest = 32767;

// Something to do that takes a while, and that no compiler leaves out.
void work(int steps) {
  volatile unsigned int value = 1;
  for (int i = 0; i < steps; ++i) value = value * 1664525 + 1013904223;
}

// Counts, from any thread, the swap files that are written while it lives.
class SwapFileCount {
 public:
  SwapFileCount() {
    dbg.SetLevel(4);
    previous_ = dbg.SetSink([this](const EvDebug::Line& line) {
      if (line.text.starts_with("Dumping to swap")) ++count_;
    });
  }
  ~SwapFileCount() {
    dbg.SetSink(std::move(previous_));
    dbg.SetLevel(0);
  }
  SwapFileCount(const SwapFileCount&) = delete;
  SwapFileCount& operator=(const SwapFileCount&) = delete;

  int value() const { return count_; }

 private:
  std::atomic<int> count_ = 0;
  EvDebug::Sink previous_;
};

// Takes records out and expects them to be the next ones.
class Consumer {
 public:
  Consumer(DCRawBuffer& queue, unsigned int longest) : queue_(queue), records_(longest) {}

  // One call of ReadEntry; whether it brought a record.
  bool readOnce() {
    unsigned char* data = nullptr;
    int length = -1;
    if (!queue_.ReadEntry(&data, &length)) return false;
    if (records_.numberOf(data, length) != next_) ++wrong_;
    ++next_;
    return true;
  }
  // What is there now, in the modes where a consumer never waits.
  void readAll() {
    while (readOnce()) {
    }
  }
  Number read() const { return next_; }
  Number wrong() const { return wrong_; }

 private:
  DCRawBuffer& queue_;
  NumberedRecords records_;
  Number next_ = 0, wrong_ = 0;
};

class Producer {
 public:
  Producer(DCRawBuffer& queue, unsigned int longest) : queue_(queue), records_(longest) {}

  void add(Number count) {
    for (const Number end = next_ + count; next_ < end; ++next_) {
      const auto record = records_.make(next_);
      failed_ |= queue_.AddEntry(record.data(), static_cast<int>(record.size())) != 0;
    }
  }
  bool failed() const { return failed_; }

 private:
  DCRawBuffer& queue_;
  NumberedRecords records_;
  Number next_ = 0;
  bool failed_ = false;
};

struct TwoThreads : kddc::test::QueueFolders {
  const SwapFileCount swapFiles;

  // Both at once, with so much work for each record; `consumerWork` is asked for its own.
  template <class ConsumerWork>
  void pass(Number count, unsigned int longest, int producerWork, ConsumerWork consumerWork) {
    DCRawBuffer queue(1, UDC_RAW_MODE1, true);
    Producer producer(queue, longest);
    std::thread thread([&] {
      for (Number i = 0; i < count; ++i) {
        producer.add(1);
        if (producerWork > 0) work(producerWork);
      }
    });
    Consumer consumer(queue, longest);
    while (consumer.read() < count)
      if (consumer.readOnce()) work(consumerWork(consumer.read()));
    thread.join();
    EXPECT_FALSE(producer.failed());
    EXPECT_EQ(consumer.wrong(), 0u);
    EXPECT_EQ(listing(buffer), std::vector<std::string>{}) << "every swap file was read";
    EXPECT_EQ(queue.DamagedBlocks(), 0u);
  }
};

constexpr auto kNoWork = [](Number) { return 0; };

TEST_F(TwoThreads, PassMillionsOfRecordsWhenNeitherWaitsForWork) {
  pass(3'000'000 / kShare, kShort, 0, kNoWork);
}

TEST_F(TwoThreads, PassEveryRecordToAConsumerThatKeepsWaitingForTheNext) {
  pass(300'000 / kShare, kShort, 500, kNoWork);
}

TEST_F(TwoThreads, PassEveryRecordThroughSwapFilesToAConsumerThatIsSlow) {
  pass(100'000 / kShare, kMedium, 0, [](Number) { return kSlow; });
  EXPECT_GT(swapFiles.value(), 0);
}

TEST_F(TwoThreads, PassEveryRecordToAConsumerThatFallsBehindAndCatchesUpAgainAndAgain) {
  constexpr Number kRecords = 1'000'000 / kShare;
  const auto workOf = [](Number read) { return read % (kRecords / 4) < kRecords / 64 ? kSlow : 0; };
  pass(kRecords, kMedium, 300, workOf);
  EXPECT_GT(swapFiles.value(), 0);
}

TEST_F(TwoThreads, PassRecordsOfEveryLengthThereIs) {
  pass(20'000 / kShare, kLongest, 0, kNoWork);
}

TEST_F(TwoThreads, PassEveryRecordWithMoreBlocksThanTwo) {
  configure("nRawBufferMaxVMSize = 5");
  // Slow enough that a machine with much else to do does not bring the two level.
  pass(20'000 / kShare, kLongest, 0, [](Number) { return 4 * kSlow; });
  EXPECT_GT(swapFiles.value(), 0);
}

// In the other modes one thread at a time uses the queue; who may is passed on with a baton.
TEST_F(TwoThreads, TakeTurnsInTheSecondModeAndLoseNothing) {
  constexpr Number kTurns = 20, kInTurn = 100'000 / kShare;
  std::filesystem::create_directory(buffer);
  DCRawBuffer queue(1, UDC_RAW_MODE2, true);
  std::binary_semaphore producersTurn(1), consumersTurn(0);
  Producer producer(queue, kShort);
  std::thread thread([&] {
    for (Number turn = 0; turn < kTurns; ++turn) {
      producersTurn.acquire();
      producer.add(kInTurn);
      unsigned long long number = 0;
      int bytes = 0;
      if (turn + 1 == kTurns) queue.SwapOrFlushBuffer(&number, &bytes);
      consumersTurn.release();
    }
  });
  Consumer consumer(queue, kShort);
  for (Number turn = 0; turn < kTurns; ++turn) {
    consumersTurn.acquire();
    consumer.readAll();
    producersTurn.release();
  }
  thread.join();
  EXPECT_FALSE(producer.failed());
  EXPECT_EQ(consumer.read(), kTurns * kInTurn);
  EXPECT_EQ(consumer.wrong(), 0u);
}

TEST_F(TwoThreads, HandOverAWholeRunInTheThirdMode) {
  constexpr Number kRecords = 2'000'000 / kShare;
  std::filesystem::create_directory(buffer);
  DCRawBuffer queue(1, UDC_RAW_MODE3, true);
  Producer producer(queue, kShort);
  unsigned long long lastFile = 0;
  int lastBytes = 0;
  std::thread([&] {
    queue.SetContextDbThreadWrite();
    producer.add(kRecords);
    queue.SwapOrFlushBuffer(&lastFile, &lastBytes);
  }).join();

  Consumer consumer(queue, kShort);
  std::thread([&] {
    queue.ReadUntil(lastFile, lastBytes);
    queue.SetContextDcIfind();
    consumer.readAll();
  }).join();
  EXPECT_FALSE(producer.failed());
  EXPECT_EQ(consumer.read(), kRecords);
  EXPECT_EQ(consumer.wrong(), 0u);
}

}  // namespace
