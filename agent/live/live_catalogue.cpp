// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/live_catalogue.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iterator>
#include <unordered_set>
#include <utility>

#include "agent/engine/catalogue_copy.h"
#include "agent/engine/catalogue_folder.h"
#include "catalogue/file_type.h"
#include "journal/apply_journal.h"
#include "platform/text.h"

namespace kddc {
namespace {

// Beyond this many the folders that are remembered are forgotten, all at once: they are a cache,
// and which ones will be asked for again is not known.
constexpr std::size_t kMostFolders = 20'000;

constexpr Sql kRowOf{
    .tag = "LiveCatalogue :: rowOf",
    .text = "SELECT INODE,FID_ROWID,PINODE,FILE_TYPE,NAME FROM FILES WHERE INODE=?1",
    .cannotPrepare = "Could not prepare the query for a row",
    .cannotBind = {"INODE Bind failed"},
};
constexpr Sql kNamesIn{
    .tag = "LiveCatalogue :: learnNames",
    .text = "SELECT INODE,NAME FROM FILES WHERE PINODE=?1",
    .cannotPrepare = "Could not prepare the query for the names of a folder",
    .cannotBind = {"PINODE Bind failed"},
};
constexpr Sql kChildrenOf{
    .tag = "LiveCatalogue :: childrenOf",
    .text = "SELECT INODE,FID_ROWID,PINODE,FILE_TYPE,NAME FROM FILES WHERE PINODE=?1",
    .cannotPrepare = "Could not prepare the query for the rows of a folder",
    .cannotBind = {"PINODE Bind failed"},
};
constexpr Sql kPairsOf{
    .tag = "LiveCatalogue :: namesOf",
    .text =
        "SELECT FIDS_ROWID,FILES_ROWID FROM FIDS WHERE FID1=?1 AND FID2=?2 AND FID3=?3 AND "
        "FID4=?4 LIMIT ?5",
    .cannotPrepare = "Could not prepare the query for the names of a file",
    .cannotBind = {"FID1 Bind failed", "FID2 Bind failed", "FID3 Bind failed", "FID4 Bind failed",
                   "LIMIT Bind failed"},
};
constexpr Sql kPark{
    .tag = "LiveCatalogue :: park",
    .text = "UPDATE FILES SET PINODE=?1,NAME='' WHERE INODE=?2",
    .cannotPrepare = "Could not prepare the parking of a row",
    .cannotBind = {"PINODE Bind failed", "INODE Bind failed"},
};
constexpr Sql kMoveRow{
    .tag = "LiveCatalogue :: moveRow",
    .text = "UPDATE FILES SET PINODE=?1 WHERE INODE=?2",
    .cannotPrepare = "Could not prepare the moving of a row",
    .cannotBind = {"PINODE Bind failed", "INODE Bind failed"},
};
constexpr Sql kRestamp{
    .tag = "LiveCatalogue :: stampNow",
    .text = "UPDATE FILES SET TIME=?1 WHERE INODE=?2",
    .cannotPrepare = "Could not prepare the stamping of a row",
    .cannotBind = {"TIME Bind failed", "INODE Bind failed"},
};

unsigned long long column64(sqlite3_stmt* row, int column) {
  return static_cast<unsigned long long>(sqlite3_column_int64(row, column));
}

std::string_view columnText(sqlite3_stmt* row, int column) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(row, column));
  return {text ? text : "", static_cast<std::size_t>(sqlite3_column_bytes(row, column))};
}

}  // namespace

bool LiveCatalogue::OpenHandle(bool readOnly, bool openFlag) {
  if (!CumulativeJournal::OpenHandle(readOnly, openFlag)) return false;
  for (const auto& database : {filesDb.get(), fidDb.get()})
    sqlite3_rollback_hook(
        database->handle, [](void* rolledBack) { *static_cast<bool*>(rolledBack) = true; },
        &rolledBack_);
  return true;
}

// A full disk, an error on the disk: rows that we remember to have written are not there, and those
// that we remember to be gone are.
void LiveCatalogue::forgetRolledBack() {
  if (!std::exchange(rolledBack_, false)) return;
  names_.clear();
  folders_.clear();
}

// Of the two rows of a folder that moved while it was scanned the last one, which is where the
// operations of the journal put what a record says to be in it.
std::optional<unsigned long long> LiveCatalogue::folderOf(const fsf_fid& fid) {
  forgetRolledBack();
  if (const auto known = folders_.find(fid); known != folders_.end()) return known->second;
  std::optional<unsigned long long> inode;
  for (const Name& name : namesOf(fid))
    if (name.type == kFolder) inode = name.inode;
  if (inode && folders_.size() >= kMostFolders) folders_.clear();
  if (inode) folders_[fid] = *inode;
  return inode;
}

