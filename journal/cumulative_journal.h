// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue that holds the records of busy files back and writes what they come to.
//
//   Create, SetAttr ─► merged into one pending entry for each identifier
//   Remove          ─► drops the entry; a file that was created since is never written at all
//   Stub, UnStub, CreateLink ─► write the entry of their file, then are applied
//   Rename, CloseHandle, a table that is full ─► write all entries
//
// ApplyJournal reaches it through the virtual operations of DCSqliteDB: construct this class
// instead, and records are coalesced.
//
// What differs from records that are applied one by one:
//   - Rows lag behind until a flush. MkDir, RemoveDir, CreateSymLink (through a DCSqliteDB) and
//     SetAdditionalAttr do not see the pending entries and do not write them.
//   - TIME becomes the later one of the entry's change and modification times, or the current time
//     where those lie before OpenHandle or before the row's TIME; the row keeps its TIME when
//     nothing but the change time moved.
//   - CTIME changes only where a record brings one.
//   - An access time that no record brought counts as 0. It is written when the entry has no other
//     attribute, or none that differs from the row.
//   - A created file has FILE_TYPE 0 whatever its mode.
//   - Remove drops the pending attributes of a file also when other names of it stay.
//
// "SimultaneousFileAcess" in the section "DataClassification" is the number of entries that fill
// the table: 10 when absent; 0 switches coalescing off, and every operation is the base's.
//
// Entries live in memory alone: what is pending is lost when the process ends without CloseHandle,
// and the catalogue is then marked as not gracefully closed.
//
// Threads: as DCSqliteDB, one at a time. Failures: as there, logged under "CumulativeJournal ::
// <operation>"; those of Remove stand under "CumulativeJournal :: UnStub" (sic).
#pragma once

#include <sys/stat.h>

#include <list>
#include <map>
#include <string>

#include "catalogue/db_access.h"
#include "platform/export.h"
#include "records/fsf_fid.h"
#include "records/journal_record.h"

// What is pending for one identifier.
struct DCJrn {
  std::list<unsigned long long> inodes;  // its rows of FILES, looked up when the entry is written
  unsigned long long parentInode = 0;    // of a created file
  long long time = 0;    // seconds: now for a create, else the last record's; nobody asks for it
  int fileType = 0;      // what a created file is inserted as
  std::string name;      // of a created file, in the local encoding
  bool created = false;  // the catalogue does not have the file yet
  // Which attributes of `st` records have set. A create sets none of these.
  bool modeValid = false;
  bool uidValid = false;
  bool gidValid = false;
  bool mtimeValid = false;
  bool ctimeValid = false;
  bool sizeValid = false;
  bool blocksValid = false;
  bool spareValid = false;  // never set; would keep the entry from counting as an access time alone
  bool atimeValid = false;
  struct stat st {};  // the merged attributes; times in seconds
  int count = 0;      // of merged records
};

class KDDC_API CumulativeJournal : public DCSqliteDB {
 public:
  // Binds the object to a catalogue folder and reads the setting; opens nothing. KdException when
  // the setting cannot be read.
  explicit CumulativeJournal(std::string dbFolder);
  // Writes nothing: CloseHandle does.
  ~CumulativeJournal() override;

  // Taken over from DCSqliteDB.

  // Merges the attributes whose flags are not 0; writes nothing until a flush.
  void SetAttr(const FlrJrnSetAttrRaw& record, int time) override;
  // Makes a created entry, or turns the pending one into it; writes nothing until a flush. The
  // parent is looked up at once.
  void Create(const FlrJrnCreateRaw& record) override;
  void Remove(const FlrJrnRemoveRaw& record, unsigned long time) override;
  void Stub(const FlrJrnStubRaw& record, int time) override;
  void UnStub(const FlrJrnUnStubRaw& record, int time) override;
  void CreateLink(const FlrJrnLinkRaw& record, int time) override;
  void Rename(const FlrJrnRenameRaw& record, int time) override;
  void CloseHandle(unsigned long refTime, bool keepUngraceful) override;
  // Not virtual: a call through a DCSqliteDB runs the base's, which does the same.
  void CreateSymLink(const FlrJrnSymLinkRaw& record, int time);

  // The table of pending entries.

  // Whether there are exactly as many entries as the table holds.
  bool IsJournalMapFull() const;
  // Adds an empty entry, or leaves the one that is there; a full table is flushed first. The flag
  // is not used.
  void AddFidToJournalMap(const fsf_fid& fid, bool created);
  // Drops the entry without writing it and tells through `wasCreated`, which may be null, whether
  // it stood for a created file. Nothing happens when there is none.
  void FindAndRemoveJournal(const fsf_fid& fid, bool* wasCreated);
  // Writes the entry and drops it; a failure keeps it. Nothing happens when there is none.
  void FindAndFlushJournal(const fsf_fid& fid);
  // Writes all entries, in the order of their identifiers: first the rows of the known files are
  // looked up, then they are updated, then the created ones are inserted. Counted in the statistics
  // of the catalogue's devt. A failure keeps the whole table, also what was written until then, and
  // the next flush writes it again: what was inserted comes twice.
  void FlushAllJournals();

  // How an entry is written.

  using DCSqliteDB::Insert;
  // A created one.
  void Insert(const fsf_fid& fid, DCJrn& entry);
  // That of a known file, into all rows of entry.inodes, with the first of them deciding what
  // changed. True; where only access times were written, UpdateAtime's result, 0, as a bool.
  bool UpdateFileAttribs(DCJrn& entry);

 protected:
  unsigned long long mapLimit = 10;  // entries that fill the table; 0: no coalescing
  std::map<fsf_fid, DCJrn> journalMap;
  std::map<fsf_fid, DCJrn> spareMap;  // always empty; subclasses know where it lies
};
