// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The quiet rescan of a volume that nobody watches: compares disk and catalogue, and changes only
// rows that really differ, so that the change stamps of all others stay.
//
//   compareVolume ─► records, laid aside ─► Settle ─► catalogue
//
// Nothing is written before the walk is over, so whatever ends it early leaves the catalogue as it
// was. Then names that are gone come first: their rows are parked, and a name that was found takes
// the row of its file out of there. What is still parked at the end is gone from the volume.
//
// The records are the same as those of a live driver. They say what the walk has found; nothing is
// looked at again.
#pragma once

#include <ctime>
#include <string>

#include "agent/live/compare.h"
#include "agent/live/settle.h"

namespace kddc {

struct RescanCounts {
  CompareCounts compared;
  SettleCounts settled;
};

// Brings the catalogue in the folder up to date, as of `began`. Failure when it is in use, cannot
// be trusted or not be written; when writing fails it is left marked as not properly closed.
RescanCounts rescanQuietly(UniqueFd root, const std::string& volumePath, const WalkOptions& options,
                           const std::string& catalogueFolder, std::time_t began,
                           const CompareWishes& wishes);

}  // namespace kddc
