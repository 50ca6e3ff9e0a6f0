// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The databases of one of two volumes are damaged: they are set aside and made anew, and those of
// the other one are not touched.
#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct Damaged : FaultTest {
  std::optional<test::LoopMount> otherMount;
  std::string other;
  static constexpr const char* kDatabases[] = {"/.db.kd", "/.fid.kd"};

  void SetUp() override {
    FaultTest::SetUp();
    if (IsSkipped()) return;
    otherMount.emplace("tmpfs");
    other = otherMount->path();
    for (int i = 0; i < 20; ++i) std::ofstream(other + "/" + std::to_string(i));
    work(200);
    stop(*watchBoth());
  }
  std::unique_ptr<Program> watchBoth() const { return watch({volume, other}); }

  Words rowsOfOther() const {
    return test::DatabaseView(catalogueOf(other) + "/.db.kd")
        .rows("SELECT INODE,PINODE,NAME,TIME FROM FILES ORDER BY INODE");
  }
  std::size_t setAside() const {
    const fs::path catalogue = catalogueOf(volume);
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator(catalogue.parent_path()))
      count +=
          entry.path().filename().string().starts_with(catalogue.filename().string() + ".corrupt-");
    return count;
  }
  void expectOtherUntouched(const Words& before) const {
    EXPECT_EQ(rowsOfOther(), before);
    EXPECT_EQ(status(other)["state"], "live");
  }

  // Damages the catalogue of the first volume while nobody has it open.
  template <class Damage>
  void expectMadeAnewAfter(const Damage& damage) {
    const Words before = rowsOfOther();
    const std::size_t aside = setAside();
    damage(catalogueOf(volume));
    const auto program = watchBoth();
    expectExact();
    EXPECT_EQ(setAside(), aside + 1);
    expectOtherUntouched(before);
    end(*program);
  }
  // Changes a value of a row, in a statement that it returns.
  std::string spoilRow() {
    test::DatabaseView files(catalogueOf(volume) + "/.db.kd");
    test::DatabaseView fids(catalogueOf(volume) + "/.fid.kd");
    const Words inodes = files.rows("SELECT INODE FROM FILES WHERE INODE>1");
    const auto any = [&] {
      return inodes[static_cast<std::size_t>(below(static_cast<int>(std::size(inodes))))];
    };
    const auto of = [&](const char* column) {
      return std::string("(SELECT ") + column + " FROM FILES WHERE INODE=" + any() + ")";
    };
    const std::string bit = std::to_string(1LL << below(48)), here = " WHERE INODE=" + any() + ";";
    const std::string fid = "FID" + std::to_string(1 + below(4));
    const std::string inFiles[] = {"FID_ROWID=" + of("FID_ROWID"),
                                   "PINODE=" + of("INODE"),
                                   "PINODE=" + of("PINODE"),
                                   "NAME=" + of("NAME"),
                                   "FILE_TYPE=" + of("FILE_TYPE"),
                                   "NLINK=" + of("NLINK"),
                                   "PINODE=-1",
                                   "INODE=INODE+100000"};
    const std::string inFids[] = {"FILES_ROWID=" + any(), fid + "=" + fid + "+" + bit,
                                  fid + "=" + fid + "-" + bit};
    std::string statement;
    if (below(3) > 0) {
      statement = "UPDATE OR IGNORE FILES SET " +
                  inFiles[static_cast<std::size_t>(below(static_cast<int>(std::size(inFiles))))] +
                  here;
      files.rows(statement);
    } else {
      statement = "UPDATE OR IGNORE FIDS SET " +
                  inFids[static_cast<std::size_t>(below(static_cast<int>(std::size(inFids))))] +
                  " WHERE FILES_ROWID=" + any() + ";";
      fids.rows(statement);
    }
    return statement;
  }
  // At random; never the first bytes, which name the format.
  void scratch(const std::string& file, int bytes) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    const auto size = static_cast<int>(fs::file_size(file));
    for (int i = 0; i < bytes; ++i) {
      stream.seekp(100 + below(size - 100));
      stream.put(static_cast<char>(below(256)));
    }
  }
};

// Few bytes may fall where they change nothing that matters, and need not be noticed; what counts
// is that the catalogue is exact.
TEST_F(Damaged, PagesAreNoticedAtTheNextStart) {
  for (int i = 0; i < rounds(6, 200) && !HasFailure(); ++i) {
    const int bytes = 1 + below(400);
    const char* database = kDatabases[below(2)];
    SCOPED_TRACE(std::to_string(bytes) + " bytes of " + database);
    const Words before = rowsOfOther();
    scratch(catalogueOf(volume) + database, bytes);
    const auto program = watchBoth();
    expectExact();
    expectOtherUntouched(before);
    end(*program);
  }
  tell("set aside: ", setAside());
}

TEST_F(Damaged, PagesUnderARunningProcessAreMadeGoodByTheNextStartAtTheLatest) {
  for (int i = 0; i < rounds(2, 50) && !HasFailure(); ++i) {
    SCOPED_TRACE("round " + std::to_string(i));
    const auto program = watchBoth();
    work(50, static_cast<unsigned>(i));
    scratch(catalogueOf(volume) + kDatabases[below(2)], 1 + below(400));
    work(200, static_cast<unsigned>(i) + 100);
    flush(other);
    program->signal(SIGTERM);
    const Outcome outcome = program->finish();
    EXPECT_THAT(outcome.exitCode, testing::AnyOf(0, 3)) << outcome;
    const auto next = watchBoth();
    expectExact();
    expectExact(other);
    end(*next);
  }
}

TEST_F(Damaged, ADatabaseOfZeroLengthIsSetAside) {
  for (const char* database : kDatabases)
    expectMadeAnewAfter([&](const std::string& folder) { fs::resize_file(folder + database, 0); });
}

TEST_F(Damaged, WhatIsNoDatabaseIsSetAside) {
  for (const char* database : kDatabases)
    expectMadeAnewAfter([&](const std::string& folder) {
      std::ofstream(folder + database, std::ios::binary) << std::string(9000, 'x');
    });
}

TEST_F(Damaged, ADatabaseThatIsMissingIsMadeAnew) {
  for (const char* database : kDatabases) {
    const Words before = rowsOfOther();
    fs::remove(catalogueOf(volume) + database);
    const auto program = watchBoth();
    expectExact();
    expectOtherUntouched(before);
    end(*program);
  }
}

TEST_F(Damaged, ACatalogueOfANewerVersionIsSetAside) {
  expectMadeAnewAfter([](const std::string& folder) {
    test::DatabaseView(folder + "/.db.kd").rows("UPDATE TIME SET VERSION='10.2'");
  });
}

// What is well formed is believed until the comparison meets what it says.
TEST_F(Damaged, RowsThatSayWhatIsNotAreMadeGood) {
  for (int i = 0; i < rounds(12, 400) && !HasFailure(); ++i) {
    std::string trace;
    for (int wrong = 1 + below(4); wrong > 0; --wrong) trace += spoilRow();
    SCOPED_TRACE(trace);
    const auto program = watchBoth();
    expectExact();
    end(*program);
  }
}

// One byte of it may say that it is another volume's.
TEST_F(Damaged, ACatalogueWhoseRootHasLostItsNameIsSetAside) {
  expectMadeAnewAfter([](const std::string& folder) {
    test::DatabaseView(folder + "/.db.kd").rows("UPDATE FILES SET NAME='/damaged' WHERE PINODE=0");
  });
}

}  // namespace
}  // namespace kddc::faults
