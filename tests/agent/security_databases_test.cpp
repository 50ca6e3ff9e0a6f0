// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue that somebody else has made or touched: it is read without running what it holds, and
// no link beside its databases is followed.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "agent/engine/sqlite_query.h"
#include "agent/errors.h"
#include "platform/exceptions.h"
#include "platform/udc_dbms.h"
#include "tests/support/database_view.h"
#include "tests/support/log_capture.h"
#include "tests/support/program.h"
#include "tests/support/record_files.h"
#include "tests/support/temp_folder.h"
#include "volumes/catalogue_files.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

std::string refusalBy(const std::function<void()>& work) {
  try {
    work();
  } catch (const UDCException& e) {
    return e.GetMessage();
  } catch (const Failure& e) {
    return e.what();
  }
  return "no failure";
}

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

struct OpenDatabase : testing::Test {
  TempFolder temp;
  std::string path = temp / "db";
  UDC_DBMS db{path, 2, 0, false};
  const LogCapture quiet{0};

  void SetUp() override { ASSERT_TRUE(db.opendb(false)); }
  std::string refusalOf(const char* sql) {
    return refusalBy([&] { db.exec_query(sql); });
  }
};

TEST_F(OpenDatabase, LoadsNoExtension) {
  EXPECT_EQ(refusalOf("SELECT load_extension('/tmp/x.so')"), "not authorized");
}

TEST_F(OpenDatabase, LetsNobodyRewriteItsSchema) {
  EXPECT_EQ(refusalOf("CREATE TABLE T(A); PRAGMA writable_schema=ON; UPDATE sqlite_master SET "
                      "sql='CREATE TABLE T(B)'"),
            "table sqlite_master may not be modified");
}

TEST_F(OpenDatabase, TakesNoNameInDoubleQuotesForAText) {
  EXPECT_EQ(refusalOf("SELECT \"text\""), "no such column: text");
  EXPECT_EQ(refusalOf("SELECT 'text'"), "no failure");
}

TEST_F(OpenDatabase, HoldsNoValueOfMoreThanSixteenMebibytes) {
  EXPECT_EQ(refusalOf("SELECT length(zeroblob(16777217))"), "string or blob too big");
  EXPECT_EQ(refusalOf("SELECT length(zeroblob(16777216))"), "no failure");
}

TEST_F(OpenDatabase, ChecksItsPagesAndTrustsNoSchema) {
  for (const char* pragma : {"PRAGMA cell_size_check", "PRAGMA trusted_schema"})
    db.exec_query_get_table(pragma);
  EXPECT_STREQ(db.table[1], "0");
  db.exec_query_get_table("PRAGMA cell_size_check");
  EXPECT_STREQ(db.table[1], "1");
}

// In the place of the database itself, of its lock and of all that SQLite keeps beside it.
TEST_F(OpenDatabase, FollowsNoLink) {
  db.closedb(false);
  for (const char* suffix : {"", ".lock", "-wal", "-shm"})
    for (const char* target : {"victim", "nothing"}) {
      SCOPED_TRACE(std::string(suffix) + " to " + target);
      const std::string victim = temp.write("victim", "precious"), link = path + suffix;
      fs::remove(link);
      fs::create_symlink(temp / target, link);
      EXPECT_FALSE(UDC_DBMS(path, 2, 0, false).opendb(false));
      EXPECT_EQ(contentsOf(victim), "precious");
      EXPECT_FALSE(fs::exists(temp / "nothing"));
      fs::remove(link);
      UDC_DBMS again(path, 2, 0, false);
      EXPECT_TRUE(again.opendb(false));
    }
}

TEST_F(OpenDatabase, DoesNotWaitForAPipe) {
  db.closedb(false);
  fs::remove(path);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(UDC_DBMS(path, 2, 0, false).opendb(false));
  EXPECT_FALSE(UDC_DBMS(path, 2, 0, true).opendb(false));
  EXPECT_EQ(refusalBy([&] { ReadConnection{path}; }),
            "cannot use " + path + ": it is no file but a link, or something else; remove it");
}

