// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The kernel's queue of changes is bounded and overflows while the process does not run.
#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct Overflow : FaultTest {
  const test::TempFolder registry;

  std::unique_ptr<Program> watchLimited() const {
    registry.write("settings.ini", "[DataClassification]\nLimitEventQueue = 1\n");
    return watch({volume}, [&] { setenv("KELDARA_REGISTRY_ROOT", registry.path().c_str(), 1); });
  }
  // More than the kernel keeps for one group.
  void overflow(int round) const {
    int most = 0;
    std::ifstream("/proc/sys/fs/fanotify/max_queued_events") >> most;
    const std::string top = *this / std::to_string(round);
    fs::create_directory(top);
    for (int i = 0; i <= most; ++i) fs::create_directory(top + "/" + std::to_string(i));
    for (int i = 0; i < most; i += 2) fs::remove(top + "/" + std::to_string(i));
  }
};

TEST_F(Overflow, OfTheKernelsQueueIsCountedAndWhatWasLostIsFound) {
  const auto program = watchLimited();
  work(100);
  flush();
  const auto before = inodes();
  for (int round = 1; round <= rounds(1, 5) && !HasFailure(); ++round) {
    program->signal(SIGSTOP);
    overflow(round);
    program->signal(SIGCONT);
    ASSERT_TRUE(comesTrue([&] { return status()["overflows"] >= round; })) << status();
    expectExact();
    EXPECT_EQ(stateName(), "live");
    EXPECT_GE(status()["rescan_count"], round);
    EXPECT_EQ(status()["rescans"].back()["reason"], "the kernel's queue of changes overflowed");
  }
  expectSameInodes(before);
  end(*program);
}

}  // namespace
}  // namespace kddc::faults
