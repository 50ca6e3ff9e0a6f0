// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A small volume with a catalogue, and a rescan after which the two must agree.
#pragma once

#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "tests/support/scanned_volume.h"

namespace kddc::test {

// Brings the catalogue up to date and expects that it is, whatever else.
struct RescanTest : testing::Test {
  ScannedVolume volume;
  std::time_t began = 0;

  RescanTest() {
    volume.folder("d/e");
    volume.file("a", "text");
    volume.file("d/b");
    volume.file("d/e/c");
    volume.scan();
  }

  // "added changed moved removed"; folders whose names changed count as changed themselves.
  static std::string text(const SettleCounts& counts) {
    return std::to_string(counts.added) + " " + std::to_string(counts.changed) + " " +
           std::to_string(counts.moved) + " " + std::to_string(counts.removed);
  }
  std::string rescan() {
    began = std::time(nullptr);
    const std::string counts = text(volume.rescan().settled);
    volume.expectSame();
    const auto after = volume.dump();
    EXPECT_EQ(text(volume.rescan().settled), "0 0 0 0") << "nothing is left for a second one";
    EXPECT_EQ(volume.dump(), after);
    return counts;
  }
  void rescanAfter(const std::string& sql) {
    volume.change(sql);
    rescan();
  }
  void expectStampedNow(const std::string& name) const {
    EXPECT_GE(volume.stampOf(name), began) << name;
  }
  void expectUntouched(const std::string& name) const {
    EXPECT_EQ(volume.stampOf(name), 1000) << name;
  }
  long long inode(const std::string& name) const { return volume.inodeOf(name); }
};

}  // namespace kddc::test
