// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Any sequence of inserts and removals leaves the same rows, whether they were inserted plainly or
// sorted, and however large the map: those of a model that knows nothing of databases. FIDS_ROWID
// alone differs, for sorted inserts number identifiers later and in another order; so rows are
// compared with what they lead to instead.
#include <gtest/gtest.h>
#include <rapidcheck.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/log_capture.h"
#include "tests/support/random_records.h"
#include "tests/support/sorted_catalogue.h"

namespace {

using kddc::test::CatalogueTest;
using kddc::test::DatabaseView;
using kddc::test::Dice;
using kddc::test::fidOf;
using Numbers = std::vector<std::uint64_t>;
using Rows = std::vector<std::string>;

struct Step {
  enum Kind { kInsert, kRemoveFolder, kRemoveDuplicates, kFlush } kind;
  unsigned long long inode = 0;  // of the parent, or of the folder to be removed
  char fid = 0;
  bool isFolder = false;
  std::string name;
};

class Model {
 public:
  // A step that makes sense now.
  Step step(std::uint64_t number) const {
    Dice dice(number);
    std::vector<unsigned long long> folders = {0};
    for (const auto& [inode, row] : rows_)
      if (row.isFolder) folders.push_back(inode);
    const auto kind = dice.below(20);
    if (kind == 0) return {Step::kFlush, 0, 0, false, ""};
    if (kind == 1) return {Step::kRemoveDuplicates, 0, anyFid(dice), false, ""};
    if (kind <= 3 && folders.size() > 1)
      return {Step::kRemoveFolder, folders[1 + dice.below(folders.size() - 1)], 0, false, ""};
    return {Step::kInsert, dice.oneOf(folders), anyFid(dice), dice.oneIn(3),
            "n" + std::to_string(dice.below(1000))};
  }

  void take(const Step& step) {
    if (step.kind == Step::kInsert) {
      const unsigned long long inode = rows_.empty() ? 1 : rows_.rbegin()->first + 1;
      rows_[inode] = {step.inode, step.fid, step.isFolder, step.name};
    }
    if (step.kind == Step::kRemoveFolder) remove(step.inode);
    if (step.kind == Step::kRemoveDuplicates)
      for (auto at = withFid(step.fid); at != rows_.end(); at = withFid(step.fid))
        remove(at->first);
  }

  // As query() below gives them.
  Rows rows() const {
    constexpr unsigned long long kOneInEachByte = 0x010101010101;
    Rows rows;
    for (const auto& [inode, row] : rows_)
      rows.push_back(std::to_string(inode) + "|" + std::to_string(row.parent) + "|" +
                     (row.isFolder ? "1" : "0") + "|" + row.name + "|" +
                     std::to_string(static_cast<unsigned char>(row.fid) * kOneInEachByte) + "|0|0");
    return rows;
  }

 private:
  struct Row {
    unsigned long long parent;
    char fid;
    bool isFolder;
    std::string name;
  };
  std::map<unsigned long long, Row> rows_;

  static char anyFid(Dice& dice) { return static_cast<char>('A' + dice.below(26)); }
  std::map<unsigned long long, Row>::const_iterator withFid(char fid) const {
    auto at = rows_.begin();
    while (at != rows_.end() && at->second.fid != fid) ++at;
    return at;
  }
  void remove(unsigned long long inode) {
    rows_.erase(inode);
    for (auto at = rows_.begin(); at != rows_.end();) {
      if (at->second.parent == inode) {
        remove(at->first);
        at = rows_.begin();
      } else {
        ++at;
      }
    }
  }
};

// What `Catalogue`, as plain as sorted, makes of the steps.
template <class Catalogue>
class Volume {
 public:
  Volume() : db_(temp_ / "catalogue") {
    db_.CreateDb();
    EXPECT_TRUE(db_.OpenHandle(false, false));
  }
  Catalogue& db() { return db_; }

