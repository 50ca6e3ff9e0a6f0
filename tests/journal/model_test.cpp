// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Any sequence of records leaves in a catalogue what it leaves in the model: tens of thousands of
// records, over several volumes, take the whole way from their bytes into rows.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "journal/apply_journal.h"
#include "tests/support/bytes.h"
#include "tests/support/catalogue.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_catalogue.h"
#include "tests/support/random_records.h"
#include "tests/support/record_text.h"

using kddc::test::Bytes;
using kddc::test::Dice;
using kddc::test::LogCapture;
using kddc::test::ModelCatalogue;
using kddc::test::OpenCatalogue;
using kddc::test::OwnedRecord;
using kddc::test::RandomRecord;
using kddc::test::recordText;
using kddc::test::TempFolder;

namespace {

std::time_t shown = 0;

}  // namespace

// The wall clock of this program, so that every time that a record leaves is known to the second.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" std::time_t time(std::time_t* out) noexcept {
  if (out) *out = shown;
  return shown;
}

namespace {

using Numbers = std::vector<std::uint64_t>;
using Rows = std::vector<std::string>;

// The rows as the catalogue's own connection sees them, committed or not.
Rows rowsOf(UDC_DBMS& db, const std::string& table) {
  Rows rows;
  const auto collect = [](void* out, int columns, char** values, char**) {
    std::string row = values[0];
    for (int i = 1; i < columns; ++i) row += std::string("|") + (values[i] ? values[i] : "NULL");
    static_cast<Rows*>(out)->push_back(row);
    return 0;
  };
  db.exec_query_with_callback(("SELECT * FROM " + table + " ORDER BY rowid").c_str(), collect,
                              &rows);
  return rows;
}

// The first rows in which two tables differ, as text; empty when they are equal.
std::string difference(const std::string& table, const Rows& real, const Rows& model) {
  std::ostringstream text;
  for (std::size_t i = 0; i < std::max(real.size(), model.size()); ++i) {
    const std::string is = i < real.size() ? real[i] : "nothing";
    const std::string shouldBe = i < model.size() ? model[i] : "nothing";
    if (is != shouldBe)
      text << table << "\n  is        " << is << "\n  should be " << shouldBe << '\n';
  }
  return text.str();
}

// One volume: its catalogue, and what should be in it.
class Volume {
 public:
  Volume() : db_(folder_ / "catalogue") {
    db_.CreateDb();
    EXPECT_TRUE(db_.OpenHandle(false, false));
  }
  ~Volume() { db_.CloseHandle(0, false); }
  Volume(const Volume&) = delete;
  Volume& operator=(const Volume&) = delete;

  // Starts anew, as if just opened and empty: building a catalogue for each sequence would take
  // longer than all records.
  void clear() {
    db_.filesDb->exec_query("DELETE FROM FILES");
    db_.fidDb->exec_query("DELETE FROM FIDS");
    db_.openTime = shown;
    model_ = ModelCatalogue(shown);
  }

  // Lets both live through what the number means; tells what it was, and what was answered wrong.
  struct Outcome {
    std::string event, mistake;
  };
  Outcome live(std::uint64_t number) {
    Dice dice(number);
    return dice.oneIn(25) ? damage(dice) : applyRecord(dice.any());
  }

  std::string difference() {
    return ::difference("FILES", rowsOf(*db_.filesDb, "FILES"), model_.fileRows()) +
           ::difference("FIDS", rowsOf(*db_.fidDb, "FIDS"), model_.fidRows());
  }

 private:
  TempFolder folder_;
  OpenCatalogue db_;
  ModelCatalogue model_{shown};

  Outcome applyRecord(std::uint64_t seed) {
    const OwnedRecord sent = RandomRecord(model_, shown, seed).make();
    Bytes wire(getRawCmdSize(&sent.record));
    encodeRawCmd(&sent.record, wire.data());
    if (!kddc::isWellFormedRecord(wire.data(), wire.size()))
      return {recordText(sent.record), "not well-formed"};
    FlrJrnCommandRaw received;
    decodeRawCmd(wire.data(), &received);
    const bool applied = ApplyJournal(&db_, received);
    const bool shouldBe = model_.apply(sent.record, shown);
    return {recordText(sent.record), applied == shouldBe ? "" : "wrong answer"};
  }

  // A row is missing, or one stands for nothing: what comes upon it must fail, and no more than
  // that.
  Outcome damage(Dice& dice) {
    const auto inode = static_cast<long long>(dice.below(model_.files.size() + 2));
    if (dice.oneIn(2) || model_.fids.empty()) {
      db_.DeleteInode(static_cast<unsigned long long>(inode));
      model_.deleteInode(inode);
      return {"row " + std::to_string(inode) + " of FILES is lost", ""};
    }
    const fsf_fid fid = dice.oneOf(model_.fids).second.fid;
    db_.InsertFid(&fid, static_cast<unsigned long long>(inode), 0);
    model_.insertFid(fid, inode);
    return {"a second row of FIDS for row " + std::to_string(inode), ""};
  }
};

using Volumes = std::array<Volume, 2>;

enum class Compare { kAtTheEnd, kAfterEachRecord };

// What went wrong, with the records that led to it; empty when nothing did.
std::string mistakeIn(const Numbers& numbers, std::time_t era, Compare when, Volumes& volumes) {
  shown = era;
  for (Volume& volume : volumes) volume.clear();
  std::string story;
  for (const std::uint64_t number : numbers) {
    ++shown;
    Volume& volume = volumes[number % std::size(volumes)];
    const auto [event, mistake] = volume.live(number);
    story += event + '\n';
    if (!mistake.empty()) return story + mistake;
    if (when == Compare::kAtTheEnd) continue;
    if (const std::string rows = volume.difference(); !rows.empty()) return story + rows;
  }
  return volumes[0].difference() + volumes[1].difference();
}

TEST(AnySequenceOfRecords, LeavesInTheCatalogueWhatItLeavesInTheModel) {
  const LogCapture quiet(0);
  Volumes volumes;
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

// Otherwise the comparison above would be one of catalogues in which nothing happens.
TEST(RandomRecords, MostlyChangeRowsAndSometimesFailHalfWay) {
  int records = 0, changing = 0, failing = 0, halfWay = 0;
  for (std::uint64_t sequence = 0; sequence < 20; ++sequence) {
    ModelCatalogue model(1000000000);
    Dice dice(sequence);
    for (int i = 0; i < 200; ++i, ++records) {
      const auto before = std::pair(model.fileRows(), model.fidRows());
      const OwnedRecord sent = RandomRecord(model, 1000000000 + i, dice.any()).make();
      const bool applied = model.apply(sent.record, 1000000000 + i);
      const bool changed = before != std::pair(model.fileRows(), model.fidRows());
      changing += changed;
      failing += !applied;
      halfWay += changed && !applied;
    }
  }
  EXPECT_GT(changing, records * 6 / 10);
  EXPECT_LT(failing, records * 2 / 10);
  EXPECT_GT(halfWay, 0);
}

}  // namespace
