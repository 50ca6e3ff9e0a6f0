// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A queue that is killed at any moment, and the start after it: every record that waited comes
// back, or a rescan is asked for.
#include <sys/mman.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <new>
#include <random>
#include <thread>

#include "buffer/persistent_raw_buffer.h"
#include "tests/support/killed_child.h"
#include "tests/support/log_capture.h"
#include "tests/support/numbered_records.h"
#include "tests/support/queue_folders.h"

using kddc::test::KilledChild;
using kddc::test::NumberedRecords;

// Takes the place of the C library's fsync in this program: what a process has written outlives it
// anyway, and waiting for the disk would be most of the run.
extern "C" int noSync(int fd) asm("fsync");
extern "C" int noSync(int) {
  return 0;
}

namespace {

using Number = NumberedRecords::Number;

constexpr unsigned int kLongest = 32767;
constexpr Number kInALife = 500, kLeft = 30;  // records; 128 of them are a block

// What a life leaves for its parent to see, in memory that both share.
struct Journal {
  std::atomic<Number> added, read;  // records of all lives
  std::atomic<int> steps;           // of this life, so that it can be killed at any of them
};
static_assert(std::atomic<Number>::is_always_lock_free);

class SharedJournal {
 public:
  SharedJournal()
      : journal_(new (mmap(nullptr, sizeof(Journal), PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Journal{}) {}
  ~SharedJournal() { munmap(journal_, sizeof(Journal)); }
  SharedJournal(const SharedJournal&) = delete;
  SharedJournal& operator=(const SharedJournal&) = delete;

  Journal* operator->() const { return journal_; }

 private:
  Journal* journal_;
};

struct Kill : kddc::test::QueueFolders {
  const kddc::test::LogCapture quiet{0};
  SharedJournal journal;
  int restored = 0, rescans = 0;

  // Reads up to the record `end`; false when one is not the next one.
  bool readUpTo(PersistentDCRawBuffer& queue, Number end) {
    NumberedRecords records(kLongest);
    while (journal->read < end) {
      unsigned char* data = nullptr;
      int length = 0;
      if (!queue.ReadEntry(&data, &length)) continue;
      if (records.numberOf(data, length) != journal->read) return false;
      ++journal->read;
      ++journal->steps;
    }
    return true;
  }
  void add(PersistentDCRawBuffer& queue, Number count) {
    NumberedRecords records(kLongest);
    for (const Number end = journal->added + count; journal->added < end;) {
      const auto record = records.make(journal->added);
      queue.AddEntry(record.data(), static_cast<int>(record.size()));
      ++journal->added;
      ++journal->steps;
    }
  }

  // A service from start to stop: it reads what the previous one left and all that is new, so that
  // no swap file waits and its save is exact, and leaves some more for the next one.
  void live(bool twoThreads) {
    PersistentDCRawBuffer queue(false);
    ++journal->steps;
    queue.DriverThreadStarted();
    ++journal->steps;
    queue.DbThreadStarted();
    ++journal->steps;
    if (!readUpTo(queue, journal->added)) _exit(2);
    const Number end = journal->added + kInALife;
    const auto produce = [&] { add(queue, kInALife); };
    if (twoThreads) {
      std::thread producer(produce);
      const bool inOrder = readUpTo(queue, end);
      producer.join();
      if (!inOrder) _exit(2);
    } else {
      produce();
      if (!readUpTo(queue, end)) _exit(2);
    }
    add(queue, kLeft);
    queue.DriverThreadShutDown();
    ++journal->steps;
    queue.DbThreadShutDown();
    ++journal->steps;
    if (!queue.IsSaveExact()) _exit(3);
  }

  // What waited comes back, or a rescan is needed; then all is well again for the next life.
  void expectRestoreOrRescan() {
    PersistentDCRawBuffer queue(false);
    if (queue.IsRescanNeeded(nullptr)) {
      ++rescans;
      EXPECT_EQ(listing(buffer), std::vector<std::string>{});
    } else {
      ++restored;
      EXPECT_TRUE(readUpTo(queue, journal->added));
    }
  }
  // The buffer folder as a graceful stop left it, with a few records, for a life to begin with.
  void leaveRecords() {
    if (!std::filesystem::exists(left)) stopWithRecords();
    std::filesystem::remove_all(buffer);
    std::filesystem::copy(left, buffer);
    journal->added = kLeft;
    journal->read = 0;
    journal->steps = 0;
  }
  void stopWithRecords() {
    PersistentDCRawBuffer queue(true);
    queue.DriverThreadStarted();
    queue.DbThreadStarted();
    add(queue, kLeft);
    queue.DriverThreadShutDown();
    queue.DbThreadShutDown();
    ASSERT_TRUE(queue.IsSaveExact());
    std::filesystem::copy(buffer, left);
  }
  const std::string left = folder / "left";
};

TEST_F(Kill, AtARandomMomentUnderLoadLosesNoRecordWithoutAskingForARescan) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 500 && !HasFailure(); ++round) {
    leaveRecords();
    const int steps = static_cast<int>(random() % (2 * kInALife + 20));
    SCOPED_TRACE("killed after step " + std::to_string(steps));
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      live(true);
      _exit(0);
    }
    int status = 0;
    while (journal->steps < steps && waitpid(child, &status, WNOHANG) == 0)
      std::this_thread::yield();
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGKILL : WEXITSTATUS(status) == 0)
        << "status " << status;
    expectRestoreOrRescan();
  }
  EXPECT_GT(rescans, 0);
  EXPECT_GT(restored, 0);
}

TEST_F(Kill, AtAnySystemCallLosesNoRecordWithoutAskingForARescan) {
  KilledChild child;
  const auto life = [&](KilledChild::Phase&) {
    alarm(60);
    live(false);
  };
  leaveRecords();
  const std::size_t stops = child.runUntil(KilledChild::kNever, life).size();
  if (stops < 2) GTEST_SKIP() << "this machine lets no process trace its child";
  ASSERT_TRUE(child.endedWell());
  expectRestoreOrRescan();
  EXPECT_EQ(restored, 1);
  // Each call stops before and after.
  for (int stop = 1; stop <= static_cast<int>(stops) && !HasFailure(); stop += 2) {
    SCOPED_TRACE("killed at stop " + std::to_string(stop));
    leaveRecords();
    child.runUntil(stop, life);
    expectRestoreOrRescan();
  }
  EXPECT_GT(rescans, 0);
  EXPECT_GT(restored, 2);
}

}  // namespace
