// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc replay FILE --catalogue DIR: applies recorded journal records to a catalogue.
#include "agent/engine/replay.h"

#include <fmt/format.h>

#include <iterator>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/output.h"
#include "agent/progress.h"
#include "records/record_layout.h"
#include "support/journal_stats.h"

namespace kddc {
namespace {

// The timers that applying records can move.
struct Timer {
  const char* operation;
  unsigned long long JournalPerfStats::*counter;
  unsigned long long JournalPerfStats::*nanoseconds;
};
using Stats = JournalPerfStats;
constexpr Timer kTimers[] = {
    {"SetAttr", &Stats::SetAttrCounter, &Stats::SetAttrTimer},
    {"SetAdditionalAttr", &Stats::SetAdditionalAttrCounter, &Stats::SetAdditionalAttrTimer},
    {"Create", &Stats::CreateCounter, &Stats::CreateTimer},
    {"MkDir", &Stats::MkDirCounter, &Stats::MkDirTimer},
    {"Remove", &Stats::RemoveCounter, &Stats::RemoveTimer},
    {"RemoveDir", &Stats::RemoveDirCounter, &Stats::RemoveDirTimer},
    {"CreateLink", &Stats::CreateLinkCounter, &Stats::CreateLinkTimer},
    {"CreateSymLink", &Stats::CreateSymLinkCounter, &Stats::CreateSymLinkTimer},
    {"Rename", &Stats::RenameCounter, &Stats::RenameTimer},
    {"Stub", &Stats::StubCounter, &Stats::StubTimer},
    {"UnStub", &Stats::UnStubCounter, &Stats::UnStubTimer},
    {"FlushJournal", &Stats::FlushJournalCounter, &Stats::FlushJournalTimer},
};

void appendCounts(fmt::memory_buffer& out, const char* name, const ReplayCounts& counts) {
  fmt::format_to(std::back_inserter(out), "{:<22}{:>10}{:>10}{:>10}{:>10}\n", name, counts.applied,
                 counts.ignored, counts.refused, counts.failed);
}

void appendJsonCounts(fmt::memory_buffer& out, const char* name, const ReplayCounts& counts) {
  fmt::format_to(std::back_inserter(out),
                 R"({{"command":"{}","applied":{},"ignored":{},"refused":{},"failed":{}}})"
                 "\n",
                 name, counts.applied, counts.ignored, counts.refused, counts.failed);
}

void appendTable(const ReplayTally& tally, bool json, fmt::memory_buffer& out) {
  const auto append = json ? appendJsonCounts : appendCounts;
  if (!json)
    fmt::format_to(std::back_inserter(out), "{:<22}{:>10}{:>10}{:>10}{:>10}\n", "command",
                   "applied", "ignored", "refused", "failed");
  unsigned int cmd = 0;
  for (const ReplayCounts& counts : tally.byCommand()) {
    if (counts.all() > 0) append(out, commandName(cmd), counts);
    ++cmd;
  }
  append(out, "total", tally.total());
}

void appendTimers(bool json, fmt::memory_buffer& out) {
  const auto to = std::back_inserter(out);
  if (!json)
    fmt::format_to(to, "\n{:<20}{:<20}{:>10}{:>17}\n", "operation", "devt", "records",
                   "nanoseconds");
  for (const auto& [devt, stats] : JournalPerfStatMap_g) {
    for (const Timer& timer : kTimers) {
      const auto records = stats.*timer.counter, nanoseconds = stats.*timer.nanoseconds;
      if (records == 0) continue;
      if (json)
        fmt::format_to(to,
                       R"({{"operation":"{}","devt":{},"records":{},"nanoseconds":{}}})"
                       "\n",
                       timer.operation, devt, records, nanoseconds);
      else
        fmt::format_to(to, "{:<20}{:<#20x}{:>10}{:>17}\n", timer.operation, devt, records,
                       nanoseconds);
    }
  }
}

void report(const Replay& replay, bool stats, bool json) {
  fmt::memory_buffer text;
  appendTable(replay.tally(), json, text);
  if (stats) appendTimers(json, text);
  printAnswer({text.data(), text.size()});
}

void note(const Options& options, const Replay& replay) {
  if (replay.isMixed())  // also when quiet: a catalogue is of one volume
    complain("the records are of several volumes, and all were applied; --devt N picks one");
  if (replay.leftOut() > 0 && !options.quiet)
    complain(fmt::format("{} records of other volumes were left out", replay.leftOut()));
}

}  // namespace

int runReplay(const Options& options, const ReplayOptions& replayOptions) {
  // The file first: a catalogue need not be opened for one that is not there. No volume is asked
  // for, since --catalogue is.
  RecordFile file(replayOptions.file, replayOptions.format);
  ReplayCatalogue catalogue(catalogueFolder(options, ""), replayOptions.coalesce);
  Replay replay(file, catalogue.rows(), replayOptions.devt);
  noteInterrupts();
  try {
    Progress progress(!options.quiet && options.verbosity == 0);
    while (!interrupted() && replay.step()) progress.update(replay.steps());
  } catch (const UnreadableFile&) {  // what was read so far is whole
    catalogue.close();
    throw;
  }
  catalogue.close();
  if (interrupted())
    throw Failure(fmt::format("interrupted; the catalogue holds the first {} records of {}",
                              replay.steps(), file.name()));
  note(options, replay);
  report(replay, replayOptions.stats, replayOptions.json);
  const ReplayCounts total = replay.tally().total();
  return total.refused + total.failed > 0 ? kExitDifference : kExitDone;
}

}  // namespace kddc
