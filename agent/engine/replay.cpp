// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A record that is damaged, or cannot be applied, ends nothing: it is counted, and the rest goes
// on. A catalogue that was not good before is refused whole, because nobody could tell what failed.
#include "agent/engine/replay.h"

#include <fmt/format.h>

#include <utility>

#include "agent/engine/catalogue_folder.h"
#include "agent/engine/own_catalogue.h"
#include "agent/errors.h"
#include "journal/apply_journal.h"
#include "journal/cumulative_journal.h"
#include "records/record_layout.h"

namespace kddc {

ReplayCounts& ReplayCounts::operator+=(const ReplayCounts& other) {
  applied += other.applied;
  ignored += other.ignored;
  refused += other.refused;
  failed += other.failed;
  return *this;
}

ReplayCounts ReplayTally::total() const {
  ReplayCounts total;
  for (const ReplayCounts& counts : counts_) total += counts;
  return total;
}

namespace {

std::unique_ptr<DCSqliteDB> catalogueIn(const std::string& folder, bool coalesce) {
  if (coalesce) return std::make_unique<CumulativeJournal>(folder);
  return std::make_unique<DCSqliteDB>(folder);
}

}  // namespace

ReplayCatalogue::ReplayCatalogue(std::string folder, bool coalesce) : folder_(std::move(folder)) {
  during("cannot open the catalogue in " + folder_, [&] {
    requireOwnCatalogue(folder_);
    db_ = catalogueIn(folder_, coalesce);
    if (!db_->DoesDbExist())
      throw Failure(
          fmt::format("{} holds no catalogue that can be read and written; make one with: "
                      "kddc scan VOLUME --catalogue {}",
                      folder_, folder_));
    refuseWhileInUse(folder_);
    requireGood();
    if (!db_->OpenHandle(false, false)) throw Failure(folder_ + " is in use by another process");
  });
}

// Looks without writing anything: a catalogue that is refused stays as it was.
void ReplayCatalogue::requireGood() const {
  DCSqliteDB db(folder_);
  if (!db.OpenHandle(true, false))
    throw Failure(fmt::format("the catalogue in {} cannot be opened; -v says why", folder_));
  unsigned long referenceTime = 0;
  if (!db.GetReferenceTime(&referenceTime))
    throw Failure(
        fmt::format("the catalogue in {} is not complete: its first scan has not "
                    "finished, or it was not closed properly; scan again",
                    folder_));
  if (!db.DBVersionCheck())
    throw Failure(fmt::format("the catalogue in {} is of another version; scan again", folder_));
  db.CloseHandle(0, true);
}

void ReplayCatalogue::close() {
  during("cannot finish the catalogue in " + folder_, [&] { db_->CloseHandle(0, false); });
}

bool Replay::step() {
  const auto piece = file_.next();
  if (!piece) return false;
  ++steps_;
  take(*piece);
  return true;
}

// A stream may hold the records of several volumes; a catalogue is of one.
void Replay::take(const FilePiece& piece) {
  if (!piece.damage.empty()) return refuse(piece);
  FlrJrnCommandRaw record;  // only what was found well-formed is decoded
  decodeRawCmd(piece.bytes.data(), &record);
  if (devt_ && record.devt != *devt_) {
    ++leftOut_;
    return;
  }
  if (!firstDevt_) {
    firstDevt_ = record.devt;
    rows_.SetDevt(record.devt);  // whose statistics count the flushes
  }
  mixed_ = mixed_ || record.devt != *firstDevt_;
  apply(piece, record);
}

void Replay::refuse(const FilePiece& piece) {
  ++tally_.of(piece.bytes.empty() ? ReplayTally::kUnknown : piece.bytes[0]).refused;
  complain(describeDamage(file_, piece));
}

// Only the first failure is told: what follows from it would drown it.
void Replay::apply(const FilePiece& piece, const FlrJrnCommandRaw& record) {
  ReplayCounts& counts = tally_.of(record.cmd);
  if (ApplyJournal(&rows_, record)) {
    ++(changesCatalogue(record.cmd) ? counts.applied : counts.ignored);
    return;
  }
  ++counts.failed;
  if (!std::exchange(failedBefore_, true))
    complain(
        fmt::format("{}: byte {}: the first record that could not be applied, a {}; -v says "
                    "why",
                    file_.name(), piece.offset, commandName(record.cmd)));
}

}  // namespace kddc
