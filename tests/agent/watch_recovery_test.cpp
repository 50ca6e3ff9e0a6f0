// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What befalls a catalogue, before the start and while it is kept, is put right by itself, and the
// neighbour does not notice.
#include <sys/statvfs.h>

#include "tests/support/balloon.h"
#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;

struct WatchRecovery : WatchTest {
  WatchRecovery() : WatchTest("ext4") {}

  std::optional<LoopMount> otherMount;
  std::string other;

  void SetUp() override {
    WatchTest::SetUp();
    if (IsSkipped()) return;
    otherMount.emplace("tmpfs");
    other = otherMount->path();
    write("a", "text");
    std::ofstream(other + "/b") << "text";
  }
  std::unique_ptr<Program> watchBoth() const { return watch({volume, other}); }
  Words rowsOf(const std::string& path, const std::string& sql) const {
    return DatabaseView(catalogueOf(path) + "/.db.kd").rows(sql);
  }
  std::string otherRow() const {
    return rowsOf(other, "SELECT INODE,TIME FROM FILES WHERE NAME='b'").at(0);
  }
  void expectExact() const {
    for (const std::string& path : {volume, other}) {
      flush(path);
      EXPECT_EQ(listed(path), onDisk(path));
    }
  }
  Words setAside() const {
    Words names;
    for (const auto& entry : fs::directory_iterator(state + "/catalogues"))
      if (const std::string name = entry.path().filename();
          name.find(".corrupt-") != std::string::npos)
        names.push_back(name);
    return names;
  }
  bool isLive(const std::string& path) const { return status(path)["state"] == "live"; }
};

TEST_F(WatchRecovery, AFileKeepsItsInodeAndStampOverACrash) {
  auto program = watchBoth();
  const std::string row = rows("SELECT INODE,TIME FROM FILES WHERE NAME='a'").at(0);
  write("late");
  program->signal(SIGKILL);
  program->finish();
  program = watchBoth();
  expectExact();
  EXPECT_EQ(rows("SELECT INODE,TIME FROM FILES WHERE NAME='a'").at(0), row);
  EXPECT_THAT(setAside(), IsEmpty());
}

struct Damage {
  const char* name;
  void (*inflict)(const std::string& folder);
  const char* why;
};

void resize(const std::string& file) {
  fs::resize_file(file, 0);
}

struct WatchDamage : WatchRecovery, testing::WithParamInterface<Damage> {};
INSTANTIATE_TEST_SUITE_P(
    Of, WatchDamage,
    testing::Values(Damage{"EmptyFile", [](const std::string& f) { resize(f + "/.db.kd"); },
                           "no such table: TIME"},
                    Damage{"EmptyIdentifiers", [](const std::string& f) { resize(f + "/.fid.kd"); },
                           "no such table: FIDS"},
                    Damage{"MissingFile", [](const std::string& f) { fs::remove(f + "/.fid.kd"); },
                           ".fid.kd is missing"},
                    Damage{"NoDatabase",
                           [](const std::string& f) {
                             std::ofstream(f + "/.db.kd") << std::string(9000, '#');
                           },
                           "file is not a database"},
                    Damage{"NewerVersion",
                           [](const std::string& f) {
                             DatabaseView(f + "/.db.kd").rows("UPDATE TIME SET VERSION='10.2'");
                           },
                           "it is of version '10.2', not 10.1"}),
    [](const auto& damage) { return damage.param.name; });

TEST_P(WatchDamage, IsSetAsideAndTheCatalogueMadeAnew) {
  stop(*watchBoth());
  const std::string row = otherRow();
  GetParam().inflict(catalogueOf(volume));
  const auto program = watchBoth();
  EXPECT_THAT(program->err(), HasSubstr(volume + ": the catalogue cannot be used (" +
                                        GetParam().why + "); it was set aside as "));
  expectExact();
  ASSERT_EQ(setAside().size(), 1U);
  EXPECT_THAT(setAside()[0], testing::StartsWith(placeName(volume) + ".corrupt-"));
  EXPECT_EQ(otherRow(), row);
}

