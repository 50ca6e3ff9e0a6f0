// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One decoded journal record into one catalogue: the place where records become rows.
//
//   decodeRawCmd ─► FlrJrnCommandRaw ─► ApplyJournal ─► DCSqliteDB::Create, Remove, Rename, ...
//                                            └────────► UnixDCUpdateTimeStats (journal_stats.h)
//
// Which command goes to which operation, and what the log says about it (level 4 for names, 6 for
// attributes), is one table in apply_journal.cpp. Writes of data and all other commands change
// nothing that a catalogue holds: they count as handled.
//
// Ownership: neither argument is kept; the record's strings must be valid during the call.
// Threads: the thread that uses the catalogue. Failures: none leave the call.
#pragma once

#include "catalogue/db_access.h"
#include "platform/export.h"
#include "records/journal_record.h"

// Logs `record`, calls the operation of its command on `db` (a subclass's own, where that is
// virtual), and counts it, with the time it took, in the statistics of the record's devt.
//
// True when the record was applied or is of a kind that the catalogue ignores. False when the
// operation failed: the failure is logged under "ApplyJournal", the record is not counted, and what
// the operation had written stays written. Nothing is retried.
KDDC_API bool ApplyJournal(DCSqliteDB* db, const FlrJrnCommandRaw& record);

namespace kddc {

// Whether ApplyJournal calls an operation for records of that command. All others it ignores.
KDDC_API bool changesCatalogue(unsigned int cmd) noexcept;

}  // namespace kddc
