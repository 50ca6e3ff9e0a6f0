// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a crash, a broken disk or another version leave is told apart from what can be gone on with.
#include "agent/engine/catalogue_condition.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "agent/engine/catalogue_reader.h"
#include "agent/errors.h"
#include "tests/support/balloon.h"
#include "tests/support/catalogue.h"
#include "tests/support/log_capture.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using Kind = CatalogueCondition::Kind;
using testing::HasSubstr;
using testing::StartsWith;

struct ConditionTest : CatalogueTest {
  const LogCapture quiet{0};

  // A scanned volume of some hundred files.
  void scan(bool close = true) {
    OpenCatalogue db(folder);
    db.CreateDb();
    ASSERT_TRUE(db.OpenHandle(false, false));
    StatFidName_s root = entry("/volume", 'R', kDirectory);
    db.Insert(&root, 0, 1);
    for (int i = 0; i < 400; ++i) {
      StatFidName_s file = entry("file " + std::to_string(i), 'F', kRegular);
      file.fid.data[0] = static_cast<unsigned char>(i);
      file.fid.data[9] = static_cast<unsigned char>(i >> 8);
      db.Insert(&file, 1, 1);
    }
    db.UpdateTimesForFullScan();
    db.Commit();
    if (close) db.CloseHandle(5000, false);
  }
  void expectDamaged(const std::string& why) const {
    const CatalogueCondition condition = examineCatalogue(folder, "/volume");
    EXPECT_EQ(condition.kind, Kind::kDamaged);
    EXPECT_THAT(condition.why, HasSubstr(why));
  }
  Kind kind() const { return examineCatalogue(folder, "/volume").kind; }
  static void write(const std::string& path, std::streamoff at, const std::string& bytes) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(at);
    file << bytes;
  }
};

TEST_F(ConditionTest, WhereThereIsNoneThereIsNone) {
  EXPECT_EQ(kind(), Kind::kNone);
  fs::create_directory(folder);
  EXPECT_EQ(kind(), Kind::kNone);
}

TEST_F(ConditionTest, OneThatWasClosedIsUsable) {
  scan();
  EXPECT_EQ(kind(), Kind::kUsable);
}

TEST_F(ConditionTest, OneThatWasNotClosedIsUsableAndIsNotChanged) {
  scan(false);
  EXPECT_EQ(kind(), Kind::kUsable);
  EXPECT_EQ(DatabaseView(filesPath).cell("SELECT GRACEFUL_SHUTDOWN FROM TIME"), "0");
  EXPECT_EQ(DatabaseView(filesPath).cell("SELECT COUNT(*) FROM FILES"), "401");
}

TEST_F(ConditionTest, OneWhoseScanNeverEndedIsNone) {
  scan();
  DatabaseView(filesPath).rows("UPDATE TIME SET FULL_SCAN=0");
  EXPECT_EQ(kind(), Kind::kNone);
}

TEST_F(ConditionTest, OneOfAnotherVolumeIsNotItsToUse) {
  scan();
  EXPECT_EQ(examineCatalogue(folder, "/other").kind, Kind::kNone);
}

TEST_F(ConditionTest, OneOfAnotherVersionIsDamaged) {
  scan();
  DatabaseView(filesPath).rows("UPDATE TIME SET VERSION='10.2'");
  expectDamaged("it is of version '10.2', not 10.1");
}

TEST_F(ConditionTest, OneThatLacksADatabaseIsDamaged) {
  scan();
  fs::remove(fidsPath);
  expectDamaged(".fid.kd is missing");
}

TEST_F(ConditionTest, OneThatIsEmptyIsDamaged) {
  scan();
  fs::resize_file(filesPath, 0);
  expectDamaged("no such table: TIME");
  scan();
  fs::resize_file(fidsPath, 0);
  expectDamaged("no such table: FIDS");
}

TEST_F(ConditionTest, OneThatIsNoDatabaseIsDamaged) {
  scan();
  std::ofstream(filesPath) << std::string(8192, '#');
  expectDamaged("file is not a database");
}

