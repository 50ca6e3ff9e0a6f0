// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Where a catalogue and its volume differ, while both may change.
//
//   copy ─► DCSqliteDB::Verify, and the attributes ─► suspects: paths and rows
//   look at the disk ─► flush ─► copy ─► the suspects again ─► look at the disk       up to 8 times
//
// Verify looks at size, link count and times of files only; owners, modes, types, and all of
// folders are compared here, row by row.
//
// A suspect that agrees is none. One that still differs does so in truth only if nothing happened
// to it between the two looks at the disk; where the catalogue is kept current it must be seen to
// differ twice. One that never held still is not settled, and counted.
//
// Where an entry vanishes during the comparison, Verify stops early; then the tree is walked again
// here, entry by entry, and what vanishes is just one more suspect.
//
// Threads: one. Failures: Failure, with the reason; whatever `proceed` leaves unfinished is one.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/engine/fresh_look.h"
#include "agent/engine/walk.h"

namespace kddc {

// A path of the volume ("" is its root), or a row that has none.
struct Suspect {
  enum class Kind { kPath, kFilesRow, kFidsRow } kind = Kind::kPath;
  std::string path;
  std::int64_t row = 0;
  auto operator<=>(const Suspect&) const = default;
};

struct VerificationPlan {
  std::string volume;     // its real path
  std::string catalogue;  // the folder
  std::string copies;     // where copies are made
  std::vector<FileKey> leftOut;
  // Waits until the catalogue holds all that happened; false when nobody keeps it current.
  std::function<bool()> flush;
  // Called all the time with how many entries were compared; false ends the work.
  std::function<bool(std::uint64_t compared)> proceed;
};

struct Differing {
  Suspect suspect;
  Differences differences;
};

struct VerificationResult {
  std::uint64_t compared = 0;        // entries that were found in both
  std::vector<Differing> differing;  // by path
  std::uint64_t unsettled = 0;       // suspects that kept changing, or have no usable path
};

VerificationResult verifyVolume(const VerificationPlan& plan);

}  // namespace kddc