// What is mended is removed, so each round has one row fewer and the loop ends.
std::vector<Name> LiveCatalogue::namesOf(const fsf_fid& fid, int most) {
  for (;;) {
    bool mended = false;
    std::vector<Name> names = tryNamesOf(fid, most, mended);
    if (!mended) return names;
  }
}

// Stops short where it finds, and mends, what a crash left.
std::vector<Name> LiveCatalogue::tryNamesOf(const fsf_fid& fid, int most, bool& mended) {
  std::vector<std::pair<unsigned long long, unsigned long long>> pairs;
  const auto& [fid1, fid2, fid3, fid4] = columnsOf(fid);
  run(pairsOf_, fidDb, kPairsOf).bind(fid1, fid2, fid3, fid4, most).read([&](sqlite3_stmt* row) {
    pairs.emplace_back(column64(row, 0), column64(row, 1));
  });
  std::vector<Name> names;
  for (const auto& [fidsRowId, inode] : pairs) {
    auto row = rowOf(inode);
    mended = !row || row->fidsRowId != fidsRowId;
    if (mended) {
      DeleteFidGivenRowId(fidsRowId);
      break;
    }
    row->fid = fid;
    names.push_back(std::move(*row));
  }
  return names;
}

Name LiveCatalogue::nameFrom(sqlite3_stmt* row) {
  return {.inode = column64(row, 0),
          .fidsRowId = column64(row, 1),
          .parent = column64(row, 2),
          .type = sqlite3_column_int(row, 3),
          .name = std::string(columnText(row, 4))};
}

std::optional<Name> LiveCatalogue::rowOf(unsigned long long inode) {
  std::optional<Name> name;
  run(rowOf_, filesDb, kRowOf).bind(inode).readFirst([&](sqlite3_stmt* row) {
    name = nameFrom(row);
  });
  return name;
}

std::optional<Name> LiveCatalogue::rowAt(unsigned long long inode) {
  auto name = rowOf(inode);
  if (name) identify(*name);
  return name;
}

// The identifier of a row, if the two rows speak of each other.
void LiveCatalogue::identify(Name& name) {
  unsigned long long inode = 0;
  if (GetFidAndFilesRowId(name.fidsRowId, &name.fid, &inode) && inode == name.inode) return;
  name.fid = {};
  name.fidsRowId = 0;
}

// The written names of a folder, and those that are held back: both are borne.
void LiveCatalogue::learnNames(unsigned long long folder) {
  names_.learn(folder);
  run(namesIn_, filesDb, kNamesIn).bind(folder).read([&](sqlite3_stmt* row) {
    names_.add(folder, columnText(row, 1), {.inode = column64(row, 0)});
  });
  for (const auto& [fid, entry] : journalMap)
    if (entry.created && entry.parentInode == folder)
      names_.add(folder, mbeToUtf(entry.name.c_str()), {.fid = fid});
}

// The index is a hint by hash, and may be out of date: each candidate is held against its row.
std::optional<Name> LiveCatalogue::bearerOf(unsigned long long folder, const char* name) {
  forgetRolledBack();
  if (!names_.knows(folder)) learnNames(folder);
  const std::string wanted = mbeToUtf(name);
  Name found;
  const bool borne = names_.find(folder, wanted, [&](NameIndex::Bearer& bearer) {
    return isBearer(bearer, folder, wanted, found);
  });
  return borne ? std::optional(found) : std::nullopt;
}

// Three ages of an entry: its row is known, it is still held back, or it was written since it was
// noted, and the row has to be found by the identifier.
bool LiveCatalogue::isBearer(NameIndex::Bearer& bearer, unsigned long long folder,
                             const std::string& name, Name& found) {
  const auto matches = [&](const Name& row) { return row.parent == folder && row.name == name; };
  if (bearer.inode != 0) {
    const auto row = rowOf(bearer.inode);
    if (!row || !matches(*row)) return false;
    found = *row;
    identify(found);
    return true;
  }
  if (const DCJrn* entry = createdOf(bearer.fid)) {
    if (entry->parentInode != folder || mbeToUtf(entry->name.c_str()) != name) return false;
    found = {.fid = bearer.fid, .parent = folder, .name = name};
    return true;
  }
  const auto names = namesOf(bearer.fid);  // written meanwhile; once for each name
  const auto row = std::ranges::find_if(names, matches);
  if (row == names.end()) return false;
  found = *row;
  bearer.inode = row->inode;
  return true;
}

const DCJrn* LiveCatalogue::createdOf(const fsf_fid& fid) const {
  const auto entry = journalMap.find(fid);
  return entry != journalMap.end() && entry->second.created ? &entry->second : nullptr;
}

std::vector<Name> LiveCatalogue::childrenOf(unsigned long long folder) {
  std::vector<Name> children;
  run(childrenOf_, filesDb, kChildrenOf).bind(folder).read([&](sqlite3_stmt* row) {
    children.push_back(nameFrom(row));
  });
  for (Name& child : children) identify(child);
  return children;
}

