// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Readers beside the one writer: consistent views, and nobody waits.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "tests/support/catalogue.h"

namespace {

using kddc::test::DatabaseView;

#if defined(__SANITIZE_THREAD__) || defined(KDDC_ADDRESS_SANITIZER)
constexpr int kInserts = 100000;
#else
constexpr int kInserts = 1000000;
#endif

struct Readers : kddc::test::OpenCatalogueTest {};

TEST_F(Readers, SeeConsistentSnapshotsWhileAMillionRowsAreInserted) {
  std::atomic<bool> finished = false;
  int snapshots = 0, different = 0;
  std::thread reader([&] {
    // No busy time-out is set: waiting for the writer would show as a failure here.
    DatabaseView files(filesPath), fids(fidsPath);
    std::string before;
    while (!finished) {
      files.rows("BEGIN");
      const std::string rows = files.cell("SELECT max(INODE) FROM FILES");
      fids.rows("BEGIN");
      // Every row up to the newest is there, and stays so within the snapshot.
      EXPECT_EQ(files.cell("SELECT count(*) || '' FROM FILES"), rows == "NULL" ? "0" : rows);
      EXPECT_EQ(files.cell("SELECT max(INODE) FROM FILES"), rows);
      fids.rows("COMMIT");
      files.rows("COMMIT");
      ++snapshots;
      different += rows != before;
      before = rows;
      if (HasFailure()) break;
    }
  });
  StatFidName_s e = entry("name", 'A', kRegular);
  for (int i = 0; i < kInserts && !HasFailure(); ++i) {
    e.fid.data[0] = static_cast<unsigned char>(i);
    e.fid.data[1] = static_cast<unsigned char>(i >> 8);
    e.fid.data[2] = static_cast<unsigned char>(i >> 16);
    db.Insert(&e, static_cast<unsigned long long>(i / 100), 7);
  }
  db.Commit();
  finished = true;
  reader.join();
  EXPECT_GT(snapshots, 1);
  EXPECT_GT(different, 1) << "the reader must have seen the catalogue grow";
  EXPECT_EQ(files("count(*)"), Rows{std::to_string(kInserts)});
  EXPECT_EQ(fids("count(*)"), Rows{std::to_string(kInserts)});
}

}  // namespace
