// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The way of a figure: from a benchmark into a file, and from there into the tables of a document.
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "bench/document.h"
#include "bench/tables.h"
#include "tests/support/temp_folder.h"

namespace {

using kddc::bench::Document;
using kddc::bench::Figure;
using kddc::bench::Figures;
using kddc::bench::Ratio;
using kddc::bench::Tables;
using kddc::test::TempFolder;
using testing::ElementsAre;
using testing::Test;

Document documentOf(const std::string& text) {
  std::istringstream in(text);
  return Document(in);
}

Figures figuresOf(const std::string& text) {
  std::istringstream in(text);
  return kddc::bench::figuresIn(in);
}

// As benchmarks write it.
constexpr char kResults[] =
    R"({"table":"volume","what":"`scan`","column":"","ours":4.8312,"unit":"s","beside":"`find`","theirs":2.5,"ratio":"long","aim":1.8,"missed":true}
{"table":"volume","what":"`scan`","column":"","ours":4.8312,"unit":"s","beside":"bfs","theirs":3,"ratio":"long","aim":0,"missed":false}
{"table":"volume","what":"`scan`, memory","column":"","ours":75.4,"unit":"MiB","beside":"","theirs":0,"ratio":"fast","aim":180,"missed":false}
{"table":"volume","what":"`changes`","column":"","ours":0.109,"unit":"s","beside":"`find`","theirs":1.853,"ratio":"fast","aim":12,"missed":false}
{"table":"records","what":"CREATE","column":"encode","ours":9.2e-9,"unit":"s","beside":"","theirs":0,"ratio":"fast","aim":0,"missed":false}
{"table":"records","what":"CREATE","column":"decode","ours":2.15e-8,"unit":"s","beside":"","theirs":0,"ratio":"fast","aim":2e-8,"missed":true}
{"table":"records","what":"NOOP","column":"decode","ours":8.4e-9,"unit":"s","beside":"","theirs":0,"ratio":"fast","aim":2e-8,"missed":false}
{"table":"records","what":"NOOP","column":"beside bare","ours":1.1,"unit":"s","beside":"bare","theirs":1,"ratio":"fast","aim":0.85,"missed":false}
{"table":"records","what":"CREATE","column":"beside bare","ours":1.0,"unit":"s","beside":"bare","theirs":1,"ratio":"fast","aim":0,"missed":false}
)";

TEST(Figures, BecomeTheTablesOfADocumentWhoseProseAndOtherTablesStay) {
  Document document = documentOf(R"(# Speed

<!-- figures: volume -->
| of | old |
<!-- end -->
In between.
<!-- figures: records -->
<!-- end -->
<!-- figures: queue -->
| what was measured before |
<!-- end -->
Behind.
)");
  document.put(kddc::bench::tablesOf(figuresOf(kResults)));
  EXPECT_EQ(document.text(), R"(# Speed

<!-- figures: volume -->
| | kddc | beside | takes | ratio | aim |
|---|---|---|---|---|---|
| `scan` | 4.83 s | `find` | 2.50 s | **1.93 times as long** | at most 1.8 |
| | | bfs | 3.00 s | 1.61 times as long | |
| `scan`, memory | 75 MiB | | | | at most 180 MiB |
| `changes` | 109 ms | `find` | 1.85 s | 17 times as fast | at least 12 |
<!-- end -->
In between.
<!-- figures: records -->
| | encode | decode (at most 20 ns) | beside bare |
|---|---|---|---|
| CREATE | 9.20 ns | **21.5 ns** | 1.00 |
| NOOP | | 8.40 ns | 0.91 (at least 0.85) |
<!-- end -->
<!-- figures: queue -->
| what was measured before |
<!-- end -->
Behind.
)");
}

TEST(Figures, AreOneTableForATerminalWithAWarningForEachAimMissed) {
  const Figures figures = figuresOf(kResults);
  const Figures some(figures.begin() + 2, figures.begin() + 6);
  EXPECT_EQ(kddc::bench::overviewOf(some),
            "table    what            kddc     beside  takes   ratio             aim\n"
            "volume   scan, memory    75 MiB                                     at most 180 MiB\n"
            "volume   changes         109 ms   find    1.85 s  17 times as fast  at least 12\n"
            "records  CREATE, encode  9.20 ns\n"
            "records  CREATE, decode  21.5 ns                                    at most 20 ns\n"
            "warning: aim missed: records: CREATE, decode: 21.5 ns (at most 20 ns, missed)\n");
}

TEST(Figures, WithoutAnyColumnButOursHaveNoEmptyColumns) {
  EXPECT_EQ(kddc::bench::tablesOf({{.table = "t", .what = "flush", .ours = 0.0027}}).at("t"),
            "| | kddc |\n|---|---|\n| flush | 2.70 ms |\n");
}

