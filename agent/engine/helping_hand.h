// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A second thread for work of many small pieces, which both take as they come.
//
// Nobody waits for the helper to wake up: whoever comes late finds less to do, or nothing.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace kddc {

class HelpingHand {
 public:
  HelpingHand() : thread_([this] { run(); }) {}
  ~HelpingHand() {
    {
      const std::lock_guard lock(mutex_);
      ended_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  HelpingHand(const HelpingHand&) = delete;
  HelpingHand& operator=(const HelpingHand&) = delete;

  // Runs `work` on this thread, and on the helper's unless that comes too late; returns when it is
  // done on both. It takes its pieces by itself and must not throw.
  void share(const std::function<void()>& work) {
    {
      const std::lock_guard lock(mutex_);
      work_ = &work;
    }
    changed_.notify_all();
    work();
    std::unique_lock lock(mutex_);
    work_ = nullptr;
    changed_.wait(lock, [&] { return !helping_; });
  }

 private:
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [&] { return work_ || ended_; });
      if (ended_) return;
      const auto* work = std::exchange(work_, nullptr);
      helping_ = true;
      lock.unlock();
      (*work)();
      lock.lock();
      helping_ = false;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  const std::function<void()>* work_ = nullptr;
  bool helping_ = false;
  bool ended_ = false;
  std::thread thread_;  // last: it uses the others
};

}  // namespace kddc
