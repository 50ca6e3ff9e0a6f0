// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// flush, status and changes as users meet them, on volumes that this process watches or seems to.
#include <gmock/gmock.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "agent/catalogue_place.h"
#include "agent/control/server.h"
#include "agent/control/volume_status.h"
#include "agent/errors.h"
#include "tests/support/database_view.h"
#include "tests/support/program.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using State = VolumeStatus::State;

struct Watched : testing::Test {
  TempFolder temp;
  std::string state = temp / "state", volume = newVolume("volume");
  Options options;
  VolumeStatus status;
  std::function<void()> flush = [] {};
  std::vector<std::unique_ptr<ControlServer>> servers;

  Watched() {
    options.state = state;
    // So that the times below are the ones on the page, wherever the test runs.
    setenv("TZ", "UTC", 1);
  }
  std::string newVolume(const std::string& name) const {
    fs::create_directory(temp / name);
    temp.write(name + "/file", "");
    return temp / name;
  }
  void watch(const std::string& path) {
    servers.push_back(std::make_unique<ControlServer>(
        std::vector<ControlPlace>{{path, controlSocket(options, path)}},
        [this](const ControlRequest& request, const ControlServer::Gone&) {
          if (request.command == ControlCommand::kFlush) return flush(), json::object();
          VolumeStatus answer = status;
          answer.volume = request.volume;
          return toJson(answer);
        }));
  }
  Outcome run(Words words) const {
    words.insert(words.end(), {"--state", state});
    return Program::run(words);
  }
  void scan(const std::string& path) const {
    const Outcome outcome = run({"scan", "-q", path});
    ASSERT_EQ(outcome.exitCode, 0) << outcome;
  }
  std::string catalogueOf(const std::string& path) const { return catalogueFolder(options, path); }
  static void expectFailure(const Outcome& outcome, const std::string& sentence) {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
};

TEST_F(Watched, FlushReturnsWhenTheProcessThatWatchesSaysSo) {
  bool isFlushed = false;
  flush = [&] { isFlushed = true; };
  watch(volume);
  const Outcome outcome = run({"flush", temp / "volume/../volume"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.out + outcome.err, "");
  EXPECT_TRUE(isFlushed);
}

TEST_F(Watched, FlushFailsWhenNobodyWatches) {
  expectFailure(run({"flush", volume}), volume + " is not watched; start: kddc watch " + volume);
  watch(newVolume("other"));
  expectFailure(run({"flush", volume}), volume + " is not watched; start: kddc watch " + volume);
}

TEST_F(Watched, FlushFailsWithTheSentenceOfTheProcessThatWatches) {
  flush = [] { throw Failure("the disk is full"); };
  watch(volume);
  expectFailure(run({"flush", volume}), "the disk is full");
}

TEST_F(Watched, RescanPrintsTheCountsOfTheProcessThatWatches) {
  servers.push_back(std::make_unique<ControlServer>(
      std::vector<ControlPlace>{{volume, controlSocket(options, volume)}},
      [](const ControlRequest& request, const ControlServer::Gone&) -> json {
        if (request.command != ControlCommand::kRescan) throw Failure("not asked for");
        return {{"added", 1}, {"changed", 2}, {"moved", 3}, {"removed", 4}, {"compared", 5}};
      }));
  const Outcome outcome = run({"rescan", volume});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_THAT(outcome.out,
              testing::StartsWith("added 1, changed 2, moved 3, removed 4; compared 5 in "));
}

TEST_F(Watched, RescanSaysWhenAnAnswerMakesNoSense) {
  watch(volume);  // answers as to "status"
  expectFailure(run({"rescan", volume}),
                "the process that watches gave an answer that cannot be understood");
}

TEST_F(Watched, ChangesFlushesFirst) {
  scan(volume);
  flush = [&] {
    DatabaseView(catalogueOf(volume) + "/.db.kd").rows("UPDATE FILES SET TIME=7 WHERE NAME='file'");
  };
  watch(volume);
  EXPECT_EQ(run({"changes", "-q", volume, "--since", "8", "--no-flush"}).out, ".\nfile\n");
  EXPECT_EQ(run({"changes", "-q", volume, "--since", "8"}).out, ".\n");
}

TEST_F(Watched, ChangesGivesNoAnswerWhenItCannotFlushUnlessToldNotTo) {
  scan(volume);
  flush = [] { throw Failure("the disk is full"); };
  watch(volume);
  expectFailure(run({"changes", volume, "--since", "1d"}),
                "the disk is full; to see what is there all the same, add --no-flush");
  EXPECT_EQ(run({"changes", "-q", volume, "--since", "1d", "--no-flush"}).out, ".\nfile\n");
}

TEST_F(Watched, StatusTellsHowTheProcessThatWatchesIsDoing) {
  status.catalogue = "/c";
  status.state = State::kLive;
  status.rows = 1234;
  status.lastScan = 0;
  status.lastComparison = 86400;
  status.process = 4121;
  status.backlogRecords = 12;
  status.backlogBytes = 3456;
  status.recordsPerSecond = 78.94;
  status.overflows = 1;
  status.refusedRecords = 2;
  status.failedRecords = 3;
  status.rescanCount = 5;
  status.rescans = {{60, "the kernel's queue overflowed"}, {61, "a\nb"}};
  watch(volume);
  const Outcome outcome = run({"status", volume});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.out, volume + "\n" +
                             R"(  state                 live
  catalogue             /c
  rows                  1234
  last scan             1970-01-01 00:00:00
  last full comparison  1970-01-02 00:00:00
  last commit           never
  process               4121
  backlog               12 records, 3456 bytes
  rate                  78.9 records/s
  overflows             1
  refused records       2
  failed records        3
  rescans               5
                        1970-01-01 00:01:00  the kernel's queue overflowed
                        1970-01-01 00:01:01  a\nb
)");
}

TEST_F(Watched, StatusTellsSinceWhenACatalogueIsStaleAndWhy) {
  status.state = State::kStale;
  status.staleSince = 3600;
  status.staleReason = "the disk is full";
  watch(volume);
  EXPECT_THAT(
      run({"status", volume}).out,
      HasSubstr("  state                 stale since 1970-01-01 01:00:00: the disk is full\n"));
}

TEST_F(Watched, StatusOfAVolumeThatNobodyWatchesComesFromItsCatalogue) {
  scan(volume);
  DatabaseView(catalogueOf(volume) + "/.db.kd").rows("UPDATE TIME SET DB_CREATION_TIME=86400");
  const Outcome outcome = run({"status", volume});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.out, volume + "\n  state                 not watched\n" +
                             "  catalogue             " + catalogueOf(volume) + "\n" +
                             "  rows                  2\n" +
                             "  last scan             1970-01-02 00:00:00\n");
}

