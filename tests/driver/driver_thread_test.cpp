// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A real driver on a real file system. Every test ends or is ended by an alarm.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "driver/driver.h"
#include "driver/record_mask.h"
#include "platform/file_handle.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

fsf_fid fidAt(const std::string& path) {
  fsf_fid fid{};
  EXPECT_EQ(identify(AT_FDCWD, path.c_str(), fid), 0) << path;
  return fid;
}

// A record as its bytes, decoded while it is looked at.
struct Record {
  std::vector<unsigned char> bytes;
  FlrJrnCommandRaw decoded() const {
    FlrJrnCommandRaw record{};
    EXPECT_EQ(decodeRawCmd(bytes.data(), &record), 0);
    return record;
  }
};

// "CREATE a", "REMOVE a", "SETATTR", ...: the command, and the name where it has one.
std::string lineOf(const Record& record) {
  const FlrJrnCommandRaw raw = record.decoded();
  const std::string listed = RecordMask(raw.mask).listed() ? " listed" : "";
  switch (raw.cmd) {
    case FLR_JRN_NOOP:
      return "NOOP";
    case FLR_JRN_SETATTR:
      return "SETATTR";
    case FLR_JRN_UNSTUB:
      return "UNSTUB";
    case FLR_JRN_CREATE:
      return "CREATE " + std::string(raw.u.create.short_name) + listed;
    case FLR_JRN_MKDIR:
      return "MKDIR " + std::string(raw.u.mkdir.short_name) + listed;
    case FLR_JRN_SYMLINK:
      return "SYMLINK " + std::string(raw.u.symlink.dst_short_name) + listed;
    case FLR_JRN_RENAME:
      return "RENAME " + std::string(raw.u.rename.src_short_name) + " " +
             raw.u.rename.dst_short_name;
    case FLR_JRN_REMOVE:
      return "REMOVE " + std::string(raw.u.remove.short_name) + " " +
             std::to_string(raw.u.remove.nlink) + " x" + std::to_string(raw.mask);
    case FLR_JRN_RMDIR:
      return "RMDIR " + std::string(raw.u.rmdir.short_name);
    default:
      return "command " + std::to_string(raw.cmd);
  }
}

struct DriverTest : testing::TestWithParam<const char*> {
  std::unique_ptr<LoopMount> mount;
  std::unique_ptr<Driver> driver;
  std::thread thread;

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Record> records;
  std::vector<std::string> doubts;
  // Sees each record on the driver's thread.
  std::function<void(const Record&)> onRecord = [](const Record&) {};
  DriverOptions options;

  void SetUp() override {
    alarm(120);
    if (const std::string why = LoopMount::whyNot(GetParam()); !why.empty()) GTEST_SKIP() << why;
    mount = std::make_unique<LoopMount>(GetParam());
    fs::remove(path("lost+found"));
    options.roots = {mount->path()};
    options.stubAttribute = "trusted.stub";
    options.firstSequence = 100;
    options.ownPid = -1;
    options.queue = EventQueue::kLimited;
    try {
      make();
    } catch (const CannotWatch& e) {
      GTEST_SKIP() << e.what();
    }
  }
  void TearDown() override {
    if (thread.joinable()) stop();
    alarm(0);
  }

