// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A load that never ends, and that always leaves something to ask: it answers all the same, and
// what happened before it was asked is in the catalogue then.
#include "tests/faults/fault_fixture.h"

namespace kddc::faults {
namespace {

struct EndlessLoad : FaultTest {
  // Each kind of change that makes the catalogue ask for something, apart from the load.
  void change(const std::string& stem) const {
    const std::string top = *this / stem;
    fs::create_directories(top + "/a/b/c");
    fs::create_directory(top + "/to");
    for (int i = 0; i < 40; ++i) {
      const std::string name = top + "/a/b/" + std::to_string(i);
      std::ofstream(name) << "text";
      if (i % 4 == 0) fs::rename(name, top + "/to/" + std::to_string(i));
      if (i % 4 == 1) fs::create_hard_link(name, top + "/a/link " + std::to_string(i));
      if (i % 4 == 2) fs::rename(name, top + "/a/b/1");
    }
    fs::rename(top + "/a/b", top + "/to/b");
    fs::rename(top + "/to", top + "/a/to");
    fs::remove_all(top + "/a/to/b/c");
  }
  void expectFollowed(const std::string& stem) const {
    Words found;
    for (const std::string& name : listed())
      if (name.starts_with(stem + "/")) found.push_back(name.substr(stem.size() + 1));
    Words wanted = onDisk(*this / stem);
    std::erase(wanted, ".");
    EXPECT_EQ(found, wanted);
  }
};

TEST_F(EndlessLoad, HoldsUpNeitherTheStartNorAFlush) {
  auto plan = workPlan();
  plan.pause = isLong() ? 200 : 1000;
  Work running(plan);
  change("before the scan");
  auto program = watch();  // waits for a minute at most
  expectFollowed("before the scan");
  double longest = 0;
  for (int i = 0; i < rounds(2, 10) && !HasFailure(); ++i) {
    const std::string stem = "before flush " + std::to_string(i);
    change(stem);
    const auto began = std::chrono::steady_clock::now();
    flush();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    longest = std::max(longest, took.count());
    expectFollowed(stem);
  }
  tell("the longest flush took ", longest, " s");
  end(*program);
  change("before the comparison");
  program = watch();
  expectFollowed("before the comparison");
  running.end();
  expectExact();
  end(*program);
}

}  // namespace
}  // namespace kddc::faults
