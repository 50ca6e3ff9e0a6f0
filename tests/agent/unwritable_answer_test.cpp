// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An answer that cannot be written is a failure of the command that gives it, whichever that is; a
// reader who has had enough is none.
#include <fcntl.h>
#include <unistd.h>

#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

struct UnwritableAnswer : WatchTest {
  std::vector<Words> commands;

  void SetUp() override {
    WatchTest::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(run({"scan", "-q", volume}).exitCode, 0);
    const std::string records = temp.write("records", "");
    commands = {{"list", volume},
                {"check", volume},
                {"status", volume},
                {"rescan", volume},
                {"verify", volume},
                {"--help"},
                {"list", "--help"},
                {"--version"},
                {"changes", volume, "--since", "1"},
                {"replay", records, "--catalogue", catalogueOf(volume)}};
  }
  Outcome answer(Words words, const Program::Preparation& prepare) const {
    words.insert(words.end(), {"--quiet", "--state", state});
    return Program::run(words, prepare);
  }
};

TEST_F(UnwritableAnswer, IsAFailureOfEachCommand) {
  for (const Words& command : commands) {
    const Outcome outcome =
        answer(command, [] { dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO); });
    EXPECT_EQ(outcome.exitCode, 3) << command[0];
    EXPECT_EQ(outcome.err, "kddc: cannot write the answer: No space left on device\n")
        << command[0];
  }
}

TEST_F(UnwritableAnswer, IsNoneWhenNobodyReadsIt) {
  for (const Words& command : commands) {
    const Outcome outcome = answer(command, [] {
      int ends[2];
      if (pipe(ends) == 0) dup2(ends[1], STDOUT_FILENO);
      close(ends[0]);
      close(ends[1]);
    });
    EXPECT_EQ(outcome.exitCode, 0) << command[0] << outcome;
    EXPECT_EQ(outcome.err, "") << command[0];
  }
}

}  // namespace
}  // namespace kddc::test
