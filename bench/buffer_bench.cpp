// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The queue of records beside what else could carry them:
//
//   Pass/memory   from thread to thread, with blocks enough for a reader that lags, beside a deque
//                 under a mutex, which has no bound either (Pass/mutex), and, where Boost is
//                 installed, its lock-free ring, whose threads never sleep (Pass/ring)
//   Pass/default  the same with two blocks, so that much goes through swap files
//   Spill/<n>     records of n bytes into swap files and back, the reader coming last, beside the
//                 same bytes in blocks that are only written and read (Spill/bare)
//
//   buffer_bench [--smoke] [--benchmark_repetitions=N] [--benchmark_filter=REGEX]
//
// Swap files of a running queue are not synced, and so neither are those of the floor. Works in
// $KDDC_BENCH_DIR (default /var/tmp).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>
#ifdef KDDC_BOOST_LOCKFREE
#include <boost/lockfree/spsc_queue.hpp>
#endif

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/bare_catalogue.h"
#include "bench/ratios.h"
#include "buffer/raw_buffer.h"
#include "platform/platform_info.h"
#include "platform/unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBlock = 2097152;
constexpr std::size_t kRecord = 120;  // bytes of a CREATE
using Record = std::array<unsigned char, kRecord>;

// Not assert, which a release build drops.
void require(bool holds) {
  if (!holds) std::abort();
}

// The folder of a queue, and its settings.
class BufferFolder {
 public:
  explicit BufferFolder(int blocks) {
    std::filesystem::create_directory(path());
    KDPlatformInfo::setDefault("DataClassification", "dRawBufferDir", path());
    KDPlatformInfo::setDefault("DataClassification", "nRawBufferMaxVMSize", std::to_string(blocks));
  }
  std::string path() const { return folder_.catalogue(); }

 private:
  kddc::bench::Folder folder_;
};

// ---- from thread to thread --------------------------------------------------------------------

// Each of these takes one record and hands one out, waiting for it as long as it takes.
template <int kBlocks>
class Queue {
 public:
  void push(Record& record) { queue_.AddEntry(record.data(), static_cast<int>(kRecord)); }
  template <class Use>
  void pop(Use&& use) {
    unsigned char* data = nullptr;
    int length = 0;
    while (!queue_.ReadEntry(&data, &length)) {
    }
    use(data);
  }

 private:
  BufferFolder folder_{kBlocks};
  DCRawBuffer queue_{1, UDC_RAW_MODE1, true};
};

class MutexQueue {
 public:
  void push(const Record& record) {
    bool wasEmpty = false;
    {
      const std::scoped_lock lock(mutex_);
      wasEmpty = records_.empty();
      records_.push_back(record);
    }
    if (wasEmpty) filled_.notify_one();
  }
  template <class Use>
  void pop(Use&& use) {
    Record record;
    {
      std::unique_lock lock(mutex_);
      filled_.wait(lock, [&] { return !records_.empty(); });
      record = records_.front();
      records_.pop_front();
    }
    use(record.data());
  }

 private:
  std::mutex mutex_;
  std::condition_variable filled_;
  std::deque<Record> records_;
};

#ifdef KDDC_BOOST_LOCKFREE
class Ring {
 public:
  void push(const Record& record) {
    while (!ring_->push(record)) std::this_thread::yield();
  }
  template <class Use>
  void pop(Use&& use) {
    while (!ring_->consume_one([&](const Record& record) { use(record.data()); }))
      std::this_thread::yield();
  }

 private:
  static constexpr std::size_t kCapacity = 2 * kBlock / kRecord;
  using Fixed = boost::lockfree::spsc_queue<Record, boost::lockfree::capacity<kCapacity>>;
  std::unique_ptr<Fixed> ring_ = std::make_unique<Fixed>();
};
#endif

template <class Target>
void pass(benchmark::State& state, std::size_t count) {
  for (auto _ : state) {
    Target target;
    const auto began = Clock::now();
    std::thread producer([&] {
      Record record{};
      for (std::size_t i = 0; i < count; ++i) {
        std::memcpy(record.data(), &i, sizeof i);
        target.push(record);
      }
    });
    for (std::size_t i = 0; i < count; ++i)
      target.pop([&](const unsigned char* data) { require(std::memcmp(data, &i, sizeof i) == 0); });
    producer.join();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - began).count());
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}

