// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a start makes of everything that a stop may leave behind, and what a stop makes of every
// short run: either all records come back in order, or somebody is told that they do not.
#include <algorithm>
#include <list>
#include <memory>

#include "buffer/persistent_raw_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_folders.h"

using kddc::test::LogCapture;

// Takes the place of the C library's fsync in this program: what a process has written outlives it
// anyway, and waiting for the disk would be most of the run.
extern "C" int noSync(int fd) asm("fsync");
extern "C" int noSync(int) {
  return 0;
}

namespace {

constexpr char kDriver[] = "DriverThreadShutdownIndicator", kDb[] = "DbThreadShutdownIndicator";
constexpr char kClosed[] = "GracefullClosedDbs";

using Names = std::vector<std::string>;

// The next `count` records, by what stands before the first blank. Not asked for more than there
// are: a queue without records lets its reader wait.
Names take(PersistentDCRawBuffer& queue, std::size_t count) {
  Names names;
  for (std::size_t calls = 0; names.size() < count && calls < 2 * count + 20; ++calls) {
    unsigned char* data = nullptr;
    int length = 0;
    if (!queue.ReadEntry(&data, &length)) continue;
    const std::string text = kddc::test::asText(data, length);
    names.push_back(text.substr(0, text.find(' ')));
  }
  return names;
}

// ---- every start ----------------------------------------------------------------------------

// What a buffer folder and a cache root may hold, in every combination.
struct Remains {
  std::string indicators;      // of "driver", "db"
  std::vector<int> numbers;    // of swap files, each with two records
  Names folders;               // with a swap file in each
  std::string stranger;        // "" or the name of a file that is not ours
  std::string closedInBuffer;  // the lists of closed databases, "" for none
  std::string closedInCache;
  bool cleanStart;

  bool graceful() const { return indicators == "driver db"; }
  bool rescan() const { return cleanStart || !graceful() || !stranger.empty(); }

  friend std::ostream& operator<<(std::ostream& to, const Remains& remains) {
    to << "indicators '" << remains.indicators << "', swap files";
    for (const int number : remains.numbers) to << ' ' << number;
    to << ", folders";
    for (const std::string& name : remains.folders) to << ' ' << name;
    return to << ", stranger '" << remains.stranger << "', closed in buffer '"
              << remains.closedInBuffer << "', in cache '" << remains.closedInCache
              << (remains.cleanStart ? "', clean start" : "'");
  }
};

std::vector<Remains> everyCombination() {
  std::vector<Remains> all;
  for (const char* indicators : {"", "driver", "db", "driver db"})
    for (const std::vector<int>& numbers : {std::vector<int>{}, {10, 3, 0}, {2, 100, 20}})
      for (const Names& folders : {Names{}, Names{"2049_mode2", "_odd", "77"}})
        for (const char* stranger : {"", "notes.txt", "swap", "swap.007"})
          for (const char* inBuffer : {"", "12\n"})
            for (const char* inCache : {"", "34\n56\n"})
              for (const bool clean : {false, true})
                all.push_back({indicators, numbers, folders, stranger, inBuffer, inCache, clean});
  return all;
}

class Restart : public kddc::test::QueueFolders {
 protected:
  std::string in(const std::string& name) const { return buffer + "/" + name; }

  void layOut(const Remains& remains) const {
    for (const std::string& folderName : {buffer, cacheRoot}) {
      std::filesystem::remove_all(folderName);
      std::filesystem::create_directory(folderName);
    }
    if (remains.indicators.find("driver") != std::string::npos) put(in(kDriver), "");
    if (remains.indicators.find("db") != std::string::npos) put(in(kDb), "");
    for (const int number : remains.numbers)
      put(in("swap." + std::to_string(number)),
          stored(std::to_string(number) + "a") + stored(std::to_string(number) + "b"));
    for (const std::string& name : remains.folders) {
      std::filesystem::create_directory(in(name));
      put(in(name + "/swap.0"), stored("stray"));
    }
    if (!remains.stranger.empty()) put(in(remains.stranger), stored("stranger"));
    if (!remains.closedInBuffer.empty()) put(in(kClosed), remains.closedInBuffer);
    if (!remains.closedInCache.empty()) put(cacheRoot + "/" + kClosed, remains.closedInCache);
  }

  // A restore that failed may have seen some of the folders, which are gone then.
  static void expectAnswer(PersistentDCRawBuffer& queue, const Remains& remains) {
    std::list<std::string> strays, expected;
    EXPECT_EQ(queue.IsRescanNeeded(&strays), remains.rescan());
    if (remains.graceful() && !remains.stranger.empty()) return;
    if (!remains.rescan() && !remains.folders.empty()) expected = {"2049", "77", "_odd"};
    strays.sort();
    EXPECT_EQ(strays, expected);
  }

  static void expectRecords(PersistentDCRawBuffer& queue, const Remains& remains) {
    std::vector<int> numbers = remains.numbers;
    std::sort(numbers.begin(), numbers.end());
    Names expected;
    if (!remains.rescan())
      for (const int number : numbers)
        for (const char* suffix : {"a", "b"}) expected.push_back(std::to_string(number) + suffix);
    expected.push_back("new");
    kddc::test::add(queue, "new");
    EXPECT_EQ(take(queue, expected.size()), expected);
  }

  void expectFolder(const Remains& remains) const {
    Names expected;
    if (!remains.rescan() && !remains.closedInBuffer.empty() && !remains.closedInCache.empty())
      expected.push_back(kClosed);
    // "swap.007" is deleted like every file that begins so.
    if (remains.rescan() && (remains.stranger == "notes.txt" || remains.stranger == "swap"))
      expected.push_back(remains.stranger);
    EXPECT_EQ(listing(buffer), expected);
  }