std::vector<Name> LiveCatalogue::parkedRows() {
  return childrenOf(kParked);
}

// For people only, so a circle or a lost folder gives no path instead of a failure.
std::string LiveCatalogue::pathOf(unsigned long long folder, const std::string& name) {
  if (folder == 0) return ".";
  std::string path = name;
  std::unordered_set<unsigned long long> passed;
  while (passed.insert(folder).second) {
    const auto row = rowOf(folder);
    if (!row || row->parked()) break;
    if (row->parent == 0) return path;
    path.insert(0, row->name + "/");
    folder = row->parent;
  }
  return {};
}

bool LiveCatalogue::apply(const FlrJrnCommandRaw& record) {
  return ApplyJournal(this, record);
}

void LiveCatalogue::noteName(unsigned long long folder, const char* name, const fsf_fid& fid,
                             unsigned long long inode) {
  names_.add(folder, mbeToUtf(name), {inode, fid});
}

void LiveCatalogue::forgetName(const Name& name) {
  names_.remove(name.parent, name.name, name.inode, name.fid);
}

// Past the table of pending entries: the row is wanted now, with its number.
unsigned long long LiveCatalogue::insertRow(StatFidName_s& entry, unsigned long long folder,
                                            int type) {
  DCSqliteDB::Insert(&entry, folder, type);
  return filesDb->LastInsertRowId();
}

void LiveCatalogue::park(const Name& name) {
  forgetName(name);
  run(park_, filesDb, kPark).bind(kParked, name.inode).write();
}

void LiveCatalogue::forget(const Name& name) {
  forgetName(name);
  if (name.type != kFolder) return;
  folders_.erase(name.fid);
  names_.forget(name.inode);
}

void LiveCatalogue::drop(const Name& name) {
  forget(name);
  DeleteEntry(name.inode, name.fidsRowId);
}

void LiveCatalogue::moveRow(const Name& name, unsigned long long folder) {
  forgetName(name);
  run(moveRow_, filesDb, kMoveRow).bind(folder, name.inode).write();
  names_.add(folder, name.name, {.inode = name.inode});
}

// What lies below may be pending, and is remembered by name. Not RemoveFolderGivenInode: it
// believes what rows say of their identifiers. A row goes before what is below it is looked up, so
// that rows in a circle are met once.
std::uint64_t LiveCatalogue::dropTree(const Name& folder) {
  FlushAllJournals();
  names_.clear();
  folders_.clear();
  std::uint64_t rows = 0;
  for (std::vector<Name> left = {folder}; !left.empty(); ++rows) {
    const Name name = std::move(left.back());
    left.pop_back();
    DeleteEntry(name.inode, name.fidsRowId);
    if (name.type != kFolder) continue;
    std::ranges::move(childrenOf(name.inode), std::back_inserter(left));
  }
  return rows;
}

void LiveCatalogue::forgetUnlessBorne(unsigned long long fidsRowId) {
  unsigned long long inode = 0;
  if (!GetFidAndFilesRowId(fidsRowId, nullptr, &inode)) return;
  const auto row = rowOf(inode);
  if (!row || row->fidsRowId != fidsRowId) DeleteFidGivenRowId(fidsRowId);
}

// The identifier first: a crash in between leaves an identifier whose row does not name it, which
// is mended when it is met. The other way round a row would name an identifier that is not there.
void LiveCatalogue::adopt(Name& name, const fsf_fid& fid) {
  InsertFid(&fid, name.inode, name.type);
  name.fid = fid;
  name.fidsRowId = fidDb->LastInsertRowId();
  UpdateFidRowIdInFilesDB(name.inode, name.fidsRowId);
}

void LiveCatalogue::readopt(Name& name, const fsf_fid& fid) {
  if (name.hasFid()) DeleteFidGivenRowId(name.fidsRowId);
  adopt(name, fid);
}

void LiveCatalogue::stampNow(unsigned long long inode) {
  const auto now = static_cast<int>(std::time(nullptr));
  run(restamp_, filesDb, kRestamp).bind(now, inode).write();
}

void LiveCatalogue::copyTo(const std::string& folder) {
  FlushAllJournals();
  Commit();
  const auto always = [] { return true; };
  copyDatabase(filesDb->handle, folder + kFilesDatabase, always);
  copyDatabase(fidDb->handle, folder + kFidDatabase, always);
}

void LiveCatalogue::CloseHandle(unsigned long refTime, bool keepUngraceful) {
  FlushAllJournals();
  // A database does not close while statements on it are open.
  for (Statement* statement :
       {&rowOf_, &namesIn_, &childrenOf_, &pairsOf_, &park_, &moveRow_, &restamp_})
    *statement = {};
  names_.clear();
  folders_.clear();
  CumulativeJournal::CloseHandle(refTime, keepUngraceful);
}

}  // namespace kddc
