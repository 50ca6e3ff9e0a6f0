// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An open catalogue that coalesces records, and the words that tests of it use.
//
// insert() gives every row MODE 33188, NLINK 1, UID 501, GID 20, SIZE 4096, BLOCKSUSED 8, ATIME
// 1000, MTIME 2000, CTIME 3000 and, here, TIME 3000.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "journal/cumulative_journal.h"
#include "tests/support/journal_fixture.h"
#include "tests/support/log_capture.h"

namespace kddc::test {

// Shows tests what a subclass may see.
class OpenCumulative : public CumulativeJournal {
 public:
  using CumulativeJournal::CumulativeJournal;
  using CumulativeJournal::journalMap;
  using CumulativeJournal::mapLimit;
  using DCSqliteDB::fidDb;
  using DCSqliteDB::filesDb;
  using DCSqliteDB::openTime;
};

struct CumulativeTest : CatalogueTest {
  static constexpr int kAt = 5000;  // the time of records
  static constexpr char kAll[] =
      "PINODE,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME,FILE_TYPE,NAME";

  OpenCumulative db{folder};

  CumulativeTest() {
    db.CreateDb();
    EXPECT_TRUE(db.OpenHandle(false, false));
    db.openTime = 0;
    JournalPerfStatMap_g.clear();
  }

  unsigned long long insert(const std::string& name, char fid, unsigned mode = kRegular,
                            unsigned long long parent = 0) {
    StatFidName_s e = entry(name, fid, mode);
    return db.Insert(&e, parent, 7);
  }
  static FlrJrnSetAttrRaw attributesOf(char fid) {
    FlrJrnSetAttrRaw r{};
    r.fid = fidOf(fid);
    return r;
  }
  // A change that is always one: the file is now so long.
  static FlrJrnSetAttrRaw sizeOf(char fid, unsigned long long size) {
    FlrJrnSetAttrRaw r = attributesOf(fid);
    r.size_valid = 1;
    r.size = size;
    return r;
  }
  static FlrJrnCreateRaw file(char fid, const char* name, char parent = 'T') {
    return {.par_fid = fidOf(parent),
            .fid = fidOf(fid),
            .short_name = name,
            .mode = 0100640,
            .uid = 7,
            .gid = 8,
            .atime = {40, 1},
            .mtime = {50, 2},
            .rdev = 99};
  }
  static FlrJrnRemoveRaw removal(char fid, const char* name, unsigned links = 0) {
    return {.par_fid = fidOf('T'), .short_name = name, .file_fid = fidOf(fid), .nlink = links};
  }

  // The rows so far, as others see them after a commit, which writes no pending entry.
  Rows rows(const std::string& columns) {
    db.Commit();
    return files(columns);
  }
  DCJrn& pending(char fid) { return db.journalMap.at(fidOf(fid)); }
  bool isPending(char fid) const { return db.journalMap.contains(fidOf(fid)); }

  void filesSql(const std::string& sql) { db.filesDb->exec_query(sql.c_str()); }
  void fidsSql(const std::string& sql) { db.fidDb->exec_query(sql.c_str()); }
  // From now on a change of that row of FILES fails, until allow().
  void refuseUpdateOf(unsigned long long inode) {
    filesSql("CREATE TEMP TRIGGER refuse BEFORE UPDATE ON FILES WHEN OLD.INODE=" +
             std::to_string(inode) + " BEGIN SELECT RAISE(ABORT,'refused'); END");
  }
  void refuseInsertOf(const std::string& name) {
    filesSql("CREATE TEMP TRIGGER refuse BEFORE INSERT ON FILES WHEN NEW.NAME='" + name +
             "' BEGIN SELECT RAISE(ABORT,'refused'); END");
  }
  void allow() { filesSql("DROP TRIGGER refuse"); }
};

}  // namespace kddc::test
