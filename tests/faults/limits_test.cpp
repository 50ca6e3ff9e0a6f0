// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A process that is given little: it runs, or says why it cannot.
#include <sys/resource.h>

#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct Limits : FaultTest {
  static Program::Preparation limited(int resource, rlim_t limit) {
    return [=] {
      const rlimit both{limit, limit};
      setrlimit(static_cast<__rlimit_resource>(resource), &both);
    };
  }
  // Whether it came to run.
  bool runsOrSaysWhyNot(int resource, rlim_t limit) {
    SCOPED_TRACE("limit " + std::to_string(limit));
    const auto program = launch({volume}, limited(resource, limit));
    EXPECT_TRUE(comesTrue([&] { return isReady(*program) || program->hasEnded(); }));
    const bool runs = !program->hasEnded();
    if (runs) {
      work(200, static_cast<unsigned>(limit));
      expectExactOrToldWhyNot(*program);
      program->signal(SIGTERM);
    }
    expectSaysWhy(program->finish());
    const auto next = watch();
    expectExact();
    end(*next);
    return runs;
  }
  // One that cannot look at the disk keeps on trying, and says so.
  void expectExactOrToldWhyNot(const Program& program) {
    const auto isTold = [&] {
      if (program.hasEnded()) return true;
      const Outcome answer = run({"status", "--json", volume});
      if (answer.exitCode != 0) return answer.err.starts_with("kddc: ");  // none to answer with
      const auto told = nlohmann::json::parse(answer.out);
      isLive_ = told["state"] == "live";
      return isLive_ || !told["stale_reason"].get<std::string>().empty();
    };
    EXPECT_TRUE(comesTrue(isTold, std::chrono::seconds(20)));
    if (isLive_ && !program.hasEnded() && run({"flush", volume}).exitCode == 0) {
      EXPECT_EQ(differences(volume), torture::Lines{});
    }
  }
  static void expectSaysWhy(const Outcome& outcome) {
    // Said before the program begins.
    if (outcome.err.find("error while loading shared libraries") != std::string::npos) return;
    EXPECT_THAT(outcome.exitCode, testing::AnyOf(0, 3)) << outcome;
    if (outcome.exitCode == 3) {
      EXPECT_THAT(outcome.err, testing::HasSubstr("kddc: ")) << outcome;
    }
  }
  template <class Values>
  void tryAll(int resource, const Values& limits) {
    std::string ran;
    for (const rlim_t limit : limits) {
      if (HasFailure()) break;
      if (runsOrSaysWhyNot(resource, limit)) ran += " " + std::to_string(limit);
    }
    tell("ran with:", ran);
  }

 private:
  bool isLive_ = false;
};

TEST_F(Limits, WithFewDescriptorsItRunsOrSaysWhyItCannot) {
  work(200);
  if (!isLong()) return tryAll(RLIMIT_NOFILE, std::vector<rlim_t>{40, 24, 12});
  std::vector<rlim_t> all;
  for (rlim_t limit = 3; limit <= 64; ++limit) all.push_back(limit);
  tryAll(RLIMIT_NOFILE, all);
}

TEST_F(Limits, WithLittleMemoryItRunsOrSaysWhyItCannot) {
  work(200);
  constexpr rlim_t kMegabyte = 1 << 20;
  if (!isLong())
    return tryAll(RLIMIT_AS, std::vector<rlim_t>{40 * kMegabyte, 60 * kMegabyte, 120 * kMegabyte});
  std::vector<rlim_t> all;
  for (rlim_t limit = 30; limit <= 200; limit += 5) all.push_back(limit * kMegabyte);
  tryAll(RLIMIT_AS, all);
}

}  // namespace
}  // namespace kddc::faults
