// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the parts of Settle share: the catalogue, the disk to be asked, what came of the record in
// hand, the counts, and who is told of changes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "agent/live/live_catalogue.h"
#include "records/journal_record.h"

namespace kddc {

// What the catalogue wants to know of the disk. The answers come as records.
class DiskQuestions {
 public:
  virtual ~DiskQuestions() = default;
  // All that lies below a folder.
  virtual void list(const fsf_fid& folder) = 0;
  virtual void look(const fsf_fid& folder, const std::string& name) = 0;
  // How a file is, or that it is gone.
  virtual void lookAt(const fsf_fid& file) = 0;
};

struct SettleCounts {
  std::uint64_t added = 0, changed = 0, moved = 0, removed = 0;  // rows
  std::uint64_t unchanged = 0;  // records that said what the rows said
  std::uint64_t outside = 0;    // records about folders that the catalogue does not know
  std::uint64_t failed = 0;

  friend SettleCounts operator-(const SettleCounts& a, const SettleCounts& b) {
    return {a.added - b.added,     a.changed - b.changed,     a.moved - b.moved,
            a.removed - b.removed, a.unchanged - b.unchanged, a.outside - b.outside,
            a.failed - b.failed};
  }
  friend SettleCounts operator+(const SettleCounts& a, const SettleCounts& b) {
    return a - (SettleCounts() - b);  // counts are unsigned, so this comes out even
  }
};

enum class SettleResult { kApplied, kNothing, kFailed };

// What has happened to an entry; `name` in the folder of that inode.
struct CatalogueChange {
  enum class Kind { kAdded, kChanged, kMoved, kRemoved } kind;
  unsigned long long folder;
  std::string name;
};

inline constexpr int kFewNames = 2;  // to tell none, the only one and several apart
inline constexpr fsf_fid kNobody{};

// The parked one; or null.
const Name* parkedAmong(const std::vector<Name>& names);

class Settling {
 public:
  LiveCatalogue& rows;
  DiskQuestions& disk;
  SettleCounts counts;
  SettleResult result = SettleResult::kNothing;  // of the record in hand
  std::function<void(const CatalogueChange&)> observer;

  Settling(LiveCatalogue& rowsToSettle, DiskQuestions& diskToAsk)
      : rows(rowsToSettle), disk(diskToAsk) {}

  void apply(const FlrJrnCommandRaw& record);
  // Writes what is pending of a file.
  void write(const fsf_fid& fid) { rows.FindAndFlushJournal(fid); }
  bool hasApplied() const { return result == SettleResult::kApplied; }
  bool hasFailed() const { return result == SettleResult::kFailed; }
  // Something was written besides.
  void noteApplied();

  // Gives a row this identifier. What was told of a folder that nobody knew was dropped, so its
  // contents are asked for.
  void giveIdentifier(Name& row, const fsf_fid& fid);
  // All that a folder holds, and that it held as far as the catalogue knows.
  void askForContents(const Name& folder);

  void noteAdded(const fsf_fid& fid, unsigned long long folder, const std::string& name,
                 const FlrJrnCommandRaw& record);
  // By the record of that number.
  void noteChanged(const fsf_fid& fid, std::uint64_t number);
  void tell(CatalogueChange::Kind kind, unsigned long long folder, const std::string& name);

 private:
  void tellOf(const fsf_fid& fid, CatalogueChange::Kind kind);

  // The file that was added last, by the record of that number: what the next two say of it is no
  // change.
  fsf_fid added_{};
  unsigned long long addedBy_ = 0;
};

}  // namespace kddc