  void make() {
    driver = std::make_unique<Driver>(
        options, DriverSinks{[this](std::span<unsigned char> bytes) {
                               const Record record{{bytes.begin(), bytes.end()}};
                               onRecord(record);
                               const std::lock_guard lock(mutex);
                               records.push_back(record);
                               changed.notify_all();
                             },
                             [this](const std::string& doubt) {
                               const std::lock_guard lock(mutex);
                               doubts.push_back(doubt);
                               changed.notify_all();
                             }});
  }
  void start() {
    thread = std::thread([this] { driver->run(); });
  }
  void stop() {
    driver->stop();
    thread.join();
  }
  // Until a barrier: everything that happened before is in the records. Returns its NOOP's number.
  std::uint64_t barrier() {
    std::promise<std::uint64_t> reached;
    driver->barrier([&](std::uint64_t sequence) { reached.set_value(sequence); });
    return reached.get_future().get();
  }
  // The records so far, which are then forgotten, as lines.
  std::vector<std::string> taken() {
    const std::lock_guard lock(mutex);
    std::vector<std::string> lines;
    for (const Record& record : records) lines.push_back(lineOf(record));
    records.clear();
    return lines;
  }
  void waitUntil(const std::function<bool()>& holds) {
    std::unique_lock lock(mutex);
    changed.wait(lock, holds);
  }
  std::string path(const std::string& name) const { return *mount / name; }
  void write(const std::string& name, const std::string& text = "") const {
    std::ofstream(path(name), std::ios::binary) << text;
  }
};
std::string typeOf(const testing::TestParamInfo<const char*>& type) {
  return type.param;
}
INSTANTIATE_TEST_SUITE_P(On, DriverTest, testing::Values("tmpfs", "ext4"), typeOf);

TEST_P(DriverTest, SaysWhatHappenedSinceItWasMade) {
  write("a");
  fs::create_directory(path("d"));
  start();
  barrier();
  EXPECT_THAT(taken(), ElementsAre("CREATE a", "SETATTR", "MKDIR d", "SETATTR", "SETATTR", "NOOP"));
  fs::rename(path("a"), path("d/b"));
  barrier();
  EXPECT_THAT(taken(), ElementsAre("RENAME a b", "SETATTR", "SETATTR", "SETATTR", "NOOP"));
  fs::remove(path("d/b"));
  fs::remove(path("d"));
  barrier();
  // They may have been one batch or two, so the folder's own attributes may have been seen.
  const auto lines = taken();
  EXPECT_THAT(lines, testing::Contains("REMOVE b 0 x0"));
  EXPECT_THAT(lines, testing::Contains("RMDIR d"));
  EXPECT_THAT(doubts, testing::IsEmpty());
}

TEST_P(DriverTest, DropsTheChangesOfItsOwnProcess) {
  options.ownPid = getpid();
  make();
  write("a");
  start();
  barrier();
  EXPECT_THAT(taken(), ElementsAre("NOOP"));
}

TEST_P(DriverTest, ReachesABarrierAfterEverythingBeforeIt) {
  start();
  for (int i = 0; i < 100; ++i) {
    const std::string name = "file" + std::to_string(i);
    write(name);
    const std::uint64_t sequence = barrier();
    const std::lock_guard lock(mutex);
    ASSERT_EQ(records.back().decoded().cmd, FLR_JRN_NOOP);
    EXPECT_EQ(records.back().decoded().seq_num, sequence);
    EXPECT_TRUE(std::any_of(records.begin(), records.end(), [&](const Record& record) {
      return lineOf(record) == "CREATE " + name;
    }));
    records.clear();
  }
}

TEST_P(DriverTest, SaysOneNoopWhenNothingMoreHappens) {
  start();
  write("a");
  waitUntil([&] { return !records.empty() && records.back().decoded().cmd == FLR_JRN_NOOP; });
  EXPECT_THAT(taken(), testing::Contains("CREATE a"));
  // Nothing is said any more: the next record is that of the next change.
  write("b");
  waitUntil([&] { return !records.empty(); });
  EXPECT_NE(taken().front(), "NOOP");
}

TEST_P(DriverTest, AnswersALookAndSaysWhereItsAnswerEnds) {
  write("a");
  make();
  start();
  const std::uint64_t number = driver->look(fidAt(mount->path()), "a");
  EXPECT_EQ(number, 1u);
  driver->lookAt(fidAt(path("a")));
  driver->look(fidAt(mount->path()), "none");
  barrier();
  EXPECT_THAT(taken(), ElementsAre("CREATE a", "SETATTR", "UNSTUB", "SETATTR", "UNSTUB",
                                   "REMOVE none 0 x0", "NOOP"));
  const Driver::Served served = driver->finished();
  EXPECT_GE(served.request, 3u);  // the barrier itself may not be told yet
  EXPECT_GE(served.sequence, 106u);
  EXPECT_EQ(driver->device(), mount->device());
}

