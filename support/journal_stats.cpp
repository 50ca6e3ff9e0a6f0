// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One table says for each pair where it is kept, how it is called and what it counts; counting,
// logging and resetting are loops over it.
#include "support/journal_stats.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <string>

#include "platform/ev_debug.h"
#include "records/journal_record.h"

std::map<unsigned long long, JournalPerfStats> JournalPerfStatMap_g;

namespace {

std::mutex mutex;  // guards JournalPerfStatMap_g

constexpr unsigned kNoCommand = ~0U;
constexpr std::size_t kMostCommands = 5;

// One counter with its timer: where they are, what the log calls them, which commands they count.
struct Pair {
  using Member = unsigned long long JournalPerfStats::*;
  Member counter;
  Member timer;
  const char* counterName;
  const char* timerName;
  std::array<unsigned, kMostCommands> commands;
};

using Stats = JournalPerfStats;

template <class... Commands>
constexpr std::array<unsigned, kMostCommands> counting(Commands... commands) {
  std::array<unsigned, kMostCommands> all{};
  all.fill(kNoCommand);
  std::size_t next = 0;
  ((all[next++] = commands), ...);
  return all;
}

// In the order of the log line. The blank behind one name is part of the line.
constexpr std::array kPairs{
    Pair{&Stats::SetAttrCounter, &Stats::SetAttrTimer, "SetAttrCounter", "SetAttrTimer",
         counting(FLR_JRN_SETATTR)},
    Pair{&Stats::StubCounter, &Stats::StubTimer, "StubCounter", "StubTimer",
         counting(FLR_JRN_STUB)},
    Pair{&Stats::UnStubCounter, &Stats::UnStubTimer, "UnStubCounter", "UnStubTimer",
         counting(FLR_JRN_UNSTUB)},
    Pair{&Stats::CreateCounter, &Stats::CreateTimer, "CreateCounter", "CreateTimer",
         counting(FLR_JRN_CREATE)},
    Pair{&Stats::MkDirCounter, &Stats::MkDirTimer, "MkDirCounter", "MkDirTimer",
         counting(FLR_JRN_MKDIR)},
    Pair{&Stats::RemoveCounter, &Stats::RemoveTimer, "RemoveCounter", "RemoveTimer",
         counting(FLR_JRN_REMOVE)},
    Pair{&Stats::RemoveDirCounter, &Stats::RemoveDirTimer, "RemoveDirCounter", "RemoveDirTimer ",
         counting(FLR_JRN_RMDIR)},
    Pair{&Stats::RenameCounter, &Stats::RenameTimer, "RenameCounter", "RenameTimer",
         counting(FLR_JRN_RENAME)},
    Pair{&Stats::CreateLinkCounter, &Stats::CreateLinkTimer, "CreateLinkCounter", "CreateLinkTimer",
         counting(FLR_JRN_LINK)},
    Pair{&Stats::CreateSymLinkCounter, &Stats::CreateSymLinkTimer, "CreateSymLinkCounter",
         "CreateSymLinkTimer", counting(FLR_JRN_SYMLINK)},
    Pair{&Stats::FlushJournalCounter, &Stats::FlushJournalTimer, "FlushJournalCounter",
         "FlushJournalTimer", counting()},
    Pair{&Stats::SetAdditionalAttrCounter, &Stats::SetAdditionalAttrTimer,
         "SetAdditionalAttrCounter", "SetAdditionalAttrTimer",
         counting(FLR_JRN_SET_ACL, FLR_JRN_SETXATTR, FLR_JRN_RMXATTR, FLR_JRN_SETXATTR_AIX,
                  FLR_JRN_RMXATTR_AIX)},
};

// Null for a command that is not counted. Twelve rows are searched faster than a map is asked.
const Pair* pairOf(int cmd) {
  const auto counts = [code = static_cast<unsigned>(cmd)](const Pair& pair) {
    return code != kNoCommand && std::ranges::find(pair.commands, code) != pair.commands.end();
  };
  const auto pair = std::ranges::find_if(kPairs, counts);
  return pair == kPairs.end() ? nullptr : &*pair;
}

std::string textOf(const JournalPerfStats& stats) {
  const auto item = [](const char* name, unsigned long long value) {
    return std::string(" ") + name + "[" + std::to_string(value) + "]";
  };
  std::string text;
  for (const Pair& pair : kPairs)
    text += item(pair.counterName, stats.*pair.counter) + item(pair.timerName, stats.*pair.timer);
  return text;
}

constexpr unsigned long long nanosecondsOf(const timespec& time) {
  return static_cast<unsigned long long>(time.tv_sec) * 1'000'000'000ULL +
         static_cast<unsigned long long>(time.tv_nsec);
}

}  // namespace

void MeasureTime(unsigned long long* total, timespec start, timespec end) noexcept {
  *total += nanosecondsOf(end) - nanosecondsOf(start);
}

void UnixDCUpdateTimeStats(unsigned long long devt, int cmd, unsigned long long nanoseconds) {
  if (devt == 0) return;
  const Pair* pair = pairOf(cmd);
  const std::lock_guard lock(mutex);
  JournalPerfStats& stats = JournalPerfStatMap_g[devt];
  if (!pair) return;
  ++(stats.*pair->counter);
  stats.*pair->timer += nanoseconds;
}

void UnixDCUpdateFlushJournalTimeStats(unsigned long long devt, unsigned long long nanoseconds) {
  const std::lock_guard lock(mutex);
  JournalPerfStats& stats = JournalPerfStatMap_g[devt];
  ++stats.FlushJournalCounter;
  stats.FlushJournalTimer += nanoseconds;
}

bool UnixDCLogTimeStats() {
  std::map<unsigned long long, JournalPerfStats> period;
  {
    const std::lock_guard lock(mutex);
    period = JournalPerfStatMap_g;
    for (auto& [devt, stats] : JournalPerfStatMap_g) stats = {};
  }
  // A log that is slow, or that asks for statistics itself, meets no lock here.
  if (dbg.Enabled(1))
    for (const auto& [devt, stats] : period)
      dbg.Debug("UnixDCLogTimeStats", "Devt[%llu]%s", devt, textOf(stats).c_str());
  return false;
}
