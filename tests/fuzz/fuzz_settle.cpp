// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The road of a change: a file system in memory, the driver's looks at it, and the settling of its
// records into a catalogue. Each byte of an input is a decision: what is changed, how late events
// are read, how late records are applied. In the end the catalogue is the tree, entry by entry, and
// nothing has failed.
//
// The first byte says how many files a catalogue holds back.
#include <gtest/gtest.h>

#include "platform/platform_info.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/settle_model.h"

using kddc::fuzz::require;
using kddc::test::SettleModel;
using kddc::test::TempFolder;

namespace {

constexpr const char* kHeldBack[] = {"0", "1", "10", "1000"};

// Hands out bytes; when there are no more, the least number that will do.
struct Decisions {
  const uint8_t* data;
  size_t size;

  int operator()(int from, int to) {
    if (size == 0) return from;
    --size;
    return from + *data++ % (to - from + 1);
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  // What the model expects of the catalogue counts here, too.
  testing::GTEST_FLAG(throw_on_failure) = true;
  int none = 1;
  testing::InitGoogleTest(&none, *argv);
  (void)argc;
  kddc::fuzz::sayNothing();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  KDPlatformInfo::setDefault("DataClassification", "SimultaneousFileAcess", kHeldBack[*data % 4]);
  const TempFolder folder(kddc::test::inMemory());
  Decisions decisions{data + 1, size - 1};
  const int operations = static_cast<int>(size / 8);  // each takes about eight decisions
  SettleModel model(std::ref(decisions), folder / "catalogue",
                    {.leavesVolume = true, .links = true});
  model.run(operations);
  require(model.catalogue() == model.tree());
  require(model.failed() == 0);
  return 0;
}
