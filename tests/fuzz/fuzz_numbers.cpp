// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The file that keeps the numbers of records over restarts, with any bytes in it. A run begins with
// numbers that a run can have left, or with 1; what it leaves for the case of a crash lies ahead of
// all that it may give, also when one crash follows the other; and what is kept comes back.
#include "agent/live/sequence_file.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/temp_folder.h"

using kddc::NumbersByDevt;
using kddc::fuzz::require;

namespace {

const std::set<unsigned long long> kDevts = {0, 7, 66306, ~0ULL};

bool areEqual(const NumbersByDevt& one, const NumbersByDevt& other) {
  return one.size() == other.size() &&
         std::equal(one.begin(), one.end(), other.begin(), [](const auto& a, const auto& b) {
           return a.first == b.first && a.second.next == b.second.next &&
                  a.second.expected == b.second.expected;
         });
}

void checkSensible(const NumbersByDevt& numbers) {
  require(numbers.size() == kDevts.size());
  for (const auto& [devt, number] : numbers) {
    require(kDevts.contains(devt));
    require(number.expected >= 1 && number.next >= number.expected);
  }
}

void checkAhead(const NumbersByDevt& before, const NumbersByDevt& after) {
  checkSensible(after);
  for (const auto& [devt, number] : after) {
    const unsigned long long given = before.at(devt).next;
    // Beyond what a file can say there is nothing; then the numbering begins anew.
    require(number.expected > given || number.next == 1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const kddc::test::TempFolder folder(kddc::test::inMemory());
  const std::string file = folder.write("numbers", kddc::fuzz::textOf(data, size));
  const NumbersByDevt begun = kddc::beginNumbering(file, kDevts);
  checkSensible(begun);
  const NumbersByDevt afterCrash = kddc::beginNumbering(file, kDevts);
  checkAhead(begun, afterCrash);
  kddc::keepNumbers(file, begun);
  require(areEqual(kddc::beginNumbering(file, kDevts), begun));
  return 0;
}
