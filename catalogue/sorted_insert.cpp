// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Inserts of a full scan, sorted. What differs from the base is only where the FIDS row of a file
// is meanwhile: an operation that removes a file looks for it in the map as well.
#include <algorithm>
#include <chrono>
#include <utility>
#include <vector>

#include "catalogue/child_row.h"
#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "catalogue/statement.h"
#include "platform/logged.h"
#include "platform/platform_info.h"

using kddc::kPlaceholder;
using kddc::logged;
using kddc::loggedWithKd;

DCSqliteDBSortedInsert::DCSqliteDBSortedInsert(std::string folder)
    : DCSqliteDB(std::move(folder)), mapLimit(1000000) {
  loggedWithKd("DCSqliteDBSortedInsert :: DCSqliteDBSortedInsert", [&] {
    long long limit = 0;
    if (KDPlatformInfo::getNumber("DataClassification", "SortedInsertMapSize", &limit) != 0)
      mapLimit = static_cast<unsigned long long>(limit);
  });
}

DCSqliteDBSortedInsert::~DCSqliteDBSortedInsert() = default;

unsigned long long DCSqliteDBSortedInsert::Insert(StatFidName_s* entry,
                                                  unsigned long long parentInode, int fileType) {
  return logged("DCSqliteDBSortedInsert :: Insert", [&] {
    if (fileType == kddc::kDeriveFromMode) fileType = GetFileType(entry->st.st_mode);
    if (fileType == kddc::kFolder) return DCSqliteDB::Insert(entry, parentInode, fileType);
    InsertFile(entry, parentInode, &fileType, 0);
    // The hint spares the search where files come in the order of their identifiers, as they do on
    // a disk that was filled once; entries that share one stay in the order of their insertion.
    sortMap.emplace_hint(sortMap.end(), entry->fid, filesDb->LastInsertRowId());
    if (sortMap.size() >= mapLimit) FlushAllFids();
    return kPlaceholder;
  });
}

void DCSqliteDBSortedInsert::FlushAllFids() {
  constexpr char kTag[] = "DCSqliteDBSortedInsert :: FlushAllFids";
  logged(kTag, [&] {
    using Clock = std::chrono::steady_clock;
    dbg.Debug(kTag, "SortMap_m Size[%lu]", sortMap.size());
    const Clock::time_point began = Clock::now();

    // Sorted once more, by inode: FILES grew in that order, so its pages are passed through once.
    std::vector<std::pair<unsigned long long, unsigned long long>> fidsRowIds;  // by inode
    fidsRowIds.reserve(sortMap.size());
    for (const auto& [fid, inode] : sortMap) {
      InsertFid(&fid, inode, 0);
      fidsRowIds.emplace_back(inode, fidDb->LastInsertRowId());
    }
    sortMap.clear();
    std::ranges::sort(fidsRowIds);
    for (const auto& [inode, fidsRowId] : fidsRowIds) UpdateFidRowIdInFilesDB(inode, fidsRowId);

    const auto took = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began);
    dbg.Debug(kTag, "Sorted inserts took[%lu]", static_cast<unsigned long>(took.count()));
  });
}

void DCSqliteDBSortedInsert::CloseHandle(unsigned long refTime, bool keepUngraceful) {
  constexpr char kTag[] = "DCSqliteDBSortedInsert :: CloseHandle";
  logged(kTag, [&] {
    dbg.Debug(kTag, "Flush Remaining FIDS and close the DB Handle");
    FlushAllFids();
    DCSqliteDB::CloseHandle(refTime, keepUngraceful);
  });
}

void DCSqliteDBSortedInsert::DeleteFromMap(unsigned long long inode) {
  constexpr char kTag[] = "DCSqliteDBSortedInsert :: DeleteFromMap";
  logged(kTag, [&] {
    dbg.DebugLvl(kTag, 6, "Inode[%llu]", inode);
    // A search through all of it: only what is removed while a scan goes on comes here, which is
    // rare.
    const auto found = std::ranges::find(sortMap, inode, &decltype(sortMap)::value_type::second);
    if (found != sortMap.end()) sortMap.erase(found);
  });
}

void DCSqliteDBSortedInsert::RemoveFolderGivenInode(unsigned long long inode,
                                                    unsigned long long fidsRowId) {
  constexpr char kTag[] = "DCSqliteDBSortedInsert :: RemoveFolderGivenInode";
  logged(kTag, [&] {
    dbg.DebugLvl(kTag, 6, "Inode[%llu] FidRowId[%llu]", inode, fidsRowId);
    removeSubtree(inode, fidsRowId, DeleteCallBack1);
  });
}

int DeleteCallBack1(void* object, int /*columns*/, char** values, char** /*names*/) {
  return kddc::removeChild("DeleteCallBack1", values, [&](const kddc::ChildRow& child) {
    // In two steps, because what was handed in as a void* is the base.
    auto* catalogue = static_cast<DCSqliteDBSortedInsert*>(static_cast<DCSqliteDB*>(object));
    if (child.isFolder) {
      catalogue->RemoveFolderGivenInode(child.inode, child.fidRowId);
    } else if (child.fidRowId == kPlaceholder) {
      catalogue->DeleteInode(child.inode);
      catalogue->DeleteFromMap(child.inode);
    } else {
      catalogue->DeleteEntry(child.inode, child.fidRowId);
    }
  });
}

void DCSqliteDBSortedInsert::RemoveDuplicateFid(const fsf_fid* fid) {
  constexpr char kTag[] = "DCSqliteDBSortedInsert :: RemoveDuplicateFid";
  logged(kTag, [&] {
    if (dbg.Enabled(6)) dbg.DebugLvl(kTag, 6, "Fid[%s]", kddc::fid2str(*fid).c_str());
    std::vector<unsigned long long> inodes;
    const auto [first, last] = sortMap.equal_range(*fid);
    for (auto entry = first; entry != last; ++entry) inodes.push_back(entry->second);
    sortMap.erase(first, last);
    for (const unsigned long long inode : inodes) DeleteInode(inode);
    DCSqliteDB::RemoveDuplicateFid(fid);
  });
}
