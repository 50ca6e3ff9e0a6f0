// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a record costs the heap on its way through the queue: every allocation of this program is
// counted.
#include <gtest/gtest.h>

#include "buffer/persistent_raw_buffer.h"
#include "tests/support/counted_allocations.h"
#include "tests/support/queue_folders.h"

using kddc::test::allocations;

namespace {

struct Allocations : kddc::test::QueueFolders {
  // Adds and reads as many records of 120 bytes, in turns; how many allocations that took.
  static int passing(DCRawBuffer& queue, int count) {
    unsigned char record[120] = {};
    const int before = allocations;
    for (int i = 0; i < count; ++i) {
      if (queue.AddEntry(record, sizeof record) != 0) return -1;
      unsigned char* data = nullptr;
      int length = 0;
      while (!queue.ReadEntry(&data, &length)) {
      }
      if (length != sizeof record) return -1;
    }
    return allocations - before;
  }
};

constexpr int kInABlock = 2097152 / 122;

TEST_F(Allocations, AreNotMadeForARecord) {
  PersistentDCRawBuffer queue(true);
  EXPECT_EQ(passing(queue, kInABlock), 0);
}

TEST_F(Allocations, AreMadeAFewTimesForABlockAtMost) {
  PersistentDCRawBuffer queue(true);
  const int taken = passing(queue, 10 * kInABlock);
  EXPECT_GE(taken, 0);
  EXPECT_LE(taken, 10 * 3);
}

TEST_F(Allocations, AreMadeAFewTimesForASwapFileAtMost) {
  DCRawBuffer queue(1, UDC_RAW_MODE1, true);
  unsigned char record[120] = {};
  constexpr int kRecords = 20 * kInABlock;
  const int before = allocations;
  for (int i = 0; i < kRecords; ++i) queue.AddEntry(record, sizeof record);
  for (int read = 0; read < kRecords;) {
    unsigned char* data = nullptr;
    int length = 0;
    if (queue.ReadEntry(&data, &length)) ++read;
  }
  EXPECT_LE(allocations - before, 20 * 20);
}

}  // namespace
