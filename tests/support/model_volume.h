// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Volumes whose catalogues are compared with models: any sequence of numbers becomes a sequence of
// records that take the whole way from their bytes into rows.
//
// The wall clock shows `shown`: a test that uses this defines time() so that every time that a
// record leaves is known to the second.
#pragma once

#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "journal/apply_journal.h"
#include "tests/support/bytes.h"
#include "tests/support/catalogue.h"
#include "tests/support/cumulative_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_catalogue.h"
#include "tests/support/model_cumulative.h"
#include "tests/support/random_records.h"
#include "tests/support/record_text.h"

namespace kddc::test {

inline std::time_t shown = 0;

using Numbers = std::vector<std::uint64_t>;

// The rows as the catalogue's own connection sees them, committed or not.
inline std::vector<std::string> rowsOf(UDC_DBMS& db, const std::string& table) {
  std::vector<std::string> rows;
  const auto collect = [](void* out, int columns, char** values, char**) {
    std::string row = values[0];
    for (int i = 1; i < columns; ++i) row += std::string("|") + (values[i] ? values[i] : "NULL");
    static_cast<std::vector<std::string>*>(out)->push_back(row);
    return 0;
  };
  db.exec_query_with_callback(("SELECT * FROM " + table + " ORDER BY rowid").c_str(), collect,
                              &rows);
  return rows;
}

// The first rows in which two tables differ, as text; empty when they are equal.
inline std::string difference(const std::string& table, const std::vector<std::string>& real,
                              const std::vector<std::string>& model) {
  std::ostringstream text;
  for (std::size_t i = 0; i < std::max(real.size(), model.size()); ++i) {
    const std::string is = i < real.size() ? real[i] : "nothing";
    const std::string shouldBe = i < model.size() ? model[i] : "nothing";
    if (is != shouldBe)
      text << table << "\n  is        " << is << "\n  should be " << shouldBe << '\n';
  }
  return text.str();
}

// A catalogue that applies records one by one, and its model.
struct OneByOne {
  TempFolder folder;
  OpenCatalogue db{folder / "catalogue"};
  ModelCatalogue model{shown};

  void clear() { model = ModelCatalogue(shown); }
  void finish() {}
};

// The same, coalescing as the setting of the moment says.
struct Coalescing {
  TempFolder folder;
  OpenCumulative db{folder / "catalogue"};
  ModelCumulative model{shown, db.mapLimit};

  void clear() {
    db.journalMap.clear();
    model = ModelCumulative(shown, db.mapLimit);
  }
  void finish() {
    db.FlushAllJournals();
    model.flush(shown);
  }
};

// One volume: its catalogue, and what should be in it.
template <class Kept>
class ModelVolume {
 public:
  ModelVolume() {
    kept_.db.CreateDb();
    EXPECT_TRUE(kept_.db.OpenHandle(false, false));
  }
  ~ModelVolume() { kept_.db.CloseHandle(0, false); }
  ModelVolume(const ModelVolume&) = delete;
  ModelVolume& operator=(const ModelVolume&) = delete;

  // Starts anew, as if just opened and empty: building a catalogue for each sequence would take
  // longer than all records.
  void clear() {
    kept_.db.filesDb->exec_query("DELETE FROM FILES");
    kept_.db.fidDb->exec_query("DELETE FROM FIDS");
    kept_.db.openTime = shown;
    kept_.clear();
  }

  // Lets both live through what the number means; tells what it was, and what was answered wrong.
  struct Outcome {
    std::string event, mistake;
  };
  Outcome live(std::uint64_t number) {
    Dice dice(number);
    return dice.oneIn(25) ? damage(dice) : applyRecord(dice.any());
  }
  // Nothing is held back any more.
  void finish() { kept_.finish(); }

  std::string difference() {
    return kddc::test::difference("FILES", rowsOf(*kept_.db.filesDb, "FILES"),
                                  kept_.model.fileRows()) +
           kddc::test::difference("FIDS", rowsOf(*kept_.db.fidDb, "FIDS"), kept_.model.fidRows());
  }

 private:
  Kept kept_;

  Outcome applyRecord(std::uint64_t seed) {
    const OwnedRecord sent = RandomRecord(kept_.model, shown, seed).make();
    Bytes wire(getRawCmdSize(&sent.record));
    encodeRawCmd(&sent.record, wire.data());
    if (!kddc::isWellFormedRecord(wire.data(), wire.size()))
      return {recordText(sent.record), "not well-formed"};
    FlrJrnCommandRaw received;
    decodeRawCmd(wire.data(), &received);
    const bool applied = ApplyJournal(&kept_.db, received);
    const bool shouldBe = kept_.model.apply(sent.record, shown);
    return {recordText(sent.record), applied == shouldBe ? "" : "wrong answer"};
  }

  // A row is missing, or one stands for nothing: what comes upon it must fail, and no more than
  // that.
  Outcome damage(Dice& dice) {
    const auto inode = static_cast<long long>(dice.below(kept_.model.files.size() + 2));
    if (dice.oneIn(2) || kept_.model.fids.empty()) {
      kept_.db.DeleteInode(static_cast<unsigned long long>(inode));
      kept_.model.deleteInode(inode);
      return {"row " + std::to_string(inode) + " of FILES is lost", ""};
    }
    const fsf_fid fid = dice.oneOf(kept_.model.fids).second.fid;
    kept_.db.InsertFid(&fid, static_cast<unsigned long long>(inode), 0);
    kept_.model.insertFid(fid, inode);
    return {"a second row of FIDS for row " + std::to_string(inode), ""};
  }
};

enum class Compare { kAtTheEnd, kAfterEachRecord };

// What went wrong, with the records that led to it; empty when nothing did.
template <class Volumes>
std::string mistakeIn(const Numbers& numbers, std::time_t era, Compare when, Volumes& volumes) {
  shown = era;
  for (auto& volume : volumes) volume.clear();
  std::string story;
  for (const std::uint64_t number : numbers) {
    ++shown;
    auto& volume = volumes[number % std::size(volumes)];
    const auto [event, mistake] = volume.live(number);
    story += event + '\n';
    if (!mistake.empty()) return story + mistake;
    if (when == Compare::kAtTheEnd) continue;
    if (const std::string rows = volume.difference(); !rows.empty()) return story + rows;
  }
  for (auto& volume : volumes) {
    volume.finish();
    if (const std::string rows = volume.difference(); !rows.empty())
      return (when == Compare::kAtTheEnd ? "" : story) + "in the end\n" + rows;
  }
  return {};
}

// Any sequence of records leaves in the catalogues what it leaves in their models.
template <class Kept>
void expectWhatTheModelsSay() {
  const LogCapture quiet(0);
  std::array<ModelVolume<Kept>, 2> volumes;
  const auto anyNumber = rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<std::uint64_t>());
  const auto anyNumbers = rc::gen::scale(30, rc::gen::container<Numbers>(anyNumber));
  // Before and after the times that 31 and 32 bits hold.
  const auto anyEra = rc::gen::element<std::time_t>(1000000000, 2147483640, 3000000000, 4294967290);
  EXPECT_TRUE(rc::check([&] {
    const Numbers numbers = *anyNumbers;
    const std::time_t era = *anyEra;
    if (!mistakeIn(numbers, era, Compare::kAtTheEnd, volumes).empty())
      RC_FAIL(mistakeIn(numbers, era, Compare::kAfterEachRecord, volumes));
  }));
}

}  // namespace kddc::test
