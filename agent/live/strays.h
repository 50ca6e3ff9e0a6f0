// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a comparison with the disk does not meet, because no way leads there: rows whose folder does
// not exist, or that are their own ancestors, and identifiers without a row. A crash between the
// commits of the two databases leaves such, or damage.
//
// Parked rows, and what lies below them, are none: they wait for a name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "agent/live/compare.h"

namespace kddc {

struct Strays {
  std::vector<std::int64_t> rows;         // INODE; what lies below them goes with them
  std::vector<std::int64_t> circles;      // INODE; each row of a circle and below one
  std::vector<std::int64_t> identifiers;  // FIDS_ROWID
};

// Looks for them. Memory: 32 bytes a row. Failures: UDCException.
Strays findStrays(const std::string& catalogueFolder);

// Whether a comparison that found nothing to suspect has met every row and every identifier, so
// that there are none. Costs the counting.
bool hasMetAll(const std::string& catalogueFolder, const CompareCounts& counts);

}  // namespace kddc
