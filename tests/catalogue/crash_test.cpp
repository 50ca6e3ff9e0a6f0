// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// After a crash at any instant a catalogue is either refused or complete, and can be made anew.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <random>
#include <set>

#include "platform/platform_info.h"
#include "tests/support/catalogue.h"
#include "tests/support/killed_child.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_vfs.h"
#include "tests/support/stride.h"

// Stands in for the C library's, so that the recorded disk learns of a synced folder.
extern "C" int fsync(int fd) {
  struct stat st {};
  if (fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) kddc::test::RecordingVfs::folderWasSynced();
  return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace {

using kddc::test::DatabaseView;
using kddc::test::KilledChild;
using kddc::test::kStride;
using kddc::test::LogCapture;
using kddc::test::OpenCatalogue;
using kddc::test::RecordingVfs;

enum Phase { kCreating, kFilling, kClosing, kReopening, kAdding, kClosingAgain, kDone };

constexpr int kFirstRows = 15, kAllRows = 25;

struct Crash : kddc::test::CatalogueTest {
  const LogCapture quiet{0};
  KilledChild child;

  Crash() { KDPlatformInfo::setDefault("DataClassification", "CommitEveryRows", "7"); }
  ~Crash() override {
    KDPlatformInfo::setDefault("DataClassification", "CommitEveryRows", "20000");
  }

  static void insert(DCSqliteDB& db, int first, int end) {
    for (int i = first; i < end; ++i) {
      StatFidName_s e = entry("file" + std::to_string(i), static_cast<char>(i), kRegular);
      db.Insert(&e, 0, 7);
    }
  }

  // A catalogue is made and filled, closed, opened again, added to and closed.
  template <class PhaseNote>
  void live(PhaseNote& phase) {
    OpenCatalogue db(folder);
    db.CreateDb();
    db.OpenHandle(false, false);
    phase = kFilling;
    insert(db, 0, kFirstRows);
    db.UpdateTimesForFullScan();
    phase = kClosing;
    db.CloseHandle(1000000, false);
    phase = kReopening;
    db.OpenHandle(false, false);
    phase = kAdding;
    insert(db, kFirstRows, kAllRows);
    phase = kClosingAgain;
    db.CloseHandle(2000000, false);
    phase = kDone;
  }

  bool isGood() {
    FlrDriver driver;
    bool inside = false;
    fsf_fid dbFid{}, fidFid{};
    return DCSqliteDB::IsDbGood(folder, "/data", &driver, inside, dbFid, fidFid);
  }

  void expectComplete(int rows) {
    DatabaseView files(filesPath), fids(fidsPath);
    EXPECT_EQ(files.cell("PRAGMA integrity_check"), "ok");
    EXPECT_EQ(fids.cell("PRAGMA integrity_check"), "ok");
    EXPECT_EQ(files.cell("SELECT count(*) FROM FILES"), std::to_string(rows));
    EXPECT_EQ(fids.cell("SELECT count(*) FROM FIDS"), std::to_string(rows));
    EXPECT_EQ(files.rows("SELECT FID_ROWID,INODE FROM FILES ORDER BY 1"),
              fids.rows("SELECT FIDS_ROWID,FILES_ROWID FROM FIDS ORDER BY 1"));
  }

  // What a catalogue killed in `phase` may be: the rows that it must have when it is accepted.
  void expectRefusedOrComplete(int phase) {
    const bool good = isGood();
    if (phase <= kFilling || phase == kAdding) {
      EXPECT_FALSE(good);
    }
    if (phase == kDone) {
      EXPECT_TRUE(good);
    }
    if (good) expectComplete(phase <= kReopening ? kFirstRows : kAllRows);
  }
};

TEST_F(Crash, AtAnySystemCallLeavesACatalogueThatIsRefusedOrComplete) {
  const auto scenario = [&](KilledChild::Phase& phase) { live(phase); };
  const std::vector<int> phases = child.runUntil(KilledChild::kNever, scenario);
  if (phases.size() < 2) GTEST_SKIP() << "this machine lets no process trace its child";
  ASSERT_TRUE(child.endedWell());
  expectRefusedOrComplete(kDone);

  // Every call of the two closes and of the reopening, and a random choice of the others.
  std::set<int> instants;
  std::mt19937 random(std::random_device{}());
  constexpr std::size_t kStep = 2 * kStride;  // each call stops before and after
  for (std::size_t i = 1; i <= phases.size(); i += kStep) {
    const int phase = phases[i - 1];
    const bool always = phase == kClosing || phase == kReopening || phase == kClosingAgain;
    if (always || random() % phases.size() < 100) instants.insert(static_cast<int>(i));
  }
  RecordProperty("system_calls", static_cast<int>(phases.size() / 2));
  RecordProperty("killed", static_cast<int>(instants.size()));
  EXPECT_GE(instants.size(), 200U / kStride);
  for (const int n : instants) {
    std::filesystem::remove_all(folder);
    const std::vector<int> killed = child.runUntil(n, scenario);
    SCOPED_TRACE("killed at stop " + std::to_string(n) + " of " + std::to_string(phases.size()) +
                 " in phase " + std::to_string(killed.back()));
    expectRefusedOrComplete(killed.back());
    ASSERT_NO_THROW(OpenCatalogue(folder).CreateDb());
    EXPECT_FALSE(isGood()) << "a new catalogue has not been scanned yet";
    if (HasFailure()) return;
  }
}

TEST_F(Crash, AfterAPowerLossAtAnyWriteACatalogueIsRefusedOrComplete) {
  std::optional<RecordingVfs> recording;
  recording.emplace();
  live(recording->phase);
  const kddc::test::RecordedDisk disk = std::move(recording->disk);
  recording.reset();
  std::mt19937 random(std::random_device{}());
  const std::function<bool()> nothing = [] { return false; };
  const std::function<bool()> chance = [&] { return random() % 2 == 0; };

  for (std::size_t n = 1; n <= disk.changes.size(); n += kStride) {
    const int phase = n < disk.changes.size() ? disk.changes[n].phase : static_cast<int>(kDone);
    for (const auto& survives : {nothing, chance}) {
      std::filesystem::remove_all(folder);
      std::filesystem::create_directory(folder);
      for (const std::string& path : {filesPath, fidsPath}) std::ofstream(path + ".lock") << "";
      for (const auto& [path, bytes] : disk.afterPowerLoss(n, survives))
        std::ofstream(path, std::ios::binary) << bytes;
      SCOPED_TRACE("power lost after change " + std::to_string(n) + " of " +
                   std::to_string(disk.changes.size()) + " in phase " + std::to_string(phase));
      expectRefusedOrComplete(phase);
      if (HasFailure()) return;
    }
  }
}

}  // namespace