TEST_F(WatchRecovery, ACatalogueThatIsRemovedIsPutBack) {
  const auto program = watchBoth();
  const std::string row = otherRow();
  const std::string inode = rows("SELECT INODE,TIME FROM FILES WHERE NAME='a'").at(0);
  fs::remove_all(catalogueOf(volume));
  ASSERT_TRUE(program->waitUntil([&] { return fs::exists(catalogueOf(volume) + "/.db.kd"); }));
  ASSERT_TRUE(program->waitUntil([&] { return isLive(volume); }));
  write("after");
  expectExact();
  EXPECT_EQ(rows("SELECT INODE,TIME FROM FILES WHERE NAME='a'").at(0), inode);
  EXPECT_EQ(status(volume)["rescans"][0]["reason"], "its catalogue was removed or replaced");
  EXPECT_EQ(otherRow(), row);
  EXPECT_EQ(status(other)["rescan_count"], 0);
}

// Pages that are damaged under its hands are found when they are read.
TEST_F(WatchRecovery, ACatalogueThatIsDamagedWhileItIsKeptIsMadeAnew) {
  for (int i = 0; i < 3000; ++i) write("file " + std::to_string(i));
  const auto program = watchBoth();
  const std::string row = otherRow();
  for (const char* file : {"/.db.kd", "/.fid.kd"}) {
    const std::string path = catalogueOf(volume) + file;
    std::fstream damaged(path, std::ios::binary | std::ios::in | std::ios::out);
    damaged.seekp(4096);
    damaged << std::string(fs::file_size(path) - 4096, '\xff');
  }
  EXPECT_NE(run({"rescan", volume}).exitCode, 2);  // whatever it answers, it makes them be read
  ASSERT_TRUE(program->waitUntil([&] { return !setAside().empty(); })) << program->err();
  ASSERT_TRUE(program->waitUntil([&] { return isLive(volume); })) << program->err();
  expectExact();
  EXPECT_EQ(otherRow(), row);
}

struct SmallDisk : WatchRecovery {
  std::optional<LoopMount> disk;
  std::unique_ptr<Program> program;

  void watchOnSmallDisk(const std::string& fsType = "ext4") {
    if (const std::string why = LoopMount::whyNot(fsType); !why.empty()) GTEST_SKIP() << why;
    disk.emplace(fsType);
    state = *disk / "state";
    options.state = state;
    program = watch();
  }
};

TEST_F(SmallDisk, AFullDiskIsToldOfAndNothingIsLost) {
  watchOnSmallDisk();
  for (int i = 0; i < 200; ++i) write("kept " + std::to_string(i));
  flush();
  const std::string row = rows("SELECT INODE FROM FILES WHERE NAME='a'").at(0);
  const Balloon balloon(disk->path());
  // More than fits into what the log has left.
  for (int i = 0; i < 3000; ++i) write("more " + std::to_string(i));
  ASSERT_TRUE(program->waitUntil([&] { return !isLive(volume); })) << program->err();
  const auto stale = status();
  EXPECT_TRUE(stale.contains("stale_since")) << stale;
  balloon.burst();
  ASSERT_TRUE(program->waitUntil([&] { return isLive(volume); })) << program->err() << status();
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
  EXPECT_EQ(rows("SELECT INODE FROM FILES WHERE NAME='a'").at(0), row);
}

// What has reached the disk needs another place when it is written to again, in memory too: there
// the kernel ends the process.
TEST_F(SmallDisk, ThatIsFullMayEndItOnBtrfsWithAReasonAndNothingIsLost) {
  watchOnSmallDisk("btrfs");
  if (IsSkipped()) return;
  const std::string row = rows("SELECT INODE FROM FILES WHERE NAME='a'").at(0);
  const Balloon balloon(disk->path());
  for (int i = 0; i < 20'000 && !program->hasEnded(); ++i) write("more " + std::to_string(i));
  const auto isLiveNow = [&] {  // may end while it is asked
    return run({"status", "--json", volume}).out.find("\"state\":\"live\"") != std::string::npos;
  };
  ASSERT_TRUE(program->waitUntil([&] { return !isLiveNow(); }));
  balloon.burst();
  if (program->hasEnded()) {
    const Outcome outcome = program->finish();
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_THAT(outcome.err, testing::HasSubstr("kddc: ended where it was: a file"));
    program = watch();
  }
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
  EXPECT_EQ(rows("SELECT INODE FROM FILES WHERE NAME='a'").at(0), row);
}

// As on a disk that fails what SQLite writes through memory.
TEST_F(WatchRecovery, AFileInMemoryThatFailsEndsItWithAReason) {
  const auto program = watch();
  program->signal(SIGBUS);
  const Outcome outcome = program->finish();
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_EQ(outcome.err,
            "kddc: ended where it was: a file that is used as memory cannot be written or read; is "
            "its disk full, or gone?\n");
}

}  // namespace
}  // namespace kddc::test
