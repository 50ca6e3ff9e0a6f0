// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc watch under a service manager: what it tells, and what the manager keeps for it over a
// crash.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/unique_fd.h"
#include "tests/support/fake_manager.h"
#include "tests/support/unread_pipe.h"
#include "tests/support/watch_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::Pair;
using testing::SizeIs;

struct WatchService : WatchTest {
  FakeManager manager;

  using WatchTest::WatchTest;

  std::unique_ptr<Program> start(const std::optional<std::string>& watchdog = {}) {
    manager.clear();
    auto program = watch({volume}, [&] { manager.prepareChild(watchdog); });
    EXPECT_TRUE(manager.waitFor("READY=1"));
    return program;
  }
  void kill(Program& program) {
    program.signal(SIGKILL);
    EXPECT_EQ(program.finish().exitCode, 128 + SIGKILL);
    manager.told();
  }
  std::string name() const { return "kddc-" + std::to_string(mount->device()); }
  std::string notUsed(const std::string& why) const {
    return "kddc: " + volume + ": what the service manager kept is not used: " + why + "\n";
  }
  std::size_t eventsKept() {
    int bytes = 0;
    EXPECT_EQ(ioctl(manager.kept.at(name()).at(0).get(), FIONREAD, &bytes), 0);
    return static_cast<std::size_t>(bytes) / FAN_EVENT_METADATA_LEN;
  }
};

TEST_F(WatchService, IsReadyOnceLiveAndSaysHowItGoes) {
  const auto program = start();
  EXPECT_TRUE(manager.waitFor("STATUS=volumes: 1 live"));
  const auto told = manager.told();
  const auto place = [&](const char* line) { return std::ranges::find(told, line) - told.begin(); };
  EXPECT_EQ(place("STATUS=starting"), 0);
  EXPECT_LT(place("STATUS=volumes: 1 scanning"), place("READY=1"));
  manager.clear();
  stop(*program);
  auto last = manager.told();
  std::erase_if(last, [](const auto& line) { return line.starts_with("EXTEND_TIMEOUT_USEC="); });
  EXPECT_THAT(last,
              ElementsAre("STOPPING=1", "STATUS=stopping", "FDSTOREREMOVE=1", "FDNAME=" + name()));
  EXPECT_EQ(program->err(), "");
}

TEST_F(WatchService, IsSilentWithoutOne) {
  const auto program = watch();
  stop(*program);
  EXPECT_THAT(manager.told(), IsEmpty());
}

TEST_F(WatchService, SaysWhyItFailed) {
  const Outcome outcome =
      Program::run({"watch", volume + "/none", "--state", state}, [&] { manager.prepareChild(); });
  EXPECT_EQ(outcome.exitCode, 3);
  EXPECT_THAT(manager.told(), ElementsAre("STATUS=starting",
                                          "STATUS=cannot use the volume " + volume +
                                              "/none: No such file or directory",
                                          "ERRNO=2"));
}

TEST_F(WatchService, FeedsTheWatchdogWhileItIsIdleAndWhileItCatchesUp) {
  const auto program = start("400000");
  for (int i = 0; i < 5; ++i) {
    const std::size_t mark = manager.told().size();
    write("file " + std::to_string(i));
    ASSERT_TRUE(manager.waitFor("WATCHDOG=1", mark));
  }
  stop(*program);
}

// Printing into a pipe that nobody reads holds the database thread.
TEST_F(WatchService, StarvesTheWatchdogWhenTheDatabaseThreadHangs) {
  UnreadPipe printed;
  const auto program = launch({volume, "--print"}, [&] {
    printed.asOutput()();
    manager.prepareChild("400000");
  });
  ASSERT_EQ(printed.line(), "ready\n");
  ASSERT_TRUE(manager.waitFor("READY=1"));
  for (int i = 0; i < 1000; ++i) write("file " + std::to_string(i));
  // Two seconds without a sign of life are five times as long as the manager waits.
  const auto isStarved = [&] {
    const std::size_t before = manager.told().size();
    poll(nullptr, 0, 2000);
    return manager.told().size() == before;
  };
  bool starved = false;
  for (int tries = 0; tries < 10 && !starved; ++tries) starved = isStarved();
  EXPECT_TRUE(starved);
  // It goes on when the thread does.
  const std::size_t mark = manager.told().size();
  EXPECT_TRUE(program->waitUntil([&] {
    printed.drain();
    const auto& told = manager.told();
    return std::find(told.begin() + static_cast<std::ptrdiff_t>(mark), told.end(), "WATCHDOG=1") !=
           told.end();
  }));
}

