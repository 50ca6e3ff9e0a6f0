// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A control group that gives the process little memory, as the service's has a limit. The kernel's
// queue counts as memory of the process, also while it does not run, and beyond the limit the
// kernel kills it.
#include "tests/faults/fault_fixture.h"
#include "tests/support/control_group.h"

namespace kddc::faults {
namespace {

constexpr std::uint64_t kMegabyte = 1 << 20;

struct MemoryLimit : FaultTest {
  std::optional<test::ControlGroup> group;

  void SetUp() override {
    FaultTest::SetUp();
    if (IsSkipped()) return;
    if (const std::string why = test::ControlGroup::whyNot(); !why.empty()) GTEST_SKIP() << why;
    group.emplace();
  }
  std::unique_ptr<Program> watchLimited(std::uint64_t bytes) {
    group->setLimit(bytes);
    return watch({volume}, group->preparation());
  }
  // Files with names of eight bytes; each is one event that waits.
  void makeFiles(int count) const {
    for (int i = 0; i < count; ++i) write(std::to_string(10'000'000 + i));
  }
};

// The reckoning of packaging/kddc.service.
TEST_F(MemoryLimit, OfTheServiceHasRoomForTheProgramAndMillionsOfEventsThatNobodyHasRead) {
  std::ifstream unit(KDDC_SOURCE_DIR "/packaging/kddc.service");
  const std::string text{std::istreambuf_iterator<char>(unit), {}};
  ASSERT_THAT(text, testing::HasSubstr("\nMemoryMax=1G\n"));
  const auto program = watchLimited(1024 * kMegabyte);
  work(500);
  flush();
  EXPECT_LT(group->used(), 100 * kMegabyte);
  program->signal(SIGSTOP);
  constexpr int kEvents = 20'000;
  const std::uint64_t before = group->used();
  makeFiles(kEvents);
  const double bytes = static_cast<double>(group->used() - before) / kEvents;
  program->signal(SIGCONT);
  tell(bytes, " bytes an event, ", before / kMegabyte, " MiB before");
  EXPECT_GT(bytes, 80);
  EXPECT_LT(bytes, 206) << "what 4.5 million of may take, besides 100 MiB";
  expectExact();
  end(*program);
}

TEST_F(MemoryLimit, ReachedWhileItDoesNotRunItIsKilledAndTheNextStartIsExact) {
  auto program = watchLimited(1024 * kMegabyte);
  work(200);
  flush();
  const auto before = inodes();
  program->signal(SIGSTOP);
  group->setLimit(group->used() + 2 * kMegabyte);
  makeFiles(25'000);
  EXPECT_EQ(program->finish().exitCode, 128 + SIGKILL);
  program = watchLimited(1024 * kMegabyte);
  expectExact();
  expectSameInodes(before);
  end(*program);
}

// Where it is killed, and where it gets along, is not for us to say.
TEST_F(MemoryLimit, UnderLoadItGoesOnOrTheNextStartIsExact) {
  work(200);
  end(*watch());
  const auto before = inodes();
  int killed = 0;
  const int most = rounds(2, 30);
  for (int round = 0; round < most && !HasFailure(); ++round) {
    const std::uint64_t limit = 6 + static_cast<unsigned>(below(40));
    SCOPED_TRACE(std::to_string(limit) + " MiB");
    group->setLimit(limit * kMegabyte);
    auto program = launch({volume}, group->preparation());
    comesTrue([&] { return isReady(*program) || program->hasEnded(); });
    program->signal(SIGSTOP);
    makeFiles(isLong() ? 30'000 : 10'000);
    program->signal(SIGCONT);
    const bool goesOn = run({"flush", volume}).exitCode == 0;
    group->setLimit(1024 * kMegabyte);
    if (!goesOn || run({"flush", volume}).exitCode != 0) {
      ++killed;
      EXPECT_EQ(program->finish().exitCode, 128 + SIGKILL);
      program = watchLimited(1024 * kMegabyte);
    }
    expectExact();
    expectSameInodes(before);
    end(*program);
  }
  tell("killed ", killed, " of ", most, " times");
}

}  // namespace
}  // namespace kddc::faults