TEST_F(OpenDatabase, IsMappedForReadersOnlyWhenNobodyElseCanWriteIt) {
  db.closedb(false);
  const auto mapped = [&] {
    const ReadConnection connection(path);
    Query size(connection, "PRAGMA mmap_size");
    return size.step() ? size.integer(0) : -1;
  };
  EXPECT_EQ(mapped(), 2147418112);
  ASSERT_EQ(chmod(path.c_str(), 0660), 0);
  EXPECT_EQ(mapped(), 0);
  ASSERT_EQ(chmod(path.c_str(), 0600), 0);
  if (geteuid() != 0) GTEST_SKIP() << "the rest needs root";
  ASSERT_EQ(chown(path.c_str(), 65534, 65534), 0);
  EXPECT_EQ(mapped(), 0);
}

TEST(RemovalOfACatalogue, FollowsNoLinkInPlaceOfItsFolder) {
  const TempFolder temp;
  fs::create_directory(temp / "theirs");
  temp.write("theirs/.db.kd", "precious");
  fs::create_directory_symlink(temp / "theirs", temp / "link");
  RemoveDCDb(temp / "link");
  EXPECT_EQ(contentsOf(temp / "theirs/.db.kd"), "precious");
  EXPECT_TRUE(fs::is_symlink(temp / "link"));
}

// The program, and a catalogue that was made by a scan and then prepared.
struct HostileCatalogue : testing::Test {
  TempFolder temp{inMemory()};
  std::string volume = temp / "volume", catalogue = temp / "catalogue";

