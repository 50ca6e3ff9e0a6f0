// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A file system in memory is changed at random, its events are merged as the kernel merges them,
// read late and in parts, and the records that come of them are applied later still, while the file
// system goes on changing. When everything is applied, the catalogue is the tree, entry by entry,
// and no file that lived throughout has changed its row.
#include "tests/support/settle_model.h"

#include <gmock/gmock.h>

#include <random>

#include "platform/platform_info.h"

namespace kddc::test {
namespace {

struct SettleModelTest : testing::TestWithParam<const char*> {
  TempFolder temp;

  void run(unsigned seed, Habits habits, bool rowsStay) {
    std::mt19937 engine(seed);
    const auto random = [&](int from, int to) {
      return std::uniform_int_distribution(from, to)(engine);
    };
    SettleModel model(random, temp / std::to_string(seed), habits);
    model.run(600);
    EXPECT_EQ(model.catalogue(), model.tree()) << "seed " << seed;
    EXPECT_EQ(model.failed(), 0U) << "seed " << seed;
    EXPECT_LE(model.roundsOfQuestions(), 5) << "seed " << seed;  // a flush under load asks no more
    if (!rowsStay) return;
    EXPECT_THAT(model.rowsChanged(), testing::IsEmpty()) << "seed " << seed;
  }
  void runMany(unsigned first, Habits habits, bool rowsStay) {
    for (unsigned seed = first; seed < first + 15 && !HasFailure(); ++seed)
      run(seed, habits, rowsStay);
  }
};

INSTANTIATE_TEST_SUITE_P(PendingEntries, SettleModelTest, testing::Values("0", "1", "10", "1000"));

TEST_P(SettleModelTest, TheCatalogueBecomesTheTreeAndRowsStay) {
  KDPlatformInfo::setDefault("DataClassification", "SimultaneousFileAcess", GetParam());
  runMany(1000, {.leavesVolume = false, .links = false}, true);
}

TEST_P(SettleModelTest, TheCatalogueBecomesTheTreeWithFurtherNames) {
  KDPlatformInfo::setDefault("DataClassification", "SimultaneousFileAcess", GetParam());
  runMany(2000, {.leavesVolume = false, .links = true}, false);
}

TEST_P(SettleModelTest, TheCatalogueBecomesTheTreeThatThingsLeaveAndEnter) {
  KDPlatformInfo::setDefault("DataClassification", "SimultaneousFileAcess", GetParam());
  runMany(3000, {.leavesVolume = true, .links = true}, false);
}

}  // namespace
}  // namespace kddc::test
