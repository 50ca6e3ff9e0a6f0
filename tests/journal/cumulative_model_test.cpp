// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Any sequence of records leaves in a coalescing catalogue what it leaves in the model, whatever
// number of files is held back.
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <string>

#include "platform/platform_info.h"
#include "tests/support/model_volume.h"

using kddc::test::Dice;
using kddc::test::ModelCumulative;
using kddc::test::OwnedRecord;
using kddc::test::RandomRecord;

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" std::time_t time(std::time_t* out) noexcept {
  if (out) *out = kddc::test::shown;
  return kddc::test::shown;
}

namespace {

struct AnySequenceOfCoalescedRecords : testing::TestWithParam<const char*> {};

TEST_P(AnySequenceOfCoalescedRecords, LeavesInTheCatalogueWhatItLeavesInTheModel) {
  KDPlatformInfo::setDefault("DataClassification", "SimultaneousFileAcess", GetParam());
  kddc::test::expectWhatTheModelsSay<kddc::test::Coalescing>();
}

INSTANTIATE_TEST_SUITE_P(Held, AnySequenceOfCoalescedRecords,
                         testing::Values("0", "1", "10", "1000"));

// Otherwise the comparison above would be one of tables in which nothing meets.
TEST(RandomCoalescedRecords, OftenMeetWhatIsHeldBack) {
  int records = 0, meeting = 0, dropping = 0;
  for (std::uint64_t sequence = 0; sequence < 20; ++sequence) {
    ModelCumulative model(1000000000, 10);
    Dice dice(sequence);
    for (int i = 0; i < 200; ++i, ++records) {
      const auto held = model.heldBack();
      const OwnedRecord sent = RandomRecord(model, 1000000000 + i, dice.any()).make();
      model.apply(sent.record, 1000000000 + i);
      const bool same = model.heldBack().size() == held.size();
      meeting += same && sent.record.cmd == FLR_JRN_SETATTR;
      dropping += !same && sent.record.cmd == FLR_JRN_REMOVE;
    }
  }
  EXPECT_GT(meeting, records / 50);
  EXPECT_GT(dropping, records / 200);
}

}  // namespace
