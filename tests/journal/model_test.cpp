// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Any sequence of records leaves in a catalogue what it leaves in the model: tens of thousands of
// records, over several volumes, take the whole way from their bytes into rows.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <utility>

#include "tests/support/model_volume.h"

using kddc::test::Dice;
using kddc::test::ModelCatalogue;
using kddc::test::OwnedRecord;
using kddc::test::RandomRecord;

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" std::time_t time(std::time_t* out) noexcept {
  if (out) *out = kddc::test::shown;
  return kddc::test::shown;
}

namespace {

TEST(AnySequenceOfRecords, LeavesInTheCatalogueWhatItLeavesInTheModel) {
  kddc::test::expectWhatTheModelsSay<kddc::test::OneByOne>();
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