TEST_P(DriverTest, ListsAFolderWithAllBelowItWhileChangesGoOn) {
  std::set<std::string> expected;
  for (int d = 0; d < 10; ++d) {
    fs::create_directory(path("d" + std::to_string(d)));
    expected.insert("MKDIR d" + std::to_string(d) + " listed");
    for (int f = 0; f < 100; ++f) {
      const std::string name = std::to_string(d) + "-" + std::to_string(f);
      write("d" + std::to_string(d) + "/" + name);
      expected.insert("CREATE " + name + " listed");
    }
  }
  make();
  driver->list(fidAt(mount->path()));
  start();
  write("new");
  barrier();
  std::set<std::string> listed;
  bool sawNew = false;
  for (const std::string& line : taken()) {
    if (line.ends_with(" listed")) listed.insert(line);
    if (line.starts_with("CREATE new")) sawNew = true;
  }
  listed.erase("CREATE new listed");
  EXPECT_EQ(listed, expected);
  EXPECT_TRUE(sawNew);
}

TEST_P(DriverTest, ResolvesWhatIsGoneOutsideOrInside) {
  fs::create_directory(path("volume"));
  fs::create_directory(path("outside"));
  write("outside/o");
  write("volume/i");
  write("volume/g");
  const fsf_fid outside = fidAt(path("outside/o")), inside = fidAt(path("volume/i")),
                gone = fidAt(path("volume/g"));
  fs::remove(path("volume/g"));
  options.roots = {path("volume")};
  make();
  start();
  driver->resolve(inside);
  driver->resolve(outside);
  driver->resolve(gone);
  // What lies inside lets the others pass, and when no event comes its name is said.
  waitUntil([&] { return driver->finished().request >= 3; });
  const auto said = taken();
  ASSERT_GE(said.size(), 3U);
  EXPECT_THAT(said[0], StartsWith("REMOVE  0 x1"));
  EXPECT_THAT(said[1], StartsWith("REMOVE  0 x0"));
  EXPECT_THAT(said[2], StartsWith("CREATE i"));
  EXPECT_THAT(doubts, IsEmpty());
}

TEST_P(DriverTest, FollowsAnotherFolderAndLetsGoOfOne) {
  fs::create_directory(path("one"));
  fs::create_directory(path("two"));
  fs::create_directory(path("two/own"));
  write("one/a");
  write("two/b");
  const fsf_fid a = fidAt(path("one/a")), b = fidAt(path("two/b"));
  options.roots = {path("one")};
  make();
  start();
  driver->resolve(b);
  barrier();
  EXPECT_THAT(taken(), ElementsAre("REMOVE  0 x1", "NOOP"));  // outside

  driver->addRoot(path("two"), {fidAt(path("two/own"))});
  barrier();
  taken();
  write("two/own/ours");
  driver->dropRoot(fidAt(path("one")));
  driver->dropRoot(fidAt(path("two")));  // the last one stays
  driver->resolve(a);
  barrier();
  EXPECT_THAT(taken(), ElementsAre("REMOVE  0 x1", "NOOP"));
  driver->look(fidAt(path("two")), "b");
  driver->look(fidAt(path("two")), "own");
  barrier();
  EXPECT_THAT(taken(), ElementsAre("CREATE b", "SETATTR", "UNSTUB", "REMOVE own 0 x0", "NOOP"));
}

