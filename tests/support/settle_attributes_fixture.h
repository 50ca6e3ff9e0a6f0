// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One file that a catalogue knows, the records about it, and what its rows say.
#pragma once

#include <string>

#include "tests/support/live_fixture.h"

namespace kddc::test {

// File A is "a" in the root, row 2, and its TIME is 3500.
struct SettleAttributesTest : SettleTest {
  SettleAttributesTest() {
    present('R', "a", 'A');
    written();
    attributesOf('A', {});  // what this said would still count as part of the file's coming
    run("UPDATE FILES SET TIME=3500 WHERE INODE=2");
  }

  // SQL on the writer's own connection.
  void run(const std::string& sql) const { db.filesDb->exec_query(sql.c_str()); }
  // Row 3 is a further name of A.
  void giveFurtherName() {
    present('R', "b", 'A', {.links = 2});
    written();
    run("UPDATE FILES SET TIME=3500 WHERE INODE IN (2,3)");
  }
  // "now" for a TIME that lies less than a minute back.
  Rows times() {
    written();
    return DatabaseView(filesPath).rows(
        "SELECT CTIME,IIF(ABS(TIME-CAST(strftime('%s','now') AS INTEGER))<60,'now',TIME) FROM "
        "FILES WHERE INODE>1 ORDER BY INODE");
  }
  Rows everything() {
    written();
    return DatabaseView(filesPath).rows(
        "SELECT MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME FROM FILES WHERE INODE>1 "
        "ORDER BY INODE");
  }
  Rows links() {
    return DatabaseView(filesPath).rows("SELECT NLINK FROM FILES WHERE INODE>1 ORDER BY INODE");
  }
  Rows types() {
    written();
    return DatabaseView(filesPath).rows("SELECT FILE_TYPE FROM FILES WHERE INODE>1 ORDER BY INODE");
  }
  Result linkCount(const fsf_fid& file, unsigned count) {
    FlrJrnCommandRaw record = headed(FLR_JRN_REMOVE, {.links = count, .ctime = 4000});
    record.u.remove = {{}, "", file, count};
    return settle.take(record);
  }
  Result stub(char file) {
    FlrJrnCommandRaw record = headed(FLR_JRN_STUB, {.ctime = 4000});
    record.u.stub = {fidOf(file), ""};
    return settle.take(record);
  }
  Result unstub(char file) {
    FlrJrnCommandRaw record = headed(FLR_JRN_UNSTUB, {.ctime = 4000});
    record.u.unstub = {fidOf(file)};
    return settle.take(record);
  }
  // From now on no row can be updated.
  void refuseUpdates() {
    run("CREATE TEMP TRIGGER refuse BEFORE UPDATE ON FILES BEGIN SELECT RAISE(ABORT,'refused'); "
        "END");
  }
};

}  // namespace kddc::test
