// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Removal of whole subtrees. Every folder goes through the virtual RemoveFolderGivenInode, so that
// a subclass sees each of them.
#include <cstdio>

#include "catalogue/child_row.h"
#include "catalogue/db_access.h"
#include "catalogue/subtree_walk.h"
#include "platform/logged.h"
#include "records/fsf_fid.h"

using kddc::logged;
using kddc::SubtreeWalk;

namespace {

// One level of a removal. The outermost one leaves a clean slate, whatever happened.
class Level {
 public:
  explicit Level(SubtreeWalk& walk) : walk_(walk) { ++walk_.depth; }
  ~Level() {
    if (--walk_.depth == 0) walk_ = {};
  }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;
  bool outermost() const { return walk_.depth == 1; }

 private:
  SubtreeWalk& walk_;
};

}  // namespace

int DCSqliteDB::DeleteEntry(unsigned long long inode, unsigned long long fidsRowId) {
  constexpr char kTag[] = "DCSqliteDB :: DeleteEntry";
  return logged(kTag, [&] {
    dbg.DebugLvl(kTag, 5, "Inode[%llu] FidRowId[%llu]", inode, fidsRowId);
    DeleteInode(inode);
    return DeleteFidGivenRowId(fidsRowId);
  });
}

void DCSqliteDB::RemoveFolderGivenInode(unsigned long long inode, unsigned long long fidsRowId) {
  logged("DCSqliteDB :: RemoveFolderGivenInode",
         [&] { removeSubtree(inode, fidsRowId, DeleteCallBack); });
}

// Each level is a query whose callback comes back here, so depth costs stack. Below the deepest
// level folders are put off, and the outermost call begins with them anew.
void DCSqliteDB::removeSubtree(unsigned long long inode, unsigned long long fidsRowId,
                               int (*rowCallback)(void*, int, char**, char**)) {
  const Level level(*subtreeWalk_);
  if (subtreeWalk_->depth > SubtreeWalk::kDeepest) {
    subtreeWalk_->postponed.emplace_back(inode, fidsRowId);
    return;
  }
  // Parents may form a cycle, in a damaged catalogue.
  if (subtreeWalk_->visited.insert(inode).second) {
    if (!filesDb)
      throw UDCException("DCSqliteDB :: RemoveFolderGivenInode", 1, dbFolder + " is not open", 0);
    char query[128];
    std::snprintf(query, sizeof query,
                  "SELECT INODE,FID_ROWID,FILE_TYPE FROM FILES WHERE PINODE=%llu", inode);
    filesDb->exec_query_with_callback(query, rowCallback, this);
  }
  DeleteEntry(inode, fidsRowId);

  while (level.outermost() && !subtreeWalk_->postponed.empty()) {
    const auto [folder, folderFid] = subtreeWalk_->postponed.back();
    subtreeWalk_->postponed.pop_back();
    RemoveFolderGivenInode(folder, folderFid);
  }
}

int DeleteCallBack(void* object, int /*columns*/, char** values, char** /*names*/) {
  return kddc::removeChild("DeleteCallBack", values, [&](const kddc::ChildRow& child) {
    auto* catalogue = static_cast<DCSqliteDB*>(object);
    if (child.isFolder) catalogue->RemoveFolderGivenInode(child.inode, child.fidRowId);
    // Again for a folder that has just removed itself: it finds nothing, and a folder whose own
    // removal waits or was cut short by a cycle still loses its row.
    catalogue->DeleteEntry(child.inode, child.fidRowId);
  });
}

void DCSqliteDB::RemoveDuplicateFid(const fsf_fid* fid) {
  constexpr char kTag[] = "DCSqliteDB :: RemoveDuplicateFid";
  logged(kTag, [&] {
    std::list<unsigned long long> filesRowIds, fidsRowIds;
    GetFidTuple(fid, &filesRowIds, nullptr, nullptr, nullptr, nullptr, &fidsRowIds);
    auto fidsRowId = fidsRowIds.begin();
    for (const unsigned long long inode : filesRowIds) {
      if (dbg.Enabled(6)) dbg.DebugLvl(kTag, 6, "Fid[%s]", kddc::fid2str(*fid).c_str());
      RemoveFolderGivenInode(inode, *fidsRowId++);
    }
  });
}
