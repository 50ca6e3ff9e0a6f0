// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Entries on their way from the walk to the catalogue: batches, and a short queue of them.
//
//   walking thread ─► push ─► [batch][batch]... at most 128 ─► pop ─► inserting thread
//
// Whoever is slower sets the pace, so what waits is memory for nothing, but for one thing: the
// inserting side stops from time to time to write what it held back, and the walk goes on
// meanwhile.
#pragma once

#include <sys/stat.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/file_id.h"

namespace kddc {

// Some entries with their names in one buffer.
struct Batch {
  struct Entry {
    struct stat st;
    fsf_fid fid;
    std::uint64_t parent;
    bool isStub;
    std::uint32_t nameEnd;  // in names; the name begins where the one before ends

    // Not an entry, but the news that `parent` has no more of them.
    bool isEndOfFolder() const { return st.st_mode == 0; }
  };
  std::vector<Entry> entries;
  std::string names;
};

// Between one producer and one consumer. Either may end it: the producer with finish, when there is
// no more, anybody with stop, when there is no point any more.
class BatchQueue {
 public:
  // Waits while the queue is full. False once it was stopped: the batch is not wanted.
  bool push(Batch batch) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return stopped_ || batches_.size() < kMost; });
    if (stopped_) return false;
    batches_.push_back(std::move(batch));
    changed_.notify_all();
    return true;
  }
  // Waits for a batch; none when there are no more, or the queue was stopped.
  std::optional<Batch> pop() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return stopped_ || finished_ || !batches_.empty(); });
    if (stopped_ || batches_.empty()) return std::nullopt;
    Batch batch = std::move(batches_.front());
    batches_.pop_front();
    changed_.notify_all();
    return batch;
  }
  void finish() { end(finished_); }
  void stop() { end(stopped_); }

 private:
  static constexpr std::size_t kMost = 128;

  void end(bool& flag) {
    const std::lock_guard lock(mutex_);
    flag = true;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Batch> batches_;
  bool finished_ = false;
  bool stopped_ = false;
};

}  // namespace kddc