TEST_P(DriverTest, ResolveSaysFirstWhatIsQueued) {
  write("a");
  const fsf_fid a = fidAt(path("a"));
  make();
  fs::rename(path("a"), path("b"));
  fs::remove(path("b"));
  driver->resolve(a);
  start();
  barrier();
  const auto lines = taken();
  EXPECT_LT(std::find(lines.begin(), lines.end(), "REMOVE b 0 x0") - lines.begin(),
            std::find(lines.begin(), lines.end(), "REMOVE  0 x0") - lines.begin());
}

TEST_P(DriverTest, NumbersItsRecordsWithoutGaps) {
  start();
  std::thread writer([&] {
    for (int i = 0; i < 2000; ++i) {
      write(std::to_string(i % 20));
      fs::remove(path(std::to_string(i % 20)));
    }
  });
  for (int i = 0; i < 200; ++i) driver->look(fidAt(mount->path()), std::to_string(i % 20));
  writer.join();
  barrier();
  stop();
  std::uint64_t next = 100;
  for (const Record& record : records) {
    ASSERT_EQ(record.decoded().seq_num, next++);
    ASSERT_EQ(record.decoded().devt, mount->device());
  }
  EXPECT_EQ(driver->nextSequence(), next);
  EXPECT_EQ(driver->counts().records, records.size());
  EXPECT_GT(driver->counts().events, 0u);
}

TEST_P(DriverTest, SaysWhatIsQueuedBeforeItStops) {
  write("a");
  driver->stop();
  driver->look(fidAt(mount->path()), "unserved");
  bool reached = false;
  driver->barrier([&](std::uint64_t) { reached = true; });
  driver->run();
  write("after");
  EXPECT_THAT(taken(), ElementsAre("CREATE a", "SETATTR", "SETATTR", "NOOP"));
  EXPECT_TRUE(reached);
}

TEST_P(DriverTest, EndsTheCaptureAndServesOn) {
  write("a");
  std::promise<std::uint64_t> ended;
  driver->endCapture([&](std::uint64_t sequence) { ended.set_value(sequence); });
  start();
  ended.get_future().get();
  EXPECT_THAT(taken(), ElementsAre("CREATE a", "SETATTR", "SETATTR", "NOOP"));
  write("b");
  barrier();
  EXPECT_THAT(taken(), ElementsAre("NOOP"));
  driver->look(fidAt(mount->path()), "b");
  barrier();
  EXPECT_THAT(taken(), ElementsAre("CREATE b", "SETATTR", "UNSTUB", "NOOP"));
}

TEST_P(DriverTest, ReportsAnOverflowAndGoesOn) {
  if (std::string(GetParam()) != "tmpfs") GTEST_SKIP() << "the queue is the same everywhere";
  long limit = 0;
  std::ifstream("/proc/sys/fs/fanotify/max_queued_events") >> limit;
  if (limit <= 0 || limit > 50000) GTEST_SKIP() << "the queue takes " << limit << " events";
  for (long i = 0; i <= limit; ++i) mknod(path(std::to_string(i)).c_str(), S_IFREG | 0600, 0);
  start();
  barrier();
  {
    const std::lock_guard lock(mutex);
    EXPECT_THAT(doubts, ElementsAre("the kernel's queue of changes overflowed"));
  }
  EXPECT_EQ(driver->counts().overflows, 1u);
  taken();
  write("after");
  barrier();
  EXPECT_THAT(taken(), testing::Contains("CREATE after"));
}

TEST_P(DriverTest, ComesBackWithTheSinksExceptionAndCanGoOn) {
  write("a");
  onRecord = [](const Record&) { throw std::runtime_error("full"); };
  EXPECT_THROW(driver->run(), std::runtime_error);
  onRecord = [](const Record&) {};
  write("b");
  start();
  barrier();
  EXPECT_THAT(taken(), testing::Contains("CREATE b"));
  EXPECT_EQ(records.size(), 0u);
}

// What a reader of the records knows of the volume: which name stands for which file, and how the
// file is.
class Reader {
 public:
  using Name = std::pair<fsf_fid, std::string>;

