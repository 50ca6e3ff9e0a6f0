// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Brings the driver's records into agreement with what the catalogue holds, and applies them.
//
// The driver says what it found at a name or of a file when it looked; it does not know what the
// catalogue knows. Only here can be told whether a file is new, bears a further name or has moved,
// and which row the name replaced:
//
//   record          settled into
//   "(D,n) is L"    nothing, when the row says so; else, after the row of whoever bore the name has
//                   been taken out of the way: L unknown: the record itself. L a folder, a parked
//                   row, or the only name of a file with one link: a RENAME. Else a LINK
//   "(D,n) is gone" whoever bears the name loses it: one of several names is dropped, a file that
//                   is gone is removed, any other row is parked
//   RENAME          as "(D2,n2) is F", with the row of (D,n) as the one that moves
//   SETATTR         nothing, when the row says so; a SETXATTR when only the change time moved
//   link count      0 removes the rows of the file: it is gone, whatever names it is thought to
//   have
//
// Why that converges: the looks at one name come in the order in which they were made, and each
// change of a name is followed by a look. So the last record of a name says what is on the disk,
// and every record leaves the name as it says. Applying a record twice changes nothing.
//
// A record whose folder the catalogue does not know is about something outside the volume, or about
// a folder that has still to be listed: when the catalogue learns of a folder that the driver has
// not listed by itself, it asks for a list, and everything in it is looked at after that.
//
// Threads: one. Failures: an operation that fails is logged, counted, and makes `take` answer
// kFailed; the row is then in doubt until the volume is compared with the disk.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/live/live_catalogue.h"
#include "driver/record_mask.h"
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
};

// What has happened to an entry; `name` in the folder of that inode.
struct CatalogueChange {
  enum class Kind { kAdded, kChanged, kMoved, kRemoved } kind;
  unsigned long long folder;
  std::string name;
};

class Settle {
 public:
  enum class Result { kApplied, kNothing, kFailed };
  using Observer = std::function<void(const CatalogueChange&)>;

  // Both must outlive the object.
  Settle(LiveCatalogue& rows, DiskQuestions& disk) : rows_(rows), disk_(disk) {}

  // The record's strings must live during the call.
  Result take(const FlrJrnCommandRaw& record);
  // Writes what was held back: link counts, which stand in every row of a file and may change with
  // each of its names.
  void writeHeldBack();

  // A row that no record can speak of loses its name, as if that were absent.
  Result unname(unsigned long long inode);
  // Removes every row that has no name, a folder with what still lies below it: whoever lives has a
  // name again by now.
  void dropParked();

  const SettleCounts& counts() const { return counts_; }
  void observe(Observer observer) { observer_ = std::move(observer); }

 private:
  struct Found;

  Result guarded(const std::function<void()>& work);
  void settle(const FlrJrnCommandRaw& record);
  void present(const Found& found, const FlrJrnCommandRaw& record);
  std::vector<Name> namesOf(const Found& found, const FlrJrnCommandRaw& record);
  bool makeWay(unsigned long long folder, const Found& found, bool mayAdopt);
  void keepOneRow(std::vector<Name>& names);
  void takeNameFrom(Name bearer);
  void drop(const Name& name);
  void handOver(const Name& child, unsigned long long folder);
  std::optional<Name> otherRowOf(const Name& name);
  void takeUnknown(const Found& found, unsigned long long folder, const FlrJrnCommandRaw& record);
  void correctType(const fsf_fid& fid, unsigned mode);
  void addRow(const Found& found, unsigned long long folder, const Name& other, unsigned time);
  void giveName(const Found& found, unsigned long long folder, const std::vector<Name>& names,
                const FlrJrnCommandRaw& record);
  void move(const Name& row, unsigned long long folder, const FlrJrnCommandRaw& record);
  void link(const Found& found, unsigned long long folder, const std::vector<Name>& names,
            const FlrJrnCommandRaw& record);

  void absent(const fsf_fid& folder, const char* name, const fsf_fid& file, unsigned links,
              const FlrJrnCommandRaw& record);
  std::optional<Name> bearerOf(unsigned long long folder, const char* name, const fsf_fid& hint);
  void remove(const Name& name, const FlrJrnCommandRaw& record);
  void askBelow(const std::vector<Name>& children);
  void rename(const FlrJrnCommandRaw& record);

  void linkCount(const FlrJrnCommandRaw& record);
  void removeAll(const fsf_fid& file, const FlrJrnCommandRaw& record);
  void noteLinks(const fsf_fid& fid, RecordMask mask, unsigned time);
  void noteLinks(const fsf_fid& fid, unsigned links, unsigned time);
  void writeLinks(const fsf_fid& fid, unsigned links, unsigned time);
  void stampAsNew(const fsf_fid& fid, unsigned time);
  void attributes(const FlrJrnCommandRaw& record);
  void compareAttributes(const FlrJrnCommandRaw& record);
  bool changesLinks(const fsf_fid& fid, nlink_t stored, RecordMask mask) const;
  void changeTimeAlone(const FlrJrnCommandRaw& record, struct stat& st, unsigned long stamp);
  void stampListed(const fsf_fid& fid);
  void stub(const FlrJrnCommandRaw& record);

  void write(const fsf_fid& fid) { rows_.FindAndFlushJournal(fid); }
  void apply(const FlrJrnCommandRaw& record);
  void noteAdded(const fsf_fid& fid, unsigned long long folder, const std::string& name,
                 const FlrJrnCommandRaw& record);
  void noteChanged(const fsf_fid& fid, const FlrJrnCommandRaw& record);
  void tell(CatalogueChange::Kind kind, unsigned long long folder, const std::string& name);
  void tellOf(const fsf_fid& fid, CatalogueChange::Kind kind);

  LiveCatalogue& rows_;
  DiskQuestions& disk_;
  Observer observer_;
  SettleCounts counts_;
  struct Links {
    unsigned count, time;
  };
  std::map<fsf_fid, Links> links_;  // to be written
  Result result_ = Result::kNothing;
  // The file that the record before brought in by a listing: its attributes follow.
  fsf_fid justListed_{};
  // The file that was added last, by the record of that number: what the next two say of it is no
  // change.
  fsf_fid added_{};
  unsigned long long addedBy_ = 0;
};

}  // namespace kddc