  HostileCatalogue() {
    fs::create_directory(volume);
    temp.write("volume/file", "text");
    const Outcome outcome = run({"scan", "-q", volume});
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
  }
  Outcome run(Words words) const {
    words.insert(words.end(), {"--catalogue", catalogue, "--state", temp / "state"});
    return Program::run(words);
  }
  void files(const std::string& sql) const { DatabaseView(catalogue + "/.db.kd").rows(sql); }
  void fids(const std::string& sql) const { DatabaseView(catalogue + "/.fid.kd").rows(sql); }
  static void expectRefusal(const Outcome& outcome, const std::string& sentence) {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
  void expectRefusalToWrite(const std::string& stranger) const {
    const std::string records = temp.write("records", stream({samples::noop()}));
    for (const Words& words :
         {Words{"rescan", volume}, Words{"watch", volume}, Words{"replay", records}})
      expectRefusal(run(words), "the catalogue in " + catalogue + " holds " + stranger +
                                    ", which is neither table nor index and no part of a "
                                    "catalogue; make a new one with: kddc scan");
  }
};

TEST_F(HostileCatalogue, WithATriggerIsReadButNotWritten) {
  files("CREATE TRIGGER evil AFTER UPDATE ON FILES BEGIN UPDATE FILES SET SIZE=666; END");
  expectRefusalToWrite("evil");
  EXPECT_EQ(run({"list", volume}).out, ".\nfile\n");
  EXPECT_EQ(run({"scan", "-q", volume}).exitCode, 0) << "a new one takes its place";
  EXPECT_EQ(run({"rescan", volume}).exitCode, 0);
}

TEST_F(HostileCatalogue, WithATriggerOfTheIdentifiersIsNotWrittenEither) {
  fids("CREATE TRIGGER evil AFTER UPDATE ON FIDS BEGIN DELETE FROM FIDS; END");
  expectRefusalToWrite("evil");
}

// A comparison writes marks, into a copy of its own.
TEST_F(HostileCatalogue, RunsNoTriggerWhereItIsCompared) {
  files("CREATE TRIGGER evil AFTER UPDATE ON FILES BEGIN UPDATE FILES SET SIZE=666; END");
  fids("CREATE TRIGGER evil AFTER UPDATE ON FIDS BEGIN DELETE FROM FIDS; END");
  const Outcome outcome = run({"verify", volume});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
}

// SQLite itself goes by the text of the row, not by what it is called there.
TEST_F(HostileCatalogue, WithATriggerThatCallsItselfATableIsDamaged) {
  files(
      "CREATE TABLE T(A); CREATE TRIGGER evil AFTER UPDATE ON FILES BEGIN DELETE FROM FILES; END; "
      "PRAGMA writable_schema=ON; UPDATE sqlite_master SET type='table' WHERE name='evil'");
  expectRefusal(run({"rescan", volume}), "the catalogue in " + catalogue +
                                             " is damaged (malformed database schema (evil)); "
                                             "make a new one with: kddc scan " +
                                             volume);
}

TEST_F(HostileCatalogue, WithAViewInPlaceOfATableHoldsNoCatalogue) {
  files("ALTER TABLE FILES RENAME TO OTHER; CREATE VIEW FILES AS SELECT * FROM OTHER");
  expectRefusalToWrite("FILES");
  expectRefusal(run({"list", volume}),
                catalogue +
                    " holds no catalogue (access to view \"FILES\" prohibited); make a new "
                    "one with: kddc scan " +
                    volume);
}

TEST_F(HostileCatalogue, WithAVirtualTableHoldsNoCatalogue) {
  try {
    files("DROP TABLE FILES; CREATE VIRTUAL TABLE FILES USING fts5(INODE,PINODE,NAME)");
  } catch (const std::runtime_error& e) {
    GTEST_SKIP() << e.what();
  }
  expectRefusalToWrite("FILES");
  expectRefusal(run({"list", volume}), catalogue +
                                           " holds no catalogue (no such module: fts5); make a "
                                           "new one with: kddc scan " +
                                           volume);
}

// Whoever archives what is listed would leave the volume with it.
TEST_F(HostileCatalogue, ListsNoNameThatLeadsOutOfTheVolume) {
  for (const char* name :
       {"'..'", "'.'", "''", "'a/b'", "'/etc/shadow'", "CAST(x'610062' AS TEXT)"}) {
    ASSERT_EQ(run({"scan", "-q", volume}).exitCode, 0);
    files(std::string("UPDATE FILES SET NAME=") + name + " WHERE NAME='file'");
    for (const char* form : {"-0", "--json"}) {
      const Outcome outcome = run({"list", form, volume});
      EXPECT_EQ(outcome.exitCode, 3) << name << outcome;
      EXPECT_THAT(outcome.err, HasSubstr("is damaged (row 2 has a name that no file can have)"))
          << name;
      EXPECT_THAT(outcome.out, testing::Not(HasSubstr("..")));
    }
  }
}

TEST_F(HostileCatalogue, FollowsNoPlantedLinkWhereItIsRead) {
  const std::string victim = temp.write("victim", "precious");
  for (const char* name : {"/.db.kd", "/.db.kd-wal", "/.db.kd-shm", "/.fid.kd"})
    for (const char* target : {"victim", "nothing"}) {
      SCOPED_TRACE(std::string(name) + " to " + target);
      const std::string link = catalogue + name;
      if (fs::exists(link)) fs::rename(link, temp / "kept");
      fs::create_symlink(temp / target, link);
      const Outcome outcome = run({"list", "--json", volume});
      EXPECT_EQ(outcome.exitCode, 3) << outcome;
      EXPECT_EQ(outcome.out, "");
      EXPECT_EQ(contentsOf(victim), "precious");
      EXPECT_FALSE(fs::exists(temp / "nothing"));
      fs::remove(link);
      if (fs::exists(temp / "kept")) fs::rename(temp / "kept", link);
    }
  EXPECT_EQ(run({"list", volume}).exitCode, 0);
}

TEST_F(HostileCatalogue, WithALinkToADatabaseIsRefusedByThatName) {
  fs::rename(catalogue + "/.db.kd", temp / "elsewhere");
  fs::create_symlink(temp / "elsewhere", catalogue + "/.db.kd");
  for (const char* command : {"list", "status", "verify"})
    expectRefusal(run({command, volume}), "cannot use " + catalogue +
                                              "/.db.kd: it is no file but a link, or something "
                                              "else; remove it");
}

}  // namespace
}  // namespace kddc::test
