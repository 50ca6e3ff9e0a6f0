// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Names that would steer a terminal, forge a line of a log or break out of an SQL text do none of
// it, wherever they are shown or stored.
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "platform/ev_debug.h"
#include "platform/printable.h"
#include "tests/support/database_view.h"
#include "tests/support/record_files.h"
#include "tests/support/registry_fixture.h"
#include "tests/support/terminal.h"
#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

// A colour, a title, a line of its own, CSI as one character, DEL, and no UTF-8.
constexpr char kEvil[] =
    "e\x1b[31m\x1b]0;t\x07\nkddc: forged\xc2\x9b"
    "31m\x7f\xff";
constexpr char kShown[] =
    "e\\x1b[31m\\x1b]0;t\\x07\\nkddc: forged\\xc2\\x9b"
    "31m\\x7f\\xff";

TEST(Printable, EscapesWhatCouldSteerATerminalOrBreakALine) {
  EXPECT_EQ(printable(kEvil), kShown);
  EXPECT_EQ(printable("gr\xc3\xbcn \xe2\x82\xac \xf0\x9f\x98\x80 \\ \t"),
            "gr\xc3\xbcn \xe2\x82\xac \xf0\x9f\x98\x80 \\ \\t");
  EXPECT_EQ(printable("\xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80 \xe2\x82"),
            "\\xc0\\xaf \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80 \\xe2\\x82");
  EXPECT_EQ(printable(std::string_view("\0", 1)), "\\x00");
}

TEST(Printable, OfAJsonTextMeansTheSame) {
  const nlohmann::json object = {{"name", "\x1b\xc2\x80\xc2\x9f\xc2\xa0\x7f\xc3\xbc"}};
  const std::string text = printableJson(object.dump());
  EXPECT_EQ(text, "{\"name\":\"\\u001b\\u0080\\u009f\xc2\xa0\\u007f\xc3\xbc\"}");
  EXPECT_EQ(nlohmann::json::parse(text), object);
}

TEST(Printable, IsTheLogOfALibraryThatNobodyListensTo) {
  testing::internal::CaptureStderr();
  dbg.Error("tag", "name[%s]", kEvil);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("tag: name[") + kShown + "]\n");
}

// The volume's own name is as bad as those of what is in it.
struct EvilNames : testing::Test {
  TempFolder temp{inMemory()};
  std::string volume = temp / kEvil, state = temp / "state";

  EvilNames() {
    fs::create_directories(volume + "/" + kEvil);
    std::ofstream(volume + "/" + kEvil + "/" + kEvil) << "text";
    EXPECT_EQ(run({"scan", "-q", volume}).exitCode, 0);
  }
  Words with(Words words) const {
    words.insert(words.end(), {"--state", state});
    return words;
  }
  Outcome run(const Words& words) const { return Program::run(with(words)); }
  Outcome onTerminal(const Words& words) const { return Terminal().run(with(words)); }
  static void expectHarmless(const Outcome& outcome, std::string_view separators = "\n") {
    EXPECT_EQ(leakIn(outcome.out, separators), "");
    EXPECT_EQ(leakIn(outcome.err), "");
  }
};

TEST_F(EvilNames, AreListedByteForByteInAPipe) {
  const std::string below = std::string(kEvil) + "/" + kEvil;
  EXPECT_EQ(run({"list", volume}).out, std::string(".\n") + kEvil + "\n" + below + "\n");
  EXPECT_EQ(run({"changes", "-q", volume, "--since", "0"}).out,
            std::string(".\n") + kEvil + "\n" + below + "\n");
  EXPECT_EQ(run({"list", "-0", volume}).out, std::string(".") + '\0' + kEvil + '\0' + below + '\0');
}

TEST_F(EvilNames, AreListedEscapedOnATerminal) {
  const std::string below = std::string(kShown) + "/" + kShown;
  EXPECT_EQ(onTerminal({"list", volume}).out, std::string(".\n") + kShown + "\n" + below + "\n");
  EXPECT_EQ(onTerminal({"changes", "-q", volume, "--since", "0"}).out,
            std::string(".\n") + kShown + "\n" + below + "\n");
  EXPECT_EQ(onTerminal({"list", "-0", volume}).out,
            std::string(".") + '\0' + kShown + '\0' + below + '\0');
}

