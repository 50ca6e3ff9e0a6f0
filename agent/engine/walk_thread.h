// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A walk on a thread of its own, whose entries come in batches.
//
//   walking thread ─► walkTree ─► batch ─► BatchQueue ─► next() on the caller's thread
//
// Whichever side fails first stops the queue, which wakes the other one up: the failure of the walk
// is kept for `finish`, that of the caller takes the object with it.
#pragma once

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "agent/engine/batch_queue.h"
#include "agent/engine/walk.h"

namespace kddc {

class WalkThread {
 public:
  struct Wishes {
    bool endsOfFolders = false;        // the batches also tell the end of each folder
    std::function<void()> check = {};  // called at every entry; what it throws ends the walk
  };

  WalkThread(UniqueFd root, std::string rootName, WalkOptions options, Wishes wishes);
  // Ends the walk, finished or not.
  ~WalkThread();
  WalkThread(const WalkThread&) = delete;
  WalkThread& operator=(const WalkThread&) = delete;

  // Waits for a batch; none when the walk is over or has failed.
  std::optional<Batch> next() { return queue_.pop(); }
  // After the last batch: the walk's result. Throws what the walk has thrown.
  WalkCounts finish();

 private:
  void run();
  void walk();
  void add(const WalkedEntry& entry);
  void put(const struct stat& st, const fsf_fid& fid, std::uint64_t parent, bool isStub);
  void flush();
  void renew();

  UniqueFd root_;
  std::string rootName_;
  WalkOptions options_;
  Wishes wishes_;

  BatchQueue queue_;
  Batch batch_;
  WalkCounts counts_;
  std::exception_ptr failure_;
  std::thread thread_;  // last: it uses the others
};

}  // namespace kddc
