// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The file system of the catalogue, or that of the queue, is full for a while.
#include "tests/faults/fault_fixture.h"
#include "tests/support/balloon.h"
#include "tests/support/unread_pipe.h"

namespace kddc::faults {
namespace {

struct DiskFull : FaultTest {
  std::optional<test::LoopMount> small;

  void SetUp() override {
    FaultTest::SetUp();
    if (IsSkipped()) return;
    small.emplace("tmpfs", "size=12m");
  }
  // Enough for many pages of a catalogue.
  void growBy(int files, const std::string& stem) const {
    fs::create_directory(*this / stem);
    for (int i = 0; i < files; ++i)
      write(stem + "/a file of a name long enough to fill pages " + std::to_string(i));
  }
  // Now and as long as there is no room.
  void expectItIsTold() {
    const auto told = status();
    EXPECT_TRUE(told["stale_since"].is_number()) << told;
    tell("told: ", told["state"], ", ", told["stale_reason"], ", ", told["rescans"].dump());
    EXPECT_FALSE(told["stale_reason"].get<std::string>().empty() && told["rescans"].empty())
        << told;
    for (int i = 0; i < rounds(5, 40); ++i, nap(100)) {
      const auto answer = status();
      EXPECT_NE(answer["state"], "live") << answer;
      EXPECT_EQ(answer["stale_since"], told["stale_since"]);
    }
  }
  void fillAndFree(const Program& program) {
    const test::Balloon balloon(small->path());
    growBy(5000, "while it is full");
    EXPECT_TRUE(comesTrue([&] { return stateName() != "live"; })) << status();
    expectItIsTold();
    balloon.burst();
    EXPECT_TRUE(comesTrue([&] { return stateName() == "live"; })) << status();
    ASSERT_FALSE(program.hasEnded()) << program.err();
    expectExact();
  }
};

TEST_F(DiskFull, OfTheCatalogueIsToldAndRecoversWhenThereIsRoomAgain) {
  options.catalogue = *small / "catalogue";
  const auto program = watch({volume, "--catalogue", options.catalogue});
  work(100);
  flush();
  const auto before = inodes();
  for (int i = 0; i < rounds(1, 3) && !HasFailure(); ++i) {
    fillAndFree(*program);
    fs::remove_all(*this / "while it is full");
  }
  expectExact();
  expectSameInodes(before);
  end(*program);
}

// A reader of what is printed who does not read holds the database thread, so that the queue grows
// beyond its memory.
TEST_F(DiskFull, OfTheQueueIsToldAndRecoversWhenThereIsRoomAgain) {
  const test::TempFolder registry;
  registry.write("settings.ini", "[DataClassification]\nnRawBufferMaxVMSize = 3\n");
  state = *small / "state";
  options.catalogue = temp / "catalogue";
  options.state = state;
  test::UnreadPipe printed;
  const auto program = launch({volume, "--print", "--catalogue", options.catalogue}, [&] {
    printed.asOutput()();
    setenv("KELDARA_REGISTRY_ROOT", registry.path().c_str(), 1);
  });
  ASSERT_EQ(printed.line(), "ready\n");
  const test::Balloon balloon(small->path());
  growBy(60'000, "more than the queue holds in memory");
  EXPECT_TRUE(comesTrue([&] { return stateName() != "live"; }));
  tell("told: ", status().dump());
  balloon.burst();
  std::thread reading([&] { printed.readOn(); });
  EXPECT_TRUE(comesTrue([&] { return stateName() == "live"; })) << status();
  EXPECT_FALSE(program->hasEnded()) << program->err();
  expectExact();
  end(*program);
  reading.join();
}

}  // namespace
}  // namespace kddc::faults
