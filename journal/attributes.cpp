// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Records about what a file is: its attributes, and whether its data is here.
#include <ctime>
#include <optional>

#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "catalogue/statement.h"
#include "journal/identifier.h"
#include "journal/sql_text.h"
#include "platform/logged.h"

using kddc::inodesOf;
using kddc::kRegularFile;
using kddc::kStub;
using kddc::logged;
using kddc::Sql;
using kddc::SqlText;

namespace {

constexpr char kSetAttr[] = "DCSqliteDB :: SetAttr";
constexpr int kAttributes = 6;  // log level

// ?2 is left to Stub, so that both have the same parameters.
constexpr Sql kStubSql{
    .tag = "DCSqliteDb :: Stub",  // sic: as it stands in the logs
    .text = "UPDATE FILES SET FILE_TYPE=?1,CTIME=?2,TIME=?3 WHERE INODE=?4",
    .cannotPrepare = "Could not prepeare the Stub query",
    .cannotBind = {"FILE_TYPE  Bind failed", "CTIME  Bind failed", "TIME  Bind failed",
                   "INODE Bind failed"},
};

constexpr Sql kUnStubSql{
    .tag = "DCSqliteDB :: UnStub",
    .text = "UPDATE FILES SET FILE_TYPE=?1,TIME=?3 WHERE INODE=?4",
    .cannotPrepare = "Could not prepeare the Stub query",
    .cannotBind = kStubSql.cannotBind,
};

// The wall clock as 32 bits, which is what rows hold.
unsigned wallClock() {
  return static_cast<unsigned>(time(nullptr));
}

// `update` was prepared before the identifier is looked up: a catalogue that cannot mark stubs says
// so at the first record about one.
void setFileType(DCSqliteDB& db, kddc::Execution&& update, const fsf_fid& fid, int fileType,
                 std::optional<int> changed) {
  for (const unsigned long long inode : inodesOf(db, fid)) {
    update.bindAt(1, fileType);
    if (changed) update.bindAt(2, *changed);
    update.bindAt(3, static_cast<int>(wallClock())).bindAt(4, inode).write();
  }
}

// A value goes into the row when its flag is exactly 1. Only the question whether there is anything
// beside the access time takes any flag that is not 0: so callers have always seen it.
bool isSet(unsigned char flag) {
  return flag == 1;
}

bool onlyAccessTime(const FlrJrnSetAttrRaw& r) {
  return (r.mode_valid | r.uid_valid | r.gid_valid | r.mtime_valid | r.ctime_valid | r.size_valid |
          r.blocks_valid) == 0;
}

bool ownerModeOrSize(const FlrJrnSetAttrRaw& r) {
  return isSet(r.mode_valid) || isSet(r.uid_valid) || isSet(r.gid_valid) || isSet(r.size_valid) ||
         isSet(r.blocks_valid);
}

// A modification time that was put into the past did not change the file.
bool sentByUtime(const FlrJrnSetAttrRaw& r, int recordTime) {
  return isSet(r.mtime_valid) && !ownerModeOrSize(r) && r.mtime.tv_sec < recordTime;
}

unsigned long long seconds(const FlrJrnTime& time) {
  return static_cast<unsigned long long>(time.tv_sec);
}

// "UPDATE FILES SET MODE=33188 , UID=501 , ": one assignment for each value that is meant, each
// with a comma behind it, so that a last assignment must follow.
void writeAssignments(SqlText& sql, const FlrJrnSetAttrRaw& r, unsigned recordTime) {
  const auto assign = [&](unsigned char flag, const char* column, unsigned long long value) {
    if (isSet(flag)) sql.add(column, value, " , ");
  };
  sql.add("UPDATE FILES SET ");
  assign(r.mode_valid, "MODE=", r.mode);
  assign(r.uid_valid, "UID=", r.uid);
  assign(r.gid_valid, "GID=", r.gid);
  assign(r.atime_valid, "ATIME=", seconds(r.atime));
  assign(r.mtime_valid, "MTIME=", seconds(r.mtime));
  assign(r.ctime_valid, "CTIME=", seconds(r.ctime));
  if (!isSet(r.ctime_valid) && ownerModeOrSize(r)) {
    dbg.DebugLvl(kSetAttr, kAttributes, "Auto generated Ctime update");
    assign(1, "CTIME=", recordTime);
  }
  assign(r.size_valid, "SIZE=", r.size);
  assign(r.blocks_valid, "BLOCKSUSED=", r.blocks);
}

}  // namespace

void DCSqliteDB::SetAttr(const FlrJrnSetAttrRaw& r, int time) {
  logged(kSetAttr, [&] {
    std::list<unsigned long long> inodes = inodesOf(*this, r.fid);
    if (inodes.empty()) return;
    if (onlyAccessTime(r)) {
      UpdateAtime(inodes, static_cast<unsigned long>(r.atime.tv_sec));
      return;
    }
    const bool utime = sentByUtime(r, time);
    if (utime) dbg.DebugLvl(kSetAttr, kAttributes, "Sent by a call to utime");

    const auto recordTime = static_cast<unsigned>(time);
    // Which columns are set differs from record to record; 256 statements would have to be kept.
    SqlText sql(queryBuf);
    writeAssignments(sql, r, recordTime);
    const std::size_t assignments = sql.size();
    for (const unsigned long long inode : inodes) {
      sql.cut(assignments);
      if (!utime)
        sql.add(" TIME=", wallClock());
      else if (isSet(r.ctime_valid))
        sql.add(" NLINK=NLINK");  // changes nothing, and ends the list
      else
        sql.add(" CTIME=", recordTime);
      sql.add(" WHERE INODE=", inode);
      dbg.DebugLvl(kSetAttr, kAttributes, "Executing : %s ", sql.text());
      filesDb->exec_query(sql.text());
    }
  });
}

void DCSqliteDB::SetAdditionalAttr(const fsf_fid* fid, int time) {
  logged("DCSqliteDB :: SetAdditionalAttr", [&] {
    for (const unsigned long long inode : inodesOf(*this, *fid))
      UpdateCtimeTime(inode, static_cast<unsigned long>(time));
  });
}

void DCSqliteDB::Stub(const FlrJrnStubRaw& record, int time) {
  logged(kStubSql.tag, [&] {
    setFileType(*this, run(statements_->stub, filesDb, kStubSql), record.fid, kStub, time);
  });
}

void DCSqliteDB::UnStub(const FlrJrnUnStubRaw& record, int /*time*/) {
  logged(kUnStubSql.tag, [&] {
    setFileType(*this, run(statements_->unStub, filesDb, kUnStubSql), record.fid, kRegularFile,
                std::nullopt);
  });
}
