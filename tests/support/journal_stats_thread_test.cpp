// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <atomic>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/ev_debug.h"
#include "support/journal_stats.h"

namespace {

constexpr int kCreate = 5;
constexpr unsigned long long kVolumes = 3, kRecords = 200000;

// What all lines together say of creates and flushes.
class Sums {
 public:
  void add(const std::string& line) {
    static const std::regex kCounters(
        R"re(CreateCounter\[(\d+)\].* FlushJournalCounter\[(\d+)\])re");
    std::smatch found;
    if (!std::regex_search(line, found, kCounters)) return;
    creates += std::stoull(found[1]);
    flushes += std::stoull(found[2]);
  }
  unsigned long long creates = 0, flushes = 0;
};

TEST(JournalStatsThreads, NothingIsLostOrCountedTwiceWhileLinesAreAskedFor) {
  JournalPerfStatMap_g.clear();
  Sums sums;
  dbg.SetLevel(1);
  EvDebug::Sink previous =
      dbg.SetSink([&](const EvDebug::Line& line) { sums.add(std::string(line.text)); });

  std::atomic<bool> done = false;
  std::vector<std::thread> appliers;
  for (unsigned long long devt = 1; devt <= kVolumes; ++devt)
    appliers.emplace_back([devt] {
      for (unsigned long long n = 0; n < kRecords; ++n) {
        UnixDCUpdateTimeStats(devt, kCreate, 1);
        UnixDCUpdateTimeStats(1, kCreate, 1);
        if (n % 100 == 0) UnixDCUpdateFlushJournalTimeStats(devt, 1);
      }
    });
  std::thread asker([&] {
    while (!done) UnixDCLogTimeStats();
  });
  for (std::thread& applier : appliers) applier.join();
  done = true;
  asker.join();
  UnixDCLogTimeStats();

  dbg.SetSink(std::move(previous));
  dbg.SetLevel(0);
  EXPECT_EQ(sums.creates, 1200000U) << "3 threads, 200000 times, 2 each";
  EXPECT_EQ(sums.flushes, 6000U);
  EXPECT_EQ(JournalPerfStatMap_g.size(), 3U);
}

}  // namespace
