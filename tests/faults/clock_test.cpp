// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Times that nobody expects: a clock that is set, files from before 1970 and after 2038.
#include <sys/stat.h>

#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

constexpr long long kTenYears = 10LL * 365 * 86'400;

struct Clock : FaultTest {
  // A flush, and an idle second, within the time that they take otherwise.
  void expectInTime() const {
    const auto began = std::chrono::steady_clock::now();
    expectExact();
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
    EXPECT_TRUE(
        comesTrue([&] { return status()["backlog_records"] == 0; }, std::chrono::seconds(20)));
  }
};

TEST_F(Clock, ThatIsSetByTenYearsEitherWayChangesNothing) {
  const auto program = watchShimmed();
  work(100);
  flush();
  const auto before = inodes();
  unsigned part = 0;
  for (int round = 0; round < rounds(1, 5) && !HasFailure(); ++round)
    for (const long long step : {kTenYears, -kTenYears, 0LL}) {
      SCOPED_TRACE("ahead by " + std::to_string(step));
      shim->clockStep = step;
      work(200, ++part);
      expectInTime();
    }
  EXPECT_EQ(status()["rescan_count"], 0);
  EXPECT_EQ(shim->realClockWaits, 0);
  expectSameInodes(before);
  end(*program);
}

TEST_F(Clock, ThatIsSetWhileItIsDownChangesNothing) {
  work(100);
  for (const long long step : {0LL, kTenYears, -kTenYears, 0LL}) {
    SCOPED_TRACE("ahead by " + std::to_string(step));
    shim->clockStep = step;
    const auto program = watchShimmed();
    work(100, static_cast<unsigned>(step != 0));
    expectInTime();
    end(*program);
  }
}

struct FileTimes : FaultTest {
  using FaultTest::FaultTest;

  void setTime(const std::string& name, long long seconds) const {
    const timespec times[2] = {{seconds, 5}, {seconds, 5}};
    ASSERT_EQ(utimensat(AT_FDCWD, (*this / name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  void expectAnyTimeIsExact() const {
    const std::vector<long long> all = {-1,
                                        -2'147'483'648,
                                        -86'400,
                                        0,
                                        1,
                                        2'147'483'647,
                                        2'147'483'648,
                                        4'294'967'295,
                                        4'294'967'296,
                                        15'032'385'535};
    for (const long long seconds : all) {
      write("early " + std::to_string(seconds));
      setTime("early " + std::to_string(seconds), seconds);
    }
    const auto program = watch();
    for (const long long seconds : all) {
      const std::string text = std::to_string(seconds);
      write("late " + text);
      fs::create_directory(*this / ("folder " + text));
      fs::create_symlink("nowhere", *this / ("link " + text));
      for (const char* kind : {"late ", "folder ", "link "}) setTime(kind + text, seconds);
      setTime("early " + text, seconds + 7);
    }
    expectExact();
    end(*program);
    const auto next = watch();
    expectExact();
    EXPECT_EQ(run({"verify", volume}).exitCode, 0);
    end(*next);
  }
};

TEST_F(FileTimes, BeforeTheEpochAndAfter2038AreCatalogued) {
  expectAnyTimeIsExact();
}

struct FileTimesOnDisk : FileTimes {
  FileTimesOnDisk() : FileTimes("ext4") {}
};

// A small image gets inodes of 128 bytes by default in some versions of mkfs, and 32-bit times.
TEST_F(FileTimesOnDisk, BeforeTheEpochAndAfter2038AreCatalogued) {
  expectAnyTimeIsExact();
}

}  // namespace
}  // namespace kddc::faults
