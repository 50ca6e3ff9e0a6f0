// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One entry of the disk against its rows: found, compared, marked as seen. Every way out before the
// marks leaves the rows to be listed as stale in the end.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <list>
#include <span>
#include <string>

#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "platform/ev_debug.h"
#include "platform/text.h"
#include "verify/tables.h"

using kddc::find;
using kddc::Found;
using kddc::kFolder;
using kddc::loggedAsOurs;
using kddc::sqlText;

namespace {

constexpr char kFolderTag[] = "DCSqliteDB :: VerifyFolder";
constexpr char kFileTag[] = "DCSqliteDB :: VerifyFile";

// Reading a file changes its access time, so that it hardly ever agrees; it is compared only while
// somebody who wants that keeps this file.
constexpr char kCompareAtime[] = "/tmp/verifyatime";

// The rows of one identifier: one for each name.
struct IdentifierRows {
  unsigned long long inode = 0, fidsRowId = 0;  // those of the last row, at first
  bool seen = false;
  std::list<unsigned long long> inodes, fidsRowIds;
};

// The catalogue keeps link counts and times in 32 bits.
std::uint32_t low(unsigned long long number) {
  return static_cast<std::uint32_t>(number);
}

void compareNumbers(const char* tag, const char* path, const char* what, unsigned long long inDb,
                    unsigned long long onDisk) {
  if (inDb != onDisk)
    dbg.Debug(tag, "[%s] %sDB has[%llu]. Current[%llu]", path, what, inDb, onDisk);
}

// Of several names, the rows of the one that stands in the folder `pinode`; false when there are
// none, or the two databases do not agree on them.
bool chooseName(UDC_DBMS& files, const char* query, const char* path, IdentifierRows& rows) {
  const Found found = find(files, query);
  if (!found.oneRow()) {
    dbg.Debug(kFileTag, "Query[%s]", query);
    dbg.Debug(kFileTag, "[%s] has multiple entries in the FILES DB[%u] ", path, found.rows);
    return false;
  }
  rows.inode = found.number(0);
  const auto same = std::ranges::find(rows.inodes, rows.inode);
  if (same == rows.inodes.end()) {
    dbg.Debug(kFileTag, "[%s] RowId mis match between FIDS[%llu] and FILES[%llu] DB", path,
              rows.fidsRowId, rows.inode);
    return false;
  }
  rows.fidsRowId = *std::next(rows.fidsRowIds.begin(), std::distance(rows.inodes.begin(), same));
  return true;
}

// A second visit would compare one row with two files: the identifier was given twice, or the file
// has a further name that the catalogue does not know.
bool isFirstVisit(const Found& found, const char* path, unsigned long long fidsRowId) {
  if (!found.oneRow() || found.hasNull()) {
    dbg.Debug(kFileTag, "[%s] FIDS_ROWID[%llu] lookup failed", path, fidsRowId);
    return false;
  }
  if (found.number(0) == 0) return true;
  dbg.Debug(kFileTag, "[%s] This FID has already been visited", path);
  return false;
}

// The columns that a file is asked for, in the order of the query.
enum FileColumn { kPinode, kGid, kNlink, kSize, kAtime, kMtime, kCtime, kFileType, kName };

bool canBeCompared(const Found& found, const char* path) {
  if (!found.oneRow()) {
    dbg.Debug(kFileTag, "[%s] has one/more[%u] entries in the FILES DB", path, found.rows);
    return false;
  }
  if (found.hasNull()) {
    dbg.Debug(kFileTag, "[%s]  PINODE/GID/NLINK/SIZE/ATIME/MTIME/CTIME/FILE_TYPE/NAME is NULL",
              path);
    return false;
  }
  if (found.number(kGid) == 0) return true;
  dbg.Debug(kFileTag, "[%s] This INODE has already been visited", path);
  return false;
}

void compareFile(const Found& row, const char* path, unsigned long long pinode, const char* name,
                 const struct stat& st) {
  const auto compareTimes = [&](const char* what, FileColumn column, time_t time) {
    const unsigned long long inDb = row.number(column), onDisk = static_cast<unsigned long>(time);
    if (low(inDb) != low(onDisk)) compareNumbers(kFileTag, path, what, inDb, onDisk);
  };
  compareNumbers(kFileTag, path, "Pinode differs. ", row.number(kPinode), pinode);
  compareNumbers(kFileTag, path, "Nlink Differs. ", low(row.number(kNlink)), low(st.st_nlink));
  compareNumbers(kFileTag, path, "Size differs.", row.number(kSize),
                 static_cast<unsigned long long>(st.st_size));
  if (::access(kCompareAtime, F_OK) == 0) compareTimes("Atime differs.", kAtime, st.st_atime);
  compareTimes("Mtime differs.", kMtime, st.st_mtime);
  compareTimes("Ctime differs.", kCtime, st.st_ctime);
  if (row.number(kFileType) == kFolder)
    dbg.Debug(kFileTag, "[%s] FileType differs.DB [ Folder] . Current [ File]", path);
  if (const std::string current = mbeToUtf(name); current != row.cells[kName])
    dbg.Debug(kFileTag, "[%s] ShortName differs. DB[%s] . Current[%s]", path, row.cells[kName],
              current.c_str());
}

void compareFolder(const Found& row, const char* path, unsigned long long pinode,
                   const char* name) {
  compareNumbers(kFolderTag, path, "Pinode differs. ", row.number(0), pinode);
  if (const auto type = static_cast<unsigned>(row.number(1)); type != kFolder)
    dbg.Debug(kFolderTag, "[%s] is a Folder, But DB thinks it is not [%u]", path, type);
  if (mbeToUtf(name) != row.cells[2])
    dbg.Debug(kFolderTag, "[%s] Name in DB[%s] Name on Disk[%s]", path, row.cells[2], name);
}

// Text by text, not prepared: a diagnostic is not worth statements that are kept.
void markAsSeen(UDC_DBMS& fids, UDC_DBMS& files, std::span<char> buffer,
                const IdentifierRows& rows) {
  fids.exec_query(
      sqlText(buffer, "UPDATE FIDS SET RESCAN=1 WHERE FIDS_ROWID=%llu", rows.fidsRowId));
  files.exec_query(sqlText(buffer, "UPDATE FILES SET GID=1 WHERE INODE=%llu", rows.inode));
}

}  // namespace

