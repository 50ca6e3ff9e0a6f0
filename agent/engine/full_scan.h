// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The full scan: one thread walks, the caller's inserts.
//
//   walk ──► batch ──► queue of a few batches ──► insert ──► FILES, FIDS
//
// Folders travel by the walk's own numbers; the inserting side knows which row each became.
#pragma once

#include <functional>
#include <string>

#include "agent/engine/new_catalogue.h"
#include "agent/engine/walk.h"
#include "agent/errors.h"
#include "platform/unique_fd.h"

namespace kddc {

// Told from time to time how many entries are in the catalogue.
using ScanProgress = std::function<void(std::uint64_t entries)>;

// Inserts everything below `volume` into `catalogue`. Whichever side fails stops the other, and its
// exception goes to the caller; the walk's thread has ended by then. Failure also when a signal
// asks the process to end.
WalkCounts fullScan(UniqueFd volume, const std::string& volumePath, const WalkOptions& options,
                    ScanCatalogue& catalogue, const ScanProgress& progress);

// What is said when a signal ended a scan.
[[nodiscard]] Failure scanInterrupted(const std::string& volumePath);

}  // namespace kddc
