// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// However little room a disk has left: what does not fit is an error, and what was committed stays.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/exceptions.h"
#include "platform/udc_dbms.h"
#include "platform/wal_index_guard.h"
#include "tests/support/balloon.h"
#include "tests/support/database_view.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

// Blocks of 1 KiB, pages of memory of 4 KiB.
struct FullDisk : testing::Test {
  std::optional<LoopMount> disk;
  std::string path;
  int kept = 0, failed = 0;

  void SetUp() override {
    if (const std::string why = LoopMount::whyNot("ext4"); !why.empty()) GTEST_SKIP() << why;
    setenv("TMPDIR", inMemory().c_str(), 1);
    disk.emplace("ext4");
    path = *disk / "test.db";
    UDC_DBMS db(path, 2, 0, false);
    ASSERT_TRUE(db.opendb(false));
    db.exec_query("CREATE TABLE T (TEXT)");
    db.closedb(false);
  }
  // There may be room for it.
  template <class Work>
  void attempt(Work&& work) {
    try {
      work();
      ++kept;
    } catch (const UDCException&) {
      ++failed;
    }
  }
  void expectWhatWasKept() const {
    EXPECT_EQ(DatabaseView(path).cell("SELECT count(*) FROM T"), std::to_string(kept));
    EXPECT_GT(kept, 10);
    EXPECT_GT(failed, 10);
  }
};

constexpr char kInsert[] = "INSERT INTO T VALUES (zeroblob(3000))";

TEST_F(FullDisk, EndsNoProcessThatOpensADatabase) {
  for (int room = 0; room <= 96; room += 2) {
    const Balloon balloon(disk->path());
    balloon.leave(room * 1024);
    attempt([&] {
      UDC_DBMS db(path, 2, 0, false);
      if (!db.opendb(false)) throw UDCException("opendb", 0, SQLITE_FULL, "");
      db.exec_query(kInsert);
      db.closedb(false);
    });
  }
  expectWhatWasKept();
}

TEST_F(FullDisk, EndsNoProcessThatHasADatabaseOpen) {
  UDC_DBMS db(path, 2, 0, false);
  ASSERT_TRUE(db.opendb(false));
  const Balloon balloon(disk->path());
  for (int room = 0; room <= 96; ++room) {
    balloon.leave(room % 8 * 1024);
    attempt([&] {
      db.exec_query(kInsert);
      db.Commit();
    });
    sync();
  }
  balloon.burst();
  db.closedb(false);
  expectWhatWasKept();
}

TEST_F(FullDisk, IsNotMadeByTheLogAlone) {
  UDC_DBMS db(path, 2, 0, false);
  ASSERT_TRUE(db.opendb(false));
  for (int i = 0; i < 3000; ++i) {
    attempt([&] {
      db.exec_query(i == 0 ? kInsert : "UPDATE T SET TEXT=randomblob(3000)");
      db.Commit();
    });
  }
  EXPECT_EQ(failed, 0);
  EXPECT_LT(std::filesystem::file_size(path + "-wal"), 3U << 20);
  db.closedb(false);
}

// Whoever made it made it before the first was opened, and so closes it after everything else.
TEST(WalIndexGuard, LastsUntilTheLastDatabaseIsClosed) {
  const TempFolder folder;
  const auto exitsWithADatabaseOpen = [&] {
    static std::unique_ptr<UDC_DBMS> opened;
    opened = std::make_unique<UDC_DBMS>(folder / "test.db", 2, 0, false);
    if (!opened->opendb(false)) std::abort();
    std::exit(0);
  };
  EXPECT_EXIT(exitsWithADatabaseOpen(), testing::ExitedWithCode(0), "");
}

// One that is kept in memory has no log, nor has one that failed to open a file.
TEST(WalIndexGuard, LeavesWhatHasNoIndexAsItIs) {
  sqlite3* handle = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &handle), SQLITE_OK);
  guardWalIndex(handle);
  EXPECT_EQ(sqlite3_exec(handle, "CREATE TABLE T (N)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(handle);
}

}  // namespace
}  // namespace kddc::test