// NOLINTBEGIN(performance-unnecessary-value-param): existing callers are linked against these.

bool DCSqliteDB::VerifyFolder(std::string path, unsigned long long pinode, const char* name,
                              unsigned long long& inode, const struct stat& /*st*/) {
  return loggedAsOurs(kFolderTag, [&] {
    const fsf_fid fid = driver.getFID(path, false);
    IdentifierRows rows;
    GetFidTuple(&fid, &rows.inodes, &inode, nullptr, &rows.seen, &rows.fidsRowId, nullptr);
    if (rows.inodes.size() != 1) {
      dbg.Debug(kFolderTag, "[%s] has multiple or no entries [%lu] in the FIDS DB", path.c_str(),
                rows.inodes.size());
      return false;
    }
    if (rows.seen) {
      dbg.Debug(kFolderTag, "Fid for [%s] has already been visited", path.c_str());
      return false;
    }
    rows.inode = inode;
    const Found row =
        find(*filesDb,
             sqlText(queryBuf, "SELECT PINODE,FILE_TYPE,NAME FROM FILES WHERE INODE=%llu", inode));
    if (!row.oneRow()) {
      dbg.Debug(kFolderTag, "[%s] has multiple or no entries [%u] in the FILES DB", path.c_str(),
                row.rows);
      return false;
    }
    if (row.hasNull()) {
      dbg.Debug(kFolderTag, "[%s] Pinode/FileType/Name is NULL", path.c_str());
      return false;
    }
    compareFolder(row, path.c_str(), pinode, name);
    markAsSeen(*fidDb, *filesDb, queryBuf, rows);
    return true;
  });
}

void DCSqliteDB::VerifyFile(std::string path, unsigned long long pinode, const char* name,
                            const struct stat& st) {
  loggedAsOurs(kFileTag, [&] {
    const fsf_fid fid = driver.getFID(path, false);
    IdentifierRows rows;
    GetFidTuple(&fid, &rows.inodes, &rows.inode, nullptr, nullptr, &rows.fidsRowId,
                &rows.fidsRowIds);
    if (rows.inodes.empty()) {
      dbg.Debug(kFileTag, "[%s] has no corresponding entry in the FIDS DB", path.c_str());
      return;
    }
    if (rows.inodes.size() > 1) {
      // The name as it is on the disk: where it is converted for the catalogue, it is not found.
      const char* query =
          sqlText(queryBuf, "SELECT INODE FROM FILES WHERE PINODE=%llu AND NAME='%s'", pinode,
                  AppendSingleQuote(name).c_str());
      if (!chooseName(*filesDb, query, path.c_str(), rows)) return;
    }
    const char* query =
        sqlText(queryBuf, "SELECT RESCAN FROM FIDS WHERE FIDS_ROWID=%llu", rows.fidsRowId);
    if (!isFirstVisit(find(*fidDb, query), path.c_str(), rows.fidsRowId)) return;
    const Found row =
        find(*filesDb, sqlText(queryBuf,
                               "SELECT PINODE,GID,NLINK,SIZE,ATIME,MTIME,CTIME,FILE_TYPE,NAME FROM "
                               "FILES WHERE INODE=%llu",
                               rows.inode));
    if (!canBeCompared(row, path.c_str())) return;
    compareFile(row, path.c_str(), pinode, name, st);
    markAsSeen(*fidDb, *filesDb, queryBuf, rows);
  });
}

// NOLINTEND(performance-unnecessary-value-param)
