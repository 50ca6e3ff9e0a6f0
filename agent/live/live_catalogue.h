// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The catalogue as the database thread needs it to settle records: what it knows of an identifier
// or a name, pending entries included, and the row operations for names that are in doubt.
//
// A name is a row of FILES with a FIDS row of its own. Whoever settles keeps two rules, which every
// operation here relies on:
//
//   - at most one row bears a name in a folder;
//   - the row of a file that has lost its last name is parked until it is known whether the file
//     is gone or has moved: PINODE is 9223372036854775807, NAME is empty. Rows below a parked
//     folder stay where they are. Readers pass over both.
//
// A crash between the commits of the two databases leaves rows that do not know their identifier
// and identifiers without a row; they are put right when they are met.
//
// Threads: one. Failures: as DCSqliteDB.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/live/name_index.h"
#include "catalogue/statement.h"
#include "journal/cumulative_journal.h"

namespace kddc {

// The parent of a row that has no name at present.
inline constexpr unsigned long long kParked = kPlaceholder;

// One name of a file, as the catalogue holds it.
struct Name {
  fsf_fid fid{};
  unsigned long long inode = 0;      // 0: pending, not written yet
  unsigned long long fidsRowId = 0;  // 0: the row does not know its identifier
  unsigned long long parent = 0;
  int type = 0;
  std::string name;

  bool pending() const { return inode == 0; }
  bool parked() const { return parent == kParked; }
  bool hasFid() const { return pending() || fidsRowId != 0; }
};

class LiveCatalogue : public CumulativeJournal {
 public:
  using CumulativeJournal::CumulativeJournal;

  // As DCSqliteDB's; and what is remembered of rows goes when SQLite rolls their writing back.
  bool OpenHandle(bool readOnly, bool openFlag);

  // The inode of a folder; none when the catalogue has no folder of that identifier.
  std::optional<unsigned long long> folderOf(const fsf_fid& fid);
  // Names of a file that are written, parked rows included: all, or that many of them. A file may
  // have tens of thousands, and to know that there are two is mostly enough.
  std::vector<Name> namesOf(const fsf_fid& fid, int most = -1);
  // Who bears a name in a folder. `name` as records bring it.
  std::optional<Name> bearerOf(unsigned long long folder, const char* name);
  // The name that a row is.
  std::optional<Name> rowAt(unsigned long long inode);
  // The entry of a file that was created and is not written yet; or null.
  const DCJrn* createdOf(const fsf_fid& fid) const;
  bool isPending(const fsf_fid& fid) const { return journalMap.contains(fid); }
  // All that lies in a folder, written ones only: FlushAllJournals first.
  std::vector<Name> childrenOf(unsigned long long folder);
  // Every parked row.
  std::vector<Name> parkedRows();
  // The path relative to the volume, for people; empty when there is no way up.
  std::string pathOf(unsigned long long folder, const std::string& name);

  // Applies a record; false when it failed, which was logged.
  bool apply(const FlrJrnCommandRaw& record);

  // A name that was learnt, or is gone: the caller has written it, or will.
  void noteName(unsigned long long folder, const char* name, const fsf_fid& fid,
                unsigned long long inode);
  void noteNewFolder(unsigned long long folder) { names_.learn(folder); }
  void forgetName(const Name& name);
  // The same of an entry that is about to be removed.
  void forget(const Name& name);

  // Inserts the row of a further name; its inode.
  unsigned long long insertRow(StatFidName_s& entry, unsigned long long folder, int type);
  // Takes the name away and keeps the row.
  void park(const Name& name);
  // Removes the row of a name, with its identifier; a folder's row alone.
  void drop(const Name& name);
  // Puts a row under another folder.
  void moveRow(const Name& name, unsigned long long folder);
  // Removes a folder with all that lies below it; returns the number of rows.
  std::uint64_t dropTree(const Name& folder);
  // Removes an identifier unless a row of FILES bears it.
  void forgetUnlessBorne(unsigned long long fidsRowId);
  // Gives a row that does not know its identifier this one.
  void adopt(Name& name, const fsf_fid& fid);
  // Gives a row this identifier in place of the one that it has.
  void readopt(Name& name, const fsf_fid& fid);
  // TIME = now.
  void stampNow(unsigned long long inode);
  // Whether a change of that time (32 bits of seconds) was made while the catalogue was open. An
  // older one is new to it and counts as made now: whoever asked for changes in between did not
  // hear of it.
  bool wasOpenAt(unsigned time) const { return time >= static_cast<std::uint32_t>(openTime); }

  // Makes a copy of the two databases, as they are now, in another folder. For one whose own folder
  // is gone: what is open lives on.
  void copyTo(const std::string& folder);

  void CloseHandle(unsigned long refTime, bool keepUngraceful) override;

 private:
  void forgetRolledBack();
  std::optional<Name> rowOf(unsigned long long inode);
  Name nameFrom(sqlite3_stmt* row);
  void identify(Name& name);
  void learnNames(unsigned long long folder);
  bool isBearer(NameIndex::Bearer& bearer, unsigned long long folder, const std::string& name,
                Name& found);

  std::vector<Name> tryNamesOf(const fsf_fid& fid, int most, bool& mended);

  Statement rowOf_, namesIn_, childrenOf_, pairsOf_, park_, moveRow_, restamp_;
  bool rolledBack_ = false;
  NameIndex names_;
  std::unordered_map<fsf_fid, unsigned long long, FidHash> folders_;
};

}  // namespace kddc