  // The folder that has to be listed, if the record tells of one that is new.
  const fsf_fid* apply(const FlrJrnCommandRaw& record) {
    const auto& u = record.u;
    if (record.cmd == FLR_JRN_CREATE) set(u.create.par_fid, u.create.short_name, u.create.fid);
    if (record.cmd == FLR_JRN_SYMLINK)
      set(u.symlink.dst_par_fid, u.symlink.dst_short_name, u.symlink.dst_fid);
    if (record.cmd == FLR_JRN_SETATTR) modes[u.setattr.fid] = u.setattr.mode;
    if (record.cmd == FLR_JRN_SETATTR) links[u.setattr.fid] = RecordMask(record.mask).links();
    if (record.cmd == FLR_JRN_REMOVE) names.erase({u.remove.par_fid, u.remove.short_name});
    if (record.cmd == FLR_JRN_RMDIR) names.erase({u.rmdir.par_fid, u.rmdir.short_name});
    if (record.cmd == FLR_JRN_RENAME) {
      set(u.rename.dst_par_fid, u.rename.dst_short_name, u.rename.src_fid);
      const auto old = names.find({u.rename.src_par_fid, u.rename.src_short_name});
      if (old != names.end() && old->second == u.rename.src_fid) names.erase(old);
    }
    if (record.cmd != FLR_JRN_MKDIR) return nullptr;
    set(u.mkdir.par_fid, u.mkdir.short_name, u.mkdir.fid);
    const bool isNew = folders.insert(u.mkdir.fid).second;
    return isNew && !RecordMask(record.mask).listed() ? &u.mkdir.fid : nullptr;
  }
  // "path fid mode links" of everything below a folder.
  void tell(const fsf_fid& folder, const std::string& path, std::set<std::string>& out) const {
    for (auto name = names.lower_bound({folder, ""});
         name != names.end() && name->first.first == folder; ++name) {
      const std::string below = path + "/" + name->first.second;
      const unsigned int mode = modes.contains(name->second) ? modes.at(name->second) : 0;
      const unsigned int count = links.contains(name->second) ? links.at(name->second) : 0;
      out.insert(below + " " + fid2str(name->second) + " " + std::to_string(mode) + " " +
                 std::to_string(count));
      if (S_ISDIR(mode)) tell(name->second, below, out);
    }
  }

 private:
  void set(const fsf_fid& folder, const char* name, const fsf_fid& fid) {
    names[{folder, name}] = fid;
  }
  std::map<Name, fsf_fid> names;
  std::map<fsf_fid, unsigned int> modes, links;
  std::set<fsf_fid> folders;
};

std::vector<std::string> onlyIn(const std::set<std::string>& some,
                                const std::set<std::string>& others) {
  std::vector<std::string> only;
  std::set_difference(some.begin(), some.end(), others.begin(), others.end(),
                      std::back_inserter(only));
  return only;
}

std::set<std::string> onDisk(const std::string& root) {
  std::set<std::string> all;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    struct stat st {};
    EXPECT_EQ(lstat(entry.path().c_str(), &st), 0);
    all.insert(entry.path().string().substr(root.size()) + " " +
               fid2str(fidAt(entry.path().string())) + " " + std::to_string(st.st_mode) + " " +
               std::to_string(st.st_nlink));
  }
  return all;
}