TEST(Figures, AreReportedIntoTheFileThatTheEnvironmentNames) {
  const TempFolder folder;
  const std::string path = folder.path() + "/results";
  setenv("KDDC_BENCH_RESULTS", path.c_str(), 1);
  testing::internal::CaptureStdout();
  kddc::bench::report({.table = "watching",
                       .what = "work",
                       .ours = 14.1,
                       .beside = "unwatched",
                       .theirs = 10,
                       .ratio = Ratio::kTimesAsLong,
                       .aim = 1.25});
  kddc::bench::report({.table = "growth", .what = "lookup", .column = "near", .ours = 1e-6});
  unsetenv("KDDC_BENCH_RESULTS");
  const std::string watching =
      "watching: work: 14.1 s, unwatched 10.0 s: 1.41 times as long (at most 1.25, missed)\n";
  const std::string growth = "growth: lookup, near: 1.00 µs\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), watching + growth);
  std::ifstream file(path);
  const Figures figures = kddc::bench::figuresIn(file);
  ASSERT_EQ(figures.size(), 2);
  EXPECT_EQ(kddc::bench::lineOf(figures[0]) + '\n', watching);
  EXPECT_EQ(kddc::bench::lineOf(figures[1]) + '\n', growth);
}

TEST(Figures, AreWrittenInThreeDigits) {
  const auto text = kddc::bench::amountText;
  EXPECT_EQ(text(4.8312, "s"), "4.83 s");
  EXPECT_EQ(text(9.996, "s"), "10.0 s");
  EXPECT_EQ(text(154.6, "s"), "155 s");
  EXPECT_EQ(text(0.9996, "s"), "1.00 s");
  EXPECT_EQ(text(0.113, "s"), "113 ms");
  EXPECT_EQ(text(2.5e-6, "s"), "2.50 µs");
  EXPECT_EQ(text(8.42e-9, "s"), "8.42 ns");
  EXPECT_EQ(text(1203.7, "MiB"), "1204 MiB");
  EXPECT_EQ(text(1.259, ""), "1.26");
  EXPECT_EQ(kddc::bench::withCommas(10000000), "10,000,000");
  EXPECT_EQ(kddc::bench::withCommas(999), "999");
}

TEST(Figures, MeetTheirAimsAsTheyAreShown) {
  Figure figure = {.ours = 1.2549, .beside = "b", .theirs = 1, .ratio = Ratio::kTimesAsLong};
  figure.aim = 1.25;
  EXPECT_FALSE(figure.isMissed());
  figure.ours = 1.2551;
  EXPECT_TRUE(figure.isMissed());
  figure.ratio = Ratio::kTimesAsFast;
  figure.aim = 0.8;
  EXPECT_FALSE(figure.isMissed());
  figure.aim = 0.81;
  EXPECT_TRUE(figure.isMissed());
  EXPECT_FALSE((Figure{.ours = 150, .unit = "MiB", .aim = 150}).isMissed());
  EXPECT_TRUE((Figure{.ours = 150.4, .unit = "MiB", .aim = 150}).isMissed());
}

TEST(ADocument, RefusesATableThatItHasNoPlaceFor) {
  Document document = documentOf("<!-- figures: rows -->\n<!-- end -->\n");
  EXPECT_THROW(document.put({{"queue", "| |\n"}}), std::runtime_error);
}

TEST(ADocument, RefusesATableWithoutAnEnd) {
  EXPECT_THROW(documentOf("<!-- figures: rows -->\n| |\n"), std::runtime_error);
}

TEST(ADocument, KeepsToTheFiguresOfOneMachine) {
  const Document document = documentOf(
      "<!-- figures: machine -->\nthis one\n<!-- end -->\n"
      "<!-- figures: rows -->\n<!-- end -->\n<!-- figures: queue -->\n<!-- end -->\n");
  const Tables some = {{"machine", "another\n"}, {"rows", "| |\n"}};
  Tables all = some;
  all["queue"] = "| |\n";
  Tables same = some;
  same["machine"] = "this one\n";
  EXPECT_TRUE(wouldMixMachines(document, some));
  EXPECT_FALSE(wouldMixMachines(document, all));
  EXPECT_FALSE(wouldMixMachines(document, same));
  EXPECT_FALSE(wouldMixMachines(
      documentOf(
          "<!-- figures: machine -->\n<!-- end -->\n<!-- figures: queue -->\n<!-- end -->\n"),
      {{"machine", "this one\n"}}));
}

class PerformanceDocument : public Test {
 protected:
  PerformanceDocument() {
    std::ifstream file(KDDC_SOURCE_DIR "/docs/performance.md");
    Document document(file);
    prose_ = document.prose();
    tables_ = document.tables();
  }

  std::string prose_;
  Tables tables_;
};

TEST_F(PerformanceDocument, HasEveryTableFromARun) {
  EXPECT_FALSE(std::regex_search(prose_, std::regex("(^|\n) *\\|"))) << "a table of no run";
  std::vector<std::string> names;
  for (const auto& [name, table] : tables_) {
    names.push_back(name);
    EXPECT_NE(table, "") << name;
  }
  EXPECT_THAT(names, ElementsAre("coalescing", "growth", "growth of records", "inserts", "machine",
                                 "mixed records", "queue", "records", "records applied", "rows",
                                 "volume", "watching"));
}

TEST_F(PerformanceDocument, HasNoFigureInItsProseThatTheNextRunWouldMakeWrong) {
  std::smatch found;
  const std::regex figure("[0-9][0-9.,]* ?(s|ms|µs|ns|MiB|%|times|records/s)\\b");
  EXPECT_FALSE(std::regex_search(prose_, found, figure)) << found.str();
}

}  // namespace