TEST_F(ConditionTest, OneWithoutARootIsDamaged) {
  scan();
  DatabaseView(filesPath).rows("DELETE FROM FILES WHERE PINODE=0");
  expectDamaged("it has no root");
}

TEST_F(ConditionTest, OneWithDamagedPagesIsDamaged) {
  scan();
  const auto pages = static_cast<std::streamoff>(fs::file_size(fidsPath) / 1024);
  for (std::streamoff page = 10; page < pages; ++page) write(fidsPath, page * 1024, "\xff\xff\xff");
  expectDamaged(".fid.kd is damaged");
}

// To look at one takes room, too: it is found out, or that there is no room for that.
TEST_F(ConditionTest, OneOnAFullDiskIsNotTakenForDamagedOrForNobodys) {
  if (const std::string why = LoopMount::whyNot("ext4"); !why.empty()) GTEST_SKIP() << why;
  scan(false);
  setenv("TMPDIR", inMemory().c_str(), 1);
  const LoopMount disk("ext4");
  fs::copy(folder, disk / "catalogue");
  int examined = 0, failed = 0;
  for (int room = 0; room <= 96; room += 2) {
    const Balloon balloon(disk.path());
    balloon.leave(room * 1024);
    try {
      ASSERT_EQ(volumeOf(disk / "catalogue"), "/volume") << room;
      const CatalogueCondition condition = examineCatalogue(disk / "catalogue", "/volume");
      ASSERT_EQ(condition.kind, Kind::kUsable) << condition.why << room;
      ++examined;
    } catch (const Failure& e) {
      EXPECT_THAT(e.what(), HasSubstr("the disk is full"));
      ++failed;
    }
  }
  EXPECT_GT(examined, 10);
  EXPECT_GT(failed, 10);
}

// The rows are all there: they keep their numbers.
TEST_F(ConditionTest, OneWhoseIndexesAloneAreDamagedIsMended) {
  scan();
  // A row goes while its index is hidden, and the index still knows it.
  constexpr char kHide[] = "CREATE TABLE HIDDEN AS SELECT * FROM sqlite_master WHERE type='index'";
  DatabaseView(filesPath).rows("PRAGMA writable_schema=ON; " + std::string(kHide) +
                               "; DELETE FROM sqlite_master WHERE type='index'");
  DatabaseView(filesPath).rows("DELETE FROM FILES WHERE INODE=401");
  DatabaseView(filesPath).rows(
      "PRAGMA writable_schema=ON; INSERT INTO sqlite_master SELECT * FROM HIDDEN");
  ASSERT_NE(DatabaseView(filesPath).rows("PRAGMA integrity_check"), (Rows{"ok"}));

  EXPECT_EQ(kind(), Kind::kUsable);
  EXPECT_EQ(DatabaseView(filesPath).cell("PRAGMA integrity_check"), "ok");
  EXPECT_EQ(DatabaseView(filesPath).cell("SELECT COUNT(*) FROM FILES"), "400");
}

TEST_F(ConditionTest, WhatIsSetAsideKeepsItsFilesUnderATime) {
  scan();
  const auto before = std::time(nullptr);
  const std::string aside = setAside(folder);
  EXPECT_FALSE(fs::exists(folder));
  ASSERT_THAT(aside, StartsWith(folder + ".corrupt-"));
  EXPECT_GE(std::stoll(aside.substr(folder.size() + 9)), before);
  EXPECT_TRUE(fs::exists(aside + "/.db.kd"));
}

TEST_F(ConditionTest, OnlyTheThreeNewestStay) {
  for (int i = 0; i < 5; ++i) {
    scan();
    setAside(folder);
  }
  std::size_t aside = 0;
  for (const auto& found : fs::directory_iterator(temp / "")) aside += found.is_directory();
  EXPECT_EQ(aside, 3U);
}

TEST_F(ConditionTest, WhatCannotBeSetAsideSaysWhy) {
  try {
    setAside(folder);
    FAIL();
  } catch (const Failure& e) {
    EXPECT_EQ(std::string(e.what()),
              "cannot set aside the catalogue in " + folder + ": No such file or directory");
  }
}

}  // namespace
}  // namespace kddc::test