// Few names, so that they meet often.
void changeAtRandom(const std::string& root, unsigned int seed, int times) {
  std::mt19937 random(seed);
  const auto pick = [&](unsigned int below) { return static_cast<unsigned int>(random()) % below; };
  const auto folder = [&] {
    std::string path = root;
    for (unsigned int depth = pick(3); depth > 0; --depth) path += "/d" + std::to_string(pick(3));
    return path;
  };
  const auto name = [&] { return folder() + "/" + "abcd"[pick(4)]; };
  const auto folderName = [&] { return folder() + "/d" + std::to_string(pick(3)); };
  for (int i = 0; i < times; ++i) {
    const std::string one = name(), other = name();
    switch (pick(12)) {
      case 0:
      case 1:
      case 2:
        UniqueFd(open(one.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK, 0600));
        break;
      case 3:
        unlink(one.c_str());
        break;
      case 4:
      case 5:
        rename(one.c_str(), other.c_str());
        break;
      case 6:
        (void)!link(one.c_str(), other.c_str());
        break;
      case 7:
        mkdir(folderName().c_str(), 0755);
        break;
      case 8:
        rename(folderName().c_str(), folderName().c_str());
        break;
      case 9:
        rmdir(folderName().c_str());
        break;
      case 10:
        (void)!symlink("to", one.c_str());
        break;
      default:
        renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
    }
  }
}

// As mkfs would, asks for the device alone, until it is given.
void waitUntilFree(const std::string& device) {
  while (!UniqueFd(open(device.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC))) poll(nullptr, 0, 1);
}

TEST_P(DriverTest, AVolumeAtRestCanBeUnmountedAndItsDeviceIsFree) {
  const std::string device = mount->loopDevice();
  start();
  write("a");
  waitUntil([&] { return !records.empty() && records.back().decoded().cmd == FLR_JRN_NOOP; });
  mount->unmount();
  if (!device.empty()) waitUntilFree(device);
  stop();
  EXPECT_THAT(doubts, testing::IsEmpty());
}

TEST_P(DriverTest, ABusyVolumeCanBeUnmountedAndItsDeviceIsSoonFree) {
  const std::string device = mount->loopDevice();
  options.queue = EventQueue::kUnlimited;
  make();
  start();
  changeAtRandom(mount->path(), 1, 5000);
  mount->unmount();
  if (!device.empty()) waitUntilFree(device);
  barrier();
  stop();
}

TEST_P(DriverTest, WhatCannotBeLookedAtAnyMoreIsInDoubtAndNothingOfItIsSaid) {
  const fsf_fid top = fidAt(mount->path());
  write("a");
  const fsf_fid a = fidAt(path("a"));
  make();
  start();
  barrier();
  mount->unmount();
  driver->look(top, "a");
  driver->lookAt(a);
  driver->list(top);
  driver->resolve(a);
  taken();
  barrier();
  EXPECT_THAT(taken(), ElementsAre("NOOP"));
  EXPECT_THAT(doubts, testing::Contains("a look at the disk failed: No such device"));
}

TEST_P(DriverTest, ItsRecordsEndUpAtWhatIsOnTheDisk) {
  options.queue = EventQueue::kUnlimited;
  make();
  Reader reader;
  std::atomic<std::uint64_t> lastList = 0;
  onRecord = [&](const Record& record) {
    const FlrJrnCommandRaw raw = record.decoded();
    if (const fsf_fid* folder = reader.apply(raw)) lastList = driver->list(*folder);
  };
  start();
  std::vector<std::thread> writers;
  for (unsigned int seed = 1; seed <= 3; ++seed)
    writers.emplace_back([&, seed] { changeAtRandom(mount->path(), seed, 5000); });
  for (std::thread& writer : writers) writer.join();
  // Lists may find folders, which are listed in turn.
  std::uint64_t asked = 0;
  do {
    asked = lastList;
    barrier();
  } while (lastList != asked);
  stop();
  std::set<std::string> told;
  reader.tell(fidAt(mount->path()), "", told);
  EXPECT_THAT(onlyIn(told, onDisk(mount->path())), testing::IsEmpty()) << "told, but not there";
  EXPECT_THAT(onlyIn(onDisk(mount->path()), told), testing::IsEmpty()) << "there, but not told";
  EXPECT_THAT(doubts, testing::IsEmpty());
}

}  // namespace
}  // namespace kddc::test