// ---- through swap files -----------------------------------------------------------------------

void spill(benchmark::State& state, std::size_t blocks, std::size_t length) {
  const std::size_t count = blocks * (kBlock / (length + 2));
  std::vector<unsigned char> record(length, 'r');
  for (auto _ : state) {
    const BufferFolder folder(2);
    DCRawBuffer queue(1, UDC_RAW_MODE1, true);
    const auto began = Clock::now();
    for (std::size_t i = 0; i < count; ++i) queue.AddEntry(record.data(), static_cast<int>(length));
    for (std::size_t read = 0; read < count;) {
      unsigned char* data = nullptr;
      int size = 0;
      if (queue.ReadEntry(&data, &size)) ++read;
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - began).count());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(blocks * kBlock));
}

void spillBare(benchmark::State& state, std::size_t blocks) {
  std::vector<unsigned char> block(kBlock, 'r');
  const auto fileOf = [](const BufferFolder& folder, std::size_t i) {
    return folder.path() + "/" + std::to_string(i);
  };
  for (auto _ : state) {
    const BufferFolder folder(2);
    const auto began = Clock::now();
    for (std::size_t i = 0; i < blocks; ++i) {
      const kddc::UniqueFd file(
          open(fileOf(folder, i).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      require(write(file.get(), block.data(), kBlock) == kBlock);
    }
    for (std::size_t i = 0; i < blocks; ++i) {
      const kddc::UniqueFd file(open(fileOf(folder, i).c_str(), O_RDONLY | O_CLOEXEC));
      require(read(file.get(), block.data(), kBlock) == kBlock);
      require(unlink(fileOf(folder, i).c_str()) == 0);
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - began).count());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(blocks * kBlock));
}

template <class Measure>
void add(const char* name, Measure measure) {
  benchmark::RegisterBenchmark(name, measure)
      ->Iterations(1)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

// Each is the cost of one record, in this order.
std::vector<kddc::bench::Measured> figuresOf(std::size_t records, std::size_t blocks) {
  struct Row {
    const char* ours;
    const char* floor;
    const char* what;
    const char* beside;
    double aim;
    std::size_t count;
  };
  const std::size_t large = 32766, ofBlocks = blocks * kBlock;
  std::vector<kddc::bench::Measured> figures;
  for (const Row& row : {Row{"Pass/memory", "Pass/mutex", "120 bytes from thread to thread",
                             "a deque under a mutex", 1, records},
                         {"Pass/memory", "Pass/ring", "120 bytes from thread to thread",
                          "a lock-free ring, whose threads never sleep", 0, records},
                         {"Pass/default", "Pass/mutex", "120 bytes, with two blocks",
                          "the same deque, which has no bound", 0, records},
                         {"Spill/32766", "Spill/bare", "32,766 bytes through swap files",
                          "bare blocks", 0.8, ofBlocks / (large + 2)},
                         {"Spill/120", "Spill/bare", "120 bytes through swap files", "bare blocks",
                          0.8, ofBlocks / (kRecord + 2)}})
    figures.push_back(
        {.ours = row.ours,
         .floor = row.floor,
         .figure = {.table = "queue", .what = row.what, .beside = row.beside, .aim = row.aim},
         .count = static_cast<double>(row.count)});
  return figures;
}

}  // namespace

int main(int argc, char** argv) {
  const bool smoke = kddc::bench::isSmoke(argc, argv);
  const std::size_t records = smoke ? 50000 : 500000, blocks = smoke ? 6 : 32;
  add("Pass/memory", [=](benchmark::State& state) { pass<Queue<64>>(state, records); });
  add("Pass/default", [=](benchmark::State& state) { pass<Queue<2>>(state, records); });
  add("Pass/mutex", [=](benchmark::State& state) { pass<MutexQueue>(state, records); });
#ifdef KDDC_BOOST_LOCKFREE
  add("Pass/ring", [=](benchmark::State& state) { pass<Ring>(state, records); });
#endif
  for (const std::size_t length : {kRecord, std::size_t{32766}})
    add(("Spill/" + std::to_string(length)).c_str(),
        [=](benchmark::State& state) { spill(state, blocks, length); });
  add("Spill/bare", [=](benchmark::State& state) { spillBare(state, blocks); });
  return kddc::bench::runAndReport(argc, argv, 25, figuresOf(records, blocks));
}