struct WatchKeeps : WatchService, testing::WithParamInterface<const char*> {
  WatchKeeps() : WatchService(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(On, WatchKeeps, testing::Values("tmpfs", "ext4", "btrfs"),
                         [](const auto& type) { return type.param; });

TEST_P(WatchKeeps, TheQueueOverACrashSoThatNothingIsMissedBetween) {
  write("before");
  auto program = start();
  EXPECT_THAT(manager.told(), Contains("FDNAME=" + name()));
  EXPECT_THAT(manager.kept, ElementsAre(Pair(name(), SizeIs(1))));
  flush();
  kill(*program);
  EXPECT_EQ(eventsKept(), 0U);
  fs::create_directory(*this / "folder");
  write("folder/meanwhile", "text");
  fs::rename(*this / "before", *this / "after");
  EXPECT_GT(eventsKept(), 0U);

  program = start();
  EXPECT_EQ(program->err(),
            "kddc: " + volume + ": what changed since the crash is queued, and is taken up\n");
  EXPECT_EQ(eventsKept(), 0U);  // by the new process
  EXPECT_THAT(manager.told(), Not(Contains("FDSTORE=1")));
  write("folder/later");
  flush();
  EXPECT_EQ(eventsKept(), 0U);
  EXPECT_EQ(listed(), onDisk(volume));
  EXPECT_EQ(run({"verify", volume}).exitCode, 0);
  stop(*program);
  manager.told();
  EXPECT_THAT(manager.kept, IsEmpty());
}

TEST_F(WatchService, TakesUpTheQueueAfterTheSecondCrashToo) {
  for (int crash = 0; crash < 3; ++crash) {
    auto program = start();
    kill(*program);
    write("after crash " + std::to_string(crash));
    EXPECT_THAT(manager.kept, ElementsAre(Pair(name(), SizeIs(1))));
  }
  const auto program = start();
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
}

TEST_F(WatchService, DoesNotUseWhatIsNoQueueOfItsOwn) {
  manager.kept[name()].emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  auto program = start();
  EXPECT_EQ(program->err(), notUsed("it is no queue of changes"));
  // The one that it made instead is kept.
  EXPECT_THAT(manager.kept, ElementsAre(Pair(name(), SizeIs(1))));
  EXPECT_EQ(eventsKept(), 0U);
  kill(*program);
  const std::string old = name();
  mount->unmount();
  mount->mount();
  program = start();
  // A tmpfs may get another number.
  EXPECT_EQ(program->err(),
            old == name() ? notUsed("it follows nothing any more")
                          : "kddc: the service manager kept " + old + ", which no volume needs\n");
  write("file");
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
}

TEST_F(WatchService, UsesNoneOfSeveralThatWereKeptForAFileSystem) {
  auto program = start();
  kill(*program);
  manager.kept[name()].emplace_back(fcntl(manager.kept[name()][0].get(), F_DUPFD_CLOEXEC, 0));
  write("meanwhile");
  program = start();
  EXPECT_EQ(program->err(),
            "kddc: the service manager kept 2 things as " + name() + "; none is used\n");
  EXPECT_THAT(manager.kept, ElementsAre(Pair(name(), SizeIs(1))));
  flush();
  EXPECT_EQ(listed(), onDisk(volume));
}

// It is tried again for as long as it takes, and meanwhile nobody reads.
TEST_F(WatchService, HasAllForgottenWhenItFails) {
  auto program = start();
  kill(*program);
  ASSERT_THAT(manager.kept, ElementsAre(Pair(name(), SizeIs(1))));
  fs::permissions(state, fs::perms::all);
  program = launch({volume}, [&] { manager.prepareChild(); });
  EXPECT_EQ(program->finish().exitCode, 3);
  manager.told();
  EXPECT_THAT(manager.kept, IsEmpty());
}

TEST_F(WatchService, WaitsForVolumesThatAreRegisteredLater) {
  const TempFolder registry;
  const Program program({"watch", "--state", state}, [&] {
    manager.prepareChild();
    setenv("KELDARA_REGISTRY_ROOT", registry.path().c_str(), 1);
  });
  EXPECT_TRUE(manager.waitFor("READY=1"));
  EXPECT_TRUE(manager.waitFor("STATUS=volumes: none; see: kddc volumes --help"));
}

TEST_F(WatchService, HasForgottenWhatNoVolumeNeeds) {
  manager.kept["kddc-1"].emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  const auto program = start();
  EXPECT_EQ(program->err(), "kddc: the service manager kept kddc-1, which no volume needs\n");
  EXPECT_THAT(manager.kept, ElementsAre(Pair(name(), SizeIs(1))));
}

}  // namespace
}  // namespace kddc::test
