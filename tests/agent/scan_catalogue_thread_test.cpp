// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The catalogue of a scan while it is made: what it does without, that all of it is there in the
// end, and that a failure on the way leaves the catalogue before it in its place.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "agent/engine/full_scan.h"
#include "agent/engine/new_catalogue.h"
#include "agent/errors.h"
#include "platform/platform_info.h"
#include "tests/support/catalogue.h"
#include "tests/support/database_view.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Rows = std::vector<std::string>;

constexpr char kSchema[] = "SELECT name,sql FROM sqlite_master ORDER BY rowid";

struct ScanCatalogues : testing::Test {
  TempFolder temp;
  std::string volume = temp / "volume";
  std::string folder = temp / "catalogue";

  ScanCatalogues() {
    alarm(120);  // the watchdog: neither thread may wait for ever
    for (int i = 0; i < 20; ++i)
      std::filesystem::create_directories(volume + "/folder-" + std::to_string(i));
    addFiles(0, 3000);
  }
  ~ScanCatalogues() override {
    alarm(0);
    setMapSize("1000000");
  }

  void addFiles(int first, int end) const {
    for (int i = first; i < end; ++i)
      temp.write("volume/folder-" + std::to_string(i % 20) + "/" + std::to_string(i), "");
  }
  static void setMapSize(const char* size) {
    KDPlatformInfo::setDefault("DataClassification", "SortedInsertMapSize", size);
  }
  void fill(NewCatalogue& catalogue) const {
    fullScan(UniqueFd(open(volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), volume,
             {.stubAttribute = "user.stub", .leaveOut = {}}, catalogue.rows(),
             [](std::uint64_t) {});
  }
  void scan() const {
    NewCatalogue catalogue(folder, volume);
    fill(catalogue);
    catalogue.publish(1000000);
  }
  static Rows rows(const std::string& path, const std::string& sql) {
    return DatabaseView(path).rows(sql);
  }
  // Every row of FILES that the row of FIDS which it names leads back to.
  Rows joinedRows() const {
    DatabaseView view(folder + "/.db.kd");
    view.rows("ATTACH '" + folder + "/.fid.kd' AS F");
    return view.rows(
        "SELECT INODE,PINODE,NAME,FILE_TYPE,FID1,FID2,FID3,FID4,SEQNUM,RESCAN FROM FILES "
        "JOIN F.FIDS ON FIDS_ROWID=FID_ROWID AND FILES_ROWID=INODE ORDER BY INODE");
  }
  // From now on the catalogue that is being made refuses the identifier of that row.
  static void refuse(const NewCatalogue& catalogue, const std::string& inode) {
    rows(catalogue.buildFolder() + "/.fid.kd",
         "CREATE TRIGGER refuse BEFORE INSERT ON FIDS WHEN NEW.FILES_ROWID=" + inode +
             " BEGIN SELECT RAISE(ABORT,'refused'); END");
  }
  std::string sentenceOf(const std::function<void()>& work) const {
    try {
      during("cannot scan " + volume, work);
    } catch (const Failure& e) {
      return e.what();
    }
    return "no failure";
  }
};

TEST_F(ScanCatalogues, HaveTheSchemaOfEveryCatalogue) {
  scan();
  DCSqliteDB other(temp / "other");
  other.CreateDb();
  for (const char* name : {"/.db.kd", "/.fid.kd"}) {
    const Rows schema = rows(folder + name, kSchema);
    EXPECT_THAT(schema, testing::Not(IsEmpty()));
    EXPECT_EQ(schema, rows(temp / "other" + name, kSchema));
    EXPECT_EQ(rows(folder + name, "PRAGMA journal_mode"), Rows{"wal"});
    EXPECT_EQ(rows(folder + name, "PRAGMA integrity_check"), Rows{"ok"});
  }
}

TEST_F(ScanCatalogues, HoldTheSameRowsWhateverTheSizeOfTheMap) {
  setMapSize("1");
  scan();
  const Rows one = joinedRows();
  EXPECT_THAT(one, SizeIs(3021));
  for (const char* size : {"7", "1000000"}) {
    setMapSize(size);
    scan();
    EXPECT_EQ(joinedRows(), one) << size;
  }
}

TEST_F(ScanCatalogues, AreNotReadableBeforeTheyAreWhole) {
  NewCatalogue catalogue(folder, volume);
  fill(catalogue);
  EXPECT_EQ(
      rows(catalogue.buildFolder() + "/.db.kd", "SELECT GRACEFUL_SHUTDOWN,FULL_SCAN FROM TIME"),
      Rows{"0|0"});
  catalogue.publish(1000000);
  EXPECT_EQ(rows(folder + "/.db.kd", "SELECT GRACEFUL_SHUTDOWN,FULL_SCAN FROM TIME"), Rows{"1|1"});
}

TEST_F(ScanCatalogues, AFlushThatFailsDuringTheScanLeavesTheCatalogueBefore) {
  scan();
  const Rows before = joinedRows();
  addFiles(3000, 3100);
  setMapSize("1000");
  const LogCapture quiet(0);
  {
    NewCatalogue catalogue(folder, volume);
    refuse(catalogue, "700");
    EXPECT_THAT(sentenceOf([&] { fill(catalogue); }),
                HasSubstr("cannot scan " + volume + ": refused (SQLite 19: constraint failed)"));
  }
  EXPECT_EQ(joinedRows(), before);
  EXPECT_FALSE(std::filesystem::exists(folder + ".new"));
}

TEST_F(ScanCatalogues, AFlushThatFailsAtTheEndLeavesTheCatalogueBefore) {
  scan();
  const Rows before = joinedRows();
  addFiles(3000, 3100);
  const LogCapture quiet(0);
  {
    NewCatalogue catalogue(folder, volume);
    refuse(catalogue, "700");
    fill(catalogue);
    EXPECT_THAT(sentenceOf([&] { catalogue.publish(1000000); }),
                HasSubstr("cannot scan " + volume + ": refused (SQLite 19: constraint failed)"));
  }
  EXPECT_EQ(joinedRows(), before);
  EXPECT_FALSE(std::filesystem::exists(folder + ".new"));
}

TEST_F(ScanCatalogues, AnIndexThatCannotBeMadeFailsOnEitherThread) {
  const LogCapture quiet(0);
  for (const char* name : {"/.db.kd", "/.fid.kd"}) {
    NewCatalogue catalogue(folder, volume);
    // A name that is taken when the index wants it.
    rows(catalogue.buildFolder() + name,
         name == std::string("/.db.kd") ? "CREATE TABLE IN_PINODE (N)" : "CREATE TABLE IN_FID (N)");
    fill(catalogue);
    EXPECT_THAT(sentenceOf([&] { catalogue.publish(1000000); }), HasSubstr("there is already"));
  }
  EXPECT_FALSE(std::filesystem::exists(folder));
}

TEST_F(ScanCatalogues, TickWhileRowsAreWrittenAndInTheEnd) {
  addFiles(3000, 8000);
  int duringTheScan = 0, inTheEnd = 0;
  int* ticks = &duringTheScan;
  NewCatalogue catalogue(folder, volume);
  catalogue.rows().setTick([&] { return ++*ticks > 0; });
  fill(catalogue);
  ticks = &inTheEnd;
  catalogue.publish(1000000);
  EXPECT_GT(duringTheScan, 0);
  EXPECT_GT(inTheEnd, 0);
}

TEST_F(ScanCatalogues, ATickThatAnswersFalseEndsTheWork) {
  addFiles(3000, 8000);
  const LogCapture quiet(0);
  NewCatalogue catalogue(folder, volume);
  fill(catalogue);
  catalogue.rows().setTick([] { return false; });
  EXPECT_THAT(sentenceOf([&] { catalogue.publish(1000000); }), HasSubstr("interrupted"));
}

}  // namespace
}  // namespace kddc::test