  // A list in the buffer folder counts only where the cache root has none; a clean start throws it
  // away before it is looked for.
  static void expectClosed(PersistentDCRawBuffer& queue, const Remains& remains) {
    std::list<std::string> closed, expected;
    if (!remains.closedInCache.empty())
      expected = {"34", "56"};
    else if (!remains.closedInBuffer.empty() && !remains.cleanStart)
      expected = {"12"};
    queue.GetListOfDBsGracefullyClosed(&closed);
    EXPECT_EQ(closed, expected);
  }
};

TEST_F(Restart, BringsEveryRecordBackOrReportsARescanWhateverTheStopLeft) {
  const LogCapture quiet(0);
  for (const Remains& remains : everyCombination()) {
    SCOPED_TRACE(::testing::PrintToString(remains));
    layOut(remains);
    PersistentDCRawBuffer queue(remains.cleanStart);
    expectAnswer(queue, remains);
    expectClosed(queue, remains);
    queue.RemoveStrayFolders();
    queue.DriverThreadStarted();
    queue.DbThreadStarted();
    expectRecords(queue, remains);
    expectFolder(remains);
    if (HasFailure()) break;
  }
}

// ---- every stop -----------------------------------------------------------------------------

// A short run, written as letters: A adds records that fill half a block, r reads so many, R reads
// all there are, | stops and starts again.
class ShortRun {
 public:
  ShortRun() : queue_(std::make_unique<PersistentDCRawBuffer>(true)) { start(); }

  // Up to the first stop that does not vouch for its save.
  void go(const std::string& letters) {
    for (const char letter : letters)
      if (saveIsExact_) step(letter);
  }
  bool saveIsExact() const { return saveIsExact_; }

  // Whether what was added and not read comes back, once and in order, and nothing else.
  bool isComplete() {
    add("end", 3);
    while (!waiting_.empty() && complete_) read(1);
    return complete_;
  }

 private:
  static constexpr std::size_t kHalfABlock = 32;  // records of 32766 bytes, 64 of which are a block

  void step(char letter) {
    if (letter == 'A') {
      for (std::size_t i = 0; i < kHalfABlock; ++i) add(std::to_string(next_++), 32766);
    } else if (letter == '|') {
      stopAndStart();
    } else {
      read(letter == 'R' ? waiting_.size() : std::min(kHalfABlock, waiting_.size()));
    }
  }
  void start() {
    queue_->DriverThreadStarted();
    queue_->DbThreadStarted();
  }
  void add(std::string record, std::size_t length) {
    waiting_.push_back(record);
    record.resize(length, ' ');
    kddc::test::add(*queue_, record);
  }
  void read(std::size_t count) {
    for (; count > 0 && complete_; --count) {
      complete_ = take(*queue_, 1) == Names{waiting_.front()};
      waiting_.pop_front();
    }
  }
  void stopAndStart() {
    queue_->DriverThreadShutDown();
    queue_->DbThreadShutDown();
    saveIsExact_ = queue_->IsSaveExact();
    queue_ = std::make_unique<PersistentDCRawBuffer>(false);
    EXPECT_FALSE(queue_->IsRescanNeeded(nullptr));
    start();
  }

  std::unique_ptr<PersistentDCRawBuffer> queue_;
  std::list<std::string> waiting_;
  int next_ = 0;
  bool complete_ = true, saveIsExact_ = true;
};

// Every run of `length` letters.
Names everyRun(std::size_t length) {
  Names runs{""};
  for (std::size_t i = 0; i < length; ++i) {
    Names longer;
    for (const std::string& run : runs)
      for (const char letter : std::string("ArR|")) longer.push_back(run + letter);
    runs = std::move(longer);
  }
  return runs;
}

TEST_F(Restart, OfEveryShortRunIsCompleteOrItsStopHasSaidThatItMayNotBe) {
  const LogCapture quiet(0);
  int runs = 0, vouched = 0, complete = 0;
  for (const char* head : {"", "AAAAAA", "AAAAAAAAr", "AAA|", "AAAAA|A"})
    for (const std::string& tail : everyRun(3)) {
      const std::string letters = head + tail + '|';
      ShortRun run;
      run.go(letters);
      const bool isComplete = run.isComplete();
      EXPECT_TRUE(isComplete || !run.saveIsExact()) << letters;
      ++runs;
      vouched += run.saveIsExact();
      complete += isComplete;
    }
  EXPECT_GT(vouched, 0);
  EXPECT_LT(complete, runs) << "some of these runs must meet an order that loses records";
}

// The orders of calls that lose records, each with what comes back of them.
struct Order {
  const char* name;
  std::string letters;
  bool exact, complete;
};

TEST_F(Restart, SaysOfEachOrderOfCallsWhetherItLosesRecords) {
  const LogCapture quiet(0);
  const Order orders[] = {
      {"everything fits into memory", "AAA|", true, true},
      {"the consumer read on until no file waited", "AAAAAAAAARAr|", true, true},
      {"the write block overwrites a file that waits", "AAAAAAAA|", false, false},
      {"the write block is sorted before a file that waits", "AAAAAAAAArrrr|", false, false},
      {"a restored file 0 was not read", "AAA||", false, false},
      {"a restored file 0 was not read and there is more", "AAA|A|", false, false},
      {"a block was filled before the first read", "AAA|AAAr", true, true},
      {"a block was filled before the first read, and a stop", "AAA|AAArR|", false, true},
  };
  for (const Order& order : orders) {
    SCOPED_TRACE(order.name);
    ShortRun run;
    run.go(order.letters);
    EXPECT_EQ(run.saveIsExact(), order.exact);
    EXPECT_EQ(run.isComplete(), order.complete);
  }
}

}  // namespace
