// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A race that a translator is in, as a row: what was there, what happened before one read, and the
// records that it gives.
#pragma once

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "tests/driver/translator_fixture.h"

namespace kddc::test {

struct Race {
  const char* name;
  TranslatorTest::Work before;  // its events were read long ago
  TranslatorTest::Work happens;
  TranslatorTest::Lines records;
};
inline std::ostream& operator<<(std::ostream& out, const Race& race) {
  return out << race.name;
}
inline std::string nameOf(const testing::TestParamInfo<Race>& info) {
  return info.param.name;
}

// What may have been there.
inline void nothing(FakeVolume&) {}
inline void fileA(FakeVolume& v) {
  v.create("a");
}
inline void filesAB(FakeVolume& v) {
  v.create("a");
  v.create("b");
}
inline void fileAWithLinkX(FakeVolume& v) {
  v.create("a");
  v.link("a", "x");
}

struct TranslatorRow : TranslatorTest, testing::WithParamInterface<Race> {};

}  // namespace kddc::test