  void take(const Step& step) {
    if (step.kind == Step::kInsert) {
      StatFidName_s e = CatalogueTest::entry(
          step.name, step.fid, step.isFolder ? CatalogueTest::kDirectory : CatalogueTest::kRegular);
      db_.Insert(&e, step.inode, 7);
    }
    if (step.kind == Step::kRemoveFolder) {
      unsigned long long fidRowId = 0, parent = 0;
      std::string name;
      int type = 0;
      db_.GetNameFileTypePInodeAndFidRowId(step.inode, &name, &type, &parent, &fidRowId);
      db_.RemoveFolderGivenInode(step.inode, fidRowId);
    }
    const fsf_fid fid = fidOf(step.fid);
    if (step.kind == Step::kRemoveDuplicates) db_.RemoveDuplicateFid(&fid);
    if constexpr (requires { db_.FlushAllFids(); })
      if (step.kind == Step::kFlush) db_.FlushAllFids();
  }

  // Every row of FILES with the row of FIDS that it leads to and that leads back.
  Rows closedRows() {
    db_.CloseHandle(0, false);
    DatabaseView view(temp_ / "catalogue/.db.kd");
    view.rows("ATTACH '" + temp_ / "catalogue/.fid.kd" + "' AS F");
    Rows rows = view.rows(
        "SELECT INODE,PINODE,FILE_TYPE,NAME,FID1,SEQNUM,RESCAN FROM FILES LEFT JOIN F.FIDS "
        "ON FIDS_ROWID=FID_ROWID AND FILES_ROWID=INODE AND FID2=FID1 AND FID3=FID1 AND FID4=FID1 "
        "ORDER BY INODE");
    EXPECT_EQ(view.cell("SELECT COUNT(*) FROM F.FIDS"), std::to_string(rows.size()));
    return rows;
  }

 private:
  kddc::test::TempFolder temp_;
  Catalogue db_;
};

Rows after(const std::vector<Step>& steps, unsigned long long mapLimit) {
  Volume<kddc::test::OpenSortedCatalogue> volume;
  volume.db().mapLimit = mapLimit;
  for (const Step& step : steps) volume.take(step);
  return volume.closedRows();
}

Rows after(const std::vector<Step>& steps) {
  Volume<kddc::test::OpenCatalogue> volume;
  for (const Step& step : steps) volume.take(step);
  return volume.closedRows();
}

std::vector<Step> stepsOf(const Numbers& numbers, Model& model) {
  std::vector<Step> steps;
  for (const std::uint64_t number : numbers) {
    steps.push_back(model.step(number));
    model.take(steps.back());
  }
  return steps;
}

TEST(AnySequenceOfInserts, LeavesTheRowsOfTheModelWhateverTheSizeOfTheMap) {
  const kddc::test::LogCapture quiet(0);
  const auto anyNumber = rc::gen::resize(rc::kNominalSize, rc::gen::arbitrary<std::uint64_t>());
  const auto anyNumbers = rc::gen::scale(2, rc::gen::container<Numbers>(anyNumber));
  EXPECT_TRUE(rc::check([&] {
    Model model;
    const std::vector<Step> steps = stepsOf(*anyNumbers, model);
    const Rows expected = model.rows();
    RC_ASSERT(after(steps) == expected);
    for (const unsigned long long limit : {0ULL, 1ULL, 3ULL, 1000000ULL})
      RC_ASSERT(after(steps, limit) == expected);
  }));
}

// Otherwise the comparison above would be one of nothing.
TEST(RandomSteps, LeaveRowsAndRemoveRows) {
  Dice dice(1);
  Numbers numbers(200);
  for (std::uint64_t& number : numbers) number = dice.any();
  Model model;
  std::size_t inserts = 0, removals = 0;
  for (const Step& step : stepsOf(numbers, model)) {
    inserts += step.kind == Step::kInsert;
    removals += step.kind == Step::kRemoveFolder || step.kind == Step::kRemoveDuplicates;
  }
  EXPECT_GT(inserts, 140u);
  EXPECT_GT(removals, 10u);
  EXPECT_GT(model.rows().size(), 10u);
  EXPECT_LT(model.rows().size(), inserts - 20);
}

}  // namespace