TEST_F(EvilNames, AreHarmlessInJsonEvenInAPipe) {
  const std::string controls = "a\x1b\xc2\x9b\x7f";
  std::ofstream(volume + "/" + controls) << "text";
  ASSERT_EQ(run({"rescan", "-q", volume}).exitCode, 0);
  const Outcome outcome = run({"list", "--json", volume});
  expectHarmless(outcome);
  EXPECT_THAT(outcome.out, HasSubstr(R"("path":"a\u001b\u009b\u007f")"));
  EXPECT_THAT(outcome.out, HasSubstr("\"path_base64\""));
}

// Whatever is printed, and the log in all its detail.
TEST_F(EvilNames, LeakThroughNoCommand) {
  const std::string moved = volume + "/moved" + kEvil;
  fs::rename(volume + "/" + kEvil + "/" + kEvil, moved);
  for (const Words& words : std::vector<Words>{{"verify", volume},
                                               {"verify", "--json", volume},
                                               {"status"},
                                               {"status", volume},
                                               {"status", "--json"},
                                               {"check", volume},
                                               {"rescan", volume},
                                               {"scan", volume},
                                               {"changes", volume, "--since", "0"},
                                               {"flush", volume},
                                               {"list", moved},
                                               {"list", temp / kEvil + "nothing"},
                                               {"dump", moved},
                                               {"dump", temp / kEvil + "nothing"},
                                               {"replay", moved, "--catalogue", volume},
                                               {"list", volume, "--catalogue", volume},
                                               {"scan", volume, "--catalogue", volume},
                                               {kEvil},
                                               {"changes", volume, "--since", kEvil},
                                               {"volumes", "add", volume}}) {
    SCOPED_TRACE(printable(words.front()) + " " + printable(words.back()));
    Words loud = words;
    loud.push_back("-vvv");
    expectHarmless(onTerminal(words));
    Outcome inAPipe = run(loud);
    if (words.front() == "changes") inAPipe.out.clear();  // byte for byte there
    expectHarmless(inAPipe);
  }
}

TEST_F(EvilNames, OfRecordsLeakThroughNoDump) {
  FlrJrnCommandRaw message = record(FLR_JRN_TXTMSG);
  message.u.txtmsg = {kEvil};
  const std::string path = temp.write("records", wireOf(message));
  const Outcome text = onTerminal({"dump", path}), asJson = run({"dump", "--json", path});
  expectHarmless(text);
  expectHarmless(asJson);
  EXPECT_THAT(text.out, HasSubstr(std::string("msg.............. ") + kShown + "\n"));
}

struct WatchedEvilNames : WatchTest {};

TEST_F(WatchedEvilNames, LeakNeitherThroughChangesNorThroughTheLog) {
  const auto program = watch({volume, "--print", "-vvv"});
  write(kEvil, "text");
  fs::rename(*this / kEvil, *this / (std::string("b") + kEvil));
  flush();
  stop(*program);
  EXPECT_EQ(leakIn(program->out()), "");
  EXPECT_EQ(leakIn(program->err()), "");
  EXPECT_THAT(program->out(), HasSubstr(std::string("b") + kShown + "\n"));
  EXPECT_THAT(program->err(), HasSubstr(kShown));
}

// Mount points are names too, and they come into SQL texts.
struct QuotedNames : RegistryFixture {
  const std::string quoted = "it's'); DROP TABLE VOLUME;--\"";
};

TEST_F(QuotedNames, OfVolumesAreStoredAsTheyAre) {
  const std::string one = place(quoted), other = place("other");
  mounted({{"dev'ice", one, "ext4"}, {"device", other, "ext4"}});
  scan();
  EXPECT_THAT(volumes(), ElementsAre(one, other));
  EXPECT_THAT(registry("SELECT DEVLABEL FROM VOLUME ORDER BY ROWID"),
              ElementsAre("dev'ice", "device"));
  scan();  // known by now
  EXPECT_THAT(volumes(), ElementsAre(one, other));
  mounted({{"device", other, "ext4"}});
  scan();  // unmounted
  EXPECT_THAT(volumes(), ElementsAre(other));
}

