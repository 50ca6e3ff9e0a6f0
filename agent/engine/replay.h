// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Recorded journal records into a catalogue that nobody else keeps.
//
//   file ─► RecordFile (checked) ─► decodeRawCmd ─► ApplyJournal ─► catalogue
//              └─ damage: refused                        └─ false: failed
//
// Threads: one. Failures: Failure.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "agent/engine/record_file.h"
#include "catalogue/db_access.h"
#include "records/journal_record.h"

namespace kddc {

// What became of the records of one command.
struct ReplayCounts {
  std::uint64_t applied = 0;  // the catalogue took them in
  std::uint64_t ignored = 0;  // the catalogue holds nothing that they change
  std::uint64_t refused = 0;  // they are damaged
  std::uint64_t failed = 0;   // the catalogue could not take them in

  std::uint64_t all() const { return applied + ignored + refused + failed; }
  ReplayCounts& operator+=(const ReplayCounts& other);
};

// By command; whatever has no name is counted under the code that has none.
class ReplayTally {
 public:
  static constexpr unsigned int kUnknown = 3;

  ReplayCounts& of(unsigned int cmd) { return counts_[cmd < counts_.size() ? cmd : kUnknown]; }
  const auto& byCommand() const { return counts_; }
  ReplayCounts total() const;

 private:
  std::array<ReplayCounts, FLR_JRN_TXTMSG + 1> counts_{};
};

// An existing catalogue, open for writing.
class ReplayCatalogue {
 public:
  // Failure when there is none in the folder, when somebody uses it, or when it cannot be trusted;
  // nothing was changed then. With `coalesce`, records of the same file are merged before they are
  // written.
  ReplayCatalogue(std::string folder, bool coalesce);

  DCSqliteDB& rows() { return *db_; }
  // Writes what is still held back, makes everything durable and marks the catalogue as closed
  // gracefully. Its reference time stays. Without this call, or when it fails, the catalogue is
  // left as a crash would leave it.
  void close();

 private:
  void requireGood() const;

  std::string folder_;
  std::unique_ptr<DCSqliteDB> db_;
};

// Applies the records of a file one by one.
class Replay {
 public:
  // With `devt`, only the records of that volume.
  Replay(RecordFile& file, DCSqliteDB& rows, std::optional<unsigned long long> devt)
      : file_(file), rows_(rows), devt_(devt) {}

  // Takes the next piece of the file; false at its end. Damage, and the first record that could not
  // be applied, are reported on standard error.
  bool step();

  const ReplayTally& tally() const { return tally_; }
  std::uint64_t steps() const { return steps_; }
  // Records of other volumes than the one asked for.
  std::uint64_t leftOut() const { return leftOut_; }
  // Whether records of several volumes were applied.
  bool isMixed() const { return mixed_; }

 private:
  void take(const FilePiece& piece);
  void refuse(const FilePiece& piece);
  void apply(const FilePiece& piece, const FlrJrnCommandRaw& record);

  RecordFile& file_;
  DCSqliteDB& rows_;
  std::optional<unsigned long long> devt_;
  ReplayTally tally_;
  std::optional<unsigned long long> firstDevt_;
  std::uint64_t steps_ = 0, leftOut_ = 0;
  bool mixed_ = false, failedBefore_ = false;
};

}  // namespace kddc
