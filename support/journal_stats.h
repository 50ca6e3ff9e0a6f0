// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How many journal records of each kind were applied to each volume, and how long they took.
//
//   ApplyJournal ──► UnixDCUpdateTimeStats ───────────────┐
//   a flush of coalesced records ──► ...FlushJournal... ──┴► JournalPerfStatMap_g ──► one log line
//                                                                           for each volume, reset
//
// Times are nanoseconds of the real-time clock, in unsigned arithmetic: a clock that was set back
// between the two readings adds a huge value, and the next reset takes it away.
//
// Threads: the functions may be called from any thread; one mutex guards the map, and it is not
// held while a record is applied or a line is logged. Failures: lack of memory.
#pragma once

#include <ctime>
#include <map>

#include "platform/export.h"

// Of one volume, since the last reset: how often, and how many nanoseconds in all.
struct JournalPerfStats {
  unsigned long long SetAttrCounter = 0, SetAttrTimer = 0;
  unsigned long long StubCounter = 0, StubTimer = 0;
  unsigned long long UnStubCounter = 0, UnStubTimer = 0;
  unsigned long long CreateCounter = 0, CreateTimer = 0;
  unsigned long long MkDirCounter = 0, MkDirTimer = 0;
  unsigned long long RemoveCounter = 0, RemoveTimer = 0;
  unsigned long long RemoveDirCounter = 0, RemoveDirTimer = 0;
  unsigned long long RenameCounter = 0, RenameTimer = 0;
  unsigned long long CreateLinkCounter = 0, CreateLinkTimer = 0;
  unsigned long long CreateSymLinkCounter = 0, CreateSymLinkTimer = 0;
  unsigned long long FlushJournalCounter = 0, FlushJournalTimer = 0;
  unsigned long long SetAdditionalAttrCounter = 0, SetAdditionalAttrTimer = 0;
};

// By the volume's devt. Entries are never removed, so a reference to one stays valid. Whoever reads
// it must know that no other thread applies records meanwhile: the mutex is not exported.
KDDC_API extern std::map<unsigned long long, JournalPerfStats> JournalPerfStatMap_g;

// Adds `end` - `start`, in nanoseconds, to `*total`.
KDDC_API void MeasureTime(unsigned long long* total, timespec start, timespec end) noexcept;

// Counts one record of command `cmd` (a FlrJrnCmd) that took `nanoseconds`. A command that the
// catalogue ignores makes the volume's entry and counts nothing; a `devt` of 0 does nothing at all.
KDDC_API void UnixDCUpdateTimeStats(unsigned long long devt, int cmd,
                                    unsigned long long nanoseconds);

// Counts one flush of coalesced records, for a `devt` of 0 too.
KDDC_API void UnixDCUpdateFlushJournalTimeStats(unsigned long long devt,
                                                unsigned long long nanoseconds);

// Logs one debug line (EvDebug::Debug) for each volume, in the order of their devt, and sets all
// values to zero. The result has no meaning: false.
KDDC_API bool UnixDCLogTimeStats();