TEST_F(Watched, StatusFailsWhenNothingIsKnown) {
  expectFailure(run({"status", volume}), "there is no catalogue for " + volume + " in " +
                                             catalogueOf(volume) +
                                             "; make a new one with: kddc scan " + volume);
  expectFailure(run({"status"}),
                "no volume is known in " + state + "; start with: kddc scan, or kddc watch");
}

TEST_F(Watched, StatusWithoutAVolumeTellsOfAllInOrderWatchedOrNot) {
  const std::string a = newVolume("a"), c = newVolume("c");
  status.state = State::kScanning;
  scan(volume);
  scan(c);
  watch(c);
  watch(a);
  const Outcome outcome = run({"status"});
  EXPECT_EQ(outcome.exitCode, 0) << outcome;
  EXPECT_EQ(outcome.err, "");
  const std::string scanning = "\n  state                 scanning\n";
  EXPECT_EQ(outcome.out.find(a + scanning), 0U) << outcome;
  const std::size_t second = outcome.out.find("\n\n" + c + scanning);
  const std::size_t third =
      outcome.out.find("\n\n" + volume + "\n  state                 not watched\n");
  ASSERT_NE(third, std::string::npos) << outcome;
  EXPECT_LT(second, third);
}

TEST_F(Watched, StatusAsJsonIsALineForEachVolume) {
  scan(volume);
  watch(newVolume("a"));
  status.state = State::kRescanning;
  const Outcome outcome = run({"status", "--json"});
  ASSERT_EQ(std::ranges::count(outcome.out, '\n'), 2) << outcome;
  const std::size_t end = outcome.out.find('\n');
  const json first = json::parse(outcome.out.substr(0, end));
  const json second = json::parse(outcome.out.substr(end));
  EXPECT_EQ(first["volume"], temp / "a");
  EXPECT_EQ(first["state"], "rescanning");
  EXPECT_EQ(second["volume"], volume);
  EXPECT_EQ(second["state"], "not watched");
  EXPECT_EQ(second["rows"], 2);
}

TEST_F(Watched, StatusNamesAProcessThatDoesNotTellAndTellsTheRest) {
  scan(volume);
  watch(newVolume("a"));
  const std::string c = newVolume("c");
  servers.push_back(std::make_unique<ControlServer>(
      std::vector<ControlPlace>{{c, controlSocket(options, c)}},
      [](const ControlRequest&, const ControlServer::Gone&) -> json { throw Failure("ill"); }));
  scan(c);  // it is not told of as if nobody watched it
  const Outcome outcome = run({"status"});
  EXPECT_EQ(outcome.exitCode, 3) << outcome;
  EXPECT_EQ(outcome.err, "kddc: ill\n");
  EXPECT_THAT(outcome.out, HasSubstr("/a\n"));
  EXPECT_THAT(outcome.out, HasSubstr(volume + "\n"));
  EXPECT_THAT(outcome.out, testing::Not(HasSubstr(c + "\n")));
}

TEST_F(Watched, AVolumeMayHaveAnyName) {
  const std::string odd = newVolume("\xff\n ");
  status.state = State::kLive;
  watch(odd);
  EXPECT_EQ(run({"flush", odd}).exitCode, 0);
  EXPECT_THAT(run({"status"}).out, HasSubstr("/\\xff\\n \n  state                 live\n"));
  EXPECT_THAT(run({"status", odd, "--json"}).out, HasSubstr("\"volume_base64\":\""));
}

}  // namespace
}  // namespace kddc::test