TEST_F(QuotedNames, OfVolumesAreFoundInTheTablesOfNames) {
  const std::string one = place(quoted), other = place("other");
  mounted({{"a", one, "ext4"}, {"b", other, "ext4"}});
  scan();
  DatabaseView view(registryPath());
  sqlite3_stmt* insert = nullptr;
  ASSERT_EQ(
      sqlite3_prepare_v2(view.handle(), "INSERT INTO FILTER VALUES (?1)", -1, &insert, nullptr),
      SQLITE_OK);
  sqlite3_bind_text(insert, 1, one.c_str(), -1, SQLITE_STATIC);
  EXPECT_EQ(sqlite3_step(insert), SQLITE_DONE);
  sqlite3_finalize(insert);
  scan();
  EXPECT_THAT(volumes(), ElementsAre(other));
}

TEST_F(QuotedNames, OfVolumesAreStoppedAlone) {
  const std::string one = place(quoted), other = place("other");
  mounted({{"a", one, "ext4"}, {"b", other, "ext4"}});
  scan();
  StopAndFilter(one.c_str(), nullptr);
  EXPECT_THAT(volumes(), ElementsAre(other));
  StopAndFilter("' OR '1'='1", nullptr);
  EXPECT_THAT(volumes(), ElementsAre(other));
}

TEST_F(QuotedNames, OfDevicesTypesAndFoldersStayInTheirPlaceInTheInsert) {
  const std::string one = place(quoted);
  char sql[8192];
  create_volume_insert_query(sql, one.c_str(), "d'", "t'", '\'', 7, "/f'", 1);
  DatabaseView view(folder / "view", true);
  view.rows(
      "CREATE TABLE VOLUME(DEVLABEL,MOUNT_POINT,FSTYPE,DEVTYPE,BLOCKSIZE,DRIVER_SUPPORT_POSSIBLE,"
      "PATH_TO_DB,SCAN_PROGRESS,INCR_SCAN_PROGRESS,CURRENT_SCAN_TIME,LAST_SCAN_TIME,SCAN_END_TIME,"
      "ROW_COUNT,CHANGE_COUNT,LOCAL,MONITORED,FILTER_INODE,FILTER_INODE1,DB_CREATION_TIME)");
  view.rows(sql);
  EXPECT_THAT(
      view.rows("SELECT DEVLABEL,MOUNT_POINT,FSTYPE,DRIVER_SUPPORT_POSSIBLE,PATH_TO_DB FROM "
                "VOLUME"),
      ElementsAre("d'|" + one + "|t'|'|/f'/.DATACLASS_7"));
}

// The program's own edits of the registry, of a mount point with such a name.
TEST_F(WatchedEvilNames, AndQuotesOfMountPointsAreHarmlessInTheRegistry) {
  const std::string place = temp / ("it's'); DROP TABLE VOLUME;--" + std::string(kEvil));
  fs::create_directory(place);
  ASSERT_EQ(::mount("none", place.c_str(), "tmpfs", 0, nullptr), 0);
  const auto volumes = [&](Words words, bool terminal = false) {
    words.insert(words.begin(), "volumes");
    words.insert(words.end(), {"--state", state});
    ::setenv("KELDARA_REGISTRY_ROOT", (temp / "etc").c_str(), 1);
    Outcome outcome = terminal ? Terminal().run(words) : Program::run(words);
    ::unsetenv("KELDARA_REGISTRY_ROOT");
    EXPECT_EQ(outcome.exitCode, 0) << outcome;
    EXPECT_EQ(leakIn(outcome.out), "");
    EXPECT_EQ(leakIn(outcome.err), "");
    return outcome;
  };
  volumes({"add", place});
  EXPECT_THAT(volumes({"refresh", "-vvv"}, true).out, HasSubstr(kShown));
  EXPECT_THAT(volumes({"list"}, true).out, HasSubstr(kShown));
  volumes({"list", "--json"});
  DatabaseView registry(temp / "etc/DataClassification/volume_db.kd");
  EXPECT_THAT(registry.rows("SELECT MOUNT_POINT FROM VOLUME"), ElementsAre(place));
  volumes({"remove", place});
  volumes({"refresh"}, true);
  EXPECT_THAT(registry.rows("SELECT MOUNT_POINT FROM VOLUME"), testing::IsEmpty());
  ::umount2(place.c_str(), MNT_DETACH);
}

}  // namespace
}  // namespace kddc::test
