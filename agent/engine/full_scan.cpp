// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Whichever thread fails first stops the queue, which wakes the other one up. The failure of the
// inserting side travels as its exception, that of the walking side is kept for `finish`.
#include "agent/engine/full_scan.h"

#include <exception>
#include <string_view>
#include <thread>
#include <utility>

#include "agent/engine/batch_queue.h"
#include "agent/interrupt.h"
#include "catalogue/file_type.h"

namespace kddc {
namespace {

constexpr std::size_t kBatchEntries = 1000;

// Leaves the walk when nobody wants its entries any more.
struct NotWanted {};

// The walking side.
class Producer {
 public:
  Producer(BatchQueue& queue, const std::string& volumePath)
      : queue_(queue), volumePath_(volumePath) {
    renew();
  }

  void add(const WalkedEntry& entry) {
    if (interrupted()) throw scanInterrupted(volumePath_);
    batch_.names += entry.name;
    batch_.entries.push_back({entry.st, entry.fid, entry.parent, entry.isStub,
                              static_cast<std::uint32_t>(batch_.names.size())});
    if (batch_.entries.size() == kBatchEntries) flush();
  }
  void flush() {
    if (!queue_.push(std::exchange(batch_, {}))) throw NotWanted();
    renew();
  }

 private:
  void renew() {
    batch_.entries.reserve(kBatchEntries);
    batch_.names.reserve(kBatchEntries * 16);
  }

  BatchQueue& queue_;
  const std::string& volumePath_;
  Batch batch_;
};

// The inserting side.
class Consumer {
 public:
  Consumer(ScanCatalogue& catalogue, const ScanProgress& progress)
      : catalogue_(catalogue), progress_(progress) {}

  void insert(const Batch& batch) {
    std::size_t begin = 0;
    for (const Batch::Entry& entry : batch.entries) {
      insert(entry, std::string_view(batch.names).substr(begin, entry.nameEnd - begin));
      begin = entry.nameEnd;
    }
    progress_(entries_ += batch.entries.size());
  }

 private:
  void insert(const Batch::Entry& entry, std::string_view name) {
    row_.st = entry.st;
    row_.fid = entry.fid;
    row_.name = name;
    const unsigned long long inode =
        catalogue_.insertRow(row_, inodes_[entry.parent], entry.isStub ? kStub : kDeriveFromMode);
    if (S_ISDIR(entry.st.st_mode)) inodes_.push_back(inode);
  }

  ScanCatalogue& catalogue_;
  const ScanProgress& progress_;
  StatFidName_s row_{};
  std::vector<unsigned long long> inodes_ = {0};  // by the walk's numbers; 0 is above the root
  std::uint64_t entries_ = 0;
};

// The walk on its own thread, joined and asked for its result by `finish`.
class WalkThread {
 public:
  template <class Walk>
  WalkThread(BatchQueue& queue, Walk walk)
      : queue_(queue), thread_([this, walk = std::move(walk)]() mutable { run(walk); }) {}
  ~WalkThread() {
    queue_.stop();
    if (thread_.joinable()) thread_.join();
  }
  WalkThread(const WalkThread&) = delete;
  WalkThread& operator=(const WalkThread&) = delete;

  WalkCounts finish() {
    thread_.join();
    if (failure_) std::rethrow_exception(failure_);
    return counts_;
  }

 private:
  template <class Walk>
  void run(Walk& walk) {
    try {
      counts_ = walk();
      queue_.finish();
    } catch (const NotWanted&) {
    } catch (...) {
      failure_ = std::current_exception();
      queue_.stop();
    }
  }

  BatchQueue& queue_;
  WalkCounts counts_;
  std::exception_ptr failure_;
  std::thread thread_;  // last: it uses the others
};

}  // namespace

Failure scanInterrupted(const std::string& volumePath) {
  return Failure("the scan of " + volumePath + " was interrupted; nothing was changed");
}

WalkCounts fullScan(UniqueFd volume, const std::string& volumePath, const WalkOptions& options,
                    ScanCatalogue& catalogue, const ScanProgress& progress) {
  BatchQueue queue;
  WalkThread walker(queue, [&, root = std::move(volume)]() mutable {
    Producer producer(queue, volumePath);
    const WalkCounts counts = walkTree(std::move(root), volumePath, options,
                                       [&](const WalkedEntry& entry) { producer.add(entry); });
    producer.flush();
    return counts;
  });
  Consumer consumer(catalogue, progress);
  while (const auto batch = queue.pop()) consumer.insert(*batch);
  return walker.finish();
}

}  // namespace kddc
