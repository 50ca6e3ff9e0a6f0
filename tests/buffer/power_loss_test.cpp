// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What is on the disk for good, and in which order: this program notes what it syncs, and what the
// buffer folder held then.
#include <unistd.h>

#include "buffer/persistent_raw_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_folders.h"

using kddc::test::add;
using ::testing::ElementsAre;

namespace {

using Names = std::vector<std::string>;

constexpr char kDriver[] = "DriverThreadShutdownIndicator", kDb[] = "DbThreadShutdownIndicator";

// Set by each test: where to look, and what was seen, a name and the indicators that were there.
std::string watched;
Names synced;

// Takes the place of the C library's in this program.
extern "C" int noteSync(int fd) asm("fsync");
extern "C" int noteSync(int fd) {
  std::string what =
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).filename().string();
  for (const char* indicator : {kDriver, kDb})
    if (std::filesystem::exists(watched + "/" + indicator)) what.append(" ").append(indicator, 2);
  synced.push_back(what);
  return 0;
}

struct PowerLoss : kddc::test::QueueFolders {
  const kddc::test::LogCapture quiet{0};

  PowerLoss() {
    watched = buffer;
    synced.clear();
  }
  // What is synced while `call` runs.
  template <class Call>
  static Names during(Call call) {
    synced.clear();
    call();
    return synced;
  }
};

TEST_F(PowerLoss, BringsBackNoIndicatorThatAStartHasDeleted) {
  PersistentDCRawBuffer queue(true);
  put(buffer + "/" + kDriver, "");
  put(buffer + "/" + kDb, "");
  EXPECT_THAT(during([&] { queue.DriverThreadStarted(); }), ElementsAre("buffer Db"));
  EXPECT_THAT(during([&] { queue.DbThreadStarted(); }), ElementsAre("buffer"));
}

TEST_F(PowerLoss, TakesNothingThatTheSecondIndicatorVouchesFor) {
  PersistentDCRawBuffer queue(true);
  queue.DriverThreadStarted();
  queue.DbThreadStarted();
  const std::string record(32766, '.');
  for (int i = 0; i < 65; ++i) add(queue, record);  // one more than a block holds
  EXPECT_THAT(during([&] { queue.DriverThreadShutDown(); }), ElementsAre());
  EXPECT_THAT(during([&] { queue.DbThreadShutDown(); }),
              ElementsAre("swap.0 Dr", "swap.2 Dr", "buffer Dr"));
  EXPECT_THAT(listing(buffer), ElementsAre(kDb, kDriver, "swap.0", "swap.2"));
}

}  // namespace
