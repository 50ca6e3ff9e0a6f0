// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A driver of a volume on which much happens at once.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/driver_fixture.h"

namespace kddc::test {
namespace {

namespace fs = std::filesystem;

struct BusyDriver : DriverTest {};
INSTANTIATE_TEST_SUITE_P(On, BusyDriver, testing::Values("tmpfs", "ext4"), typeOf);

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

TEST_P(BusyDriver, ABusyVolumeCanBeUnmountedAndItsDeviceIsSoonFree) {
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

// Each name that is told of makes another change, so that there is always as much to read as was
// read before.
struct EndlessChanges : DriverTest {
  int made = 0;
  bool goesOn = true;

  void begin(int changes) {
    options.queue = EventQueue::kUnlimited;
    make();
    onRecord = [this](const Record& record) {
      const FlrJrnCommandRaw raw = record.decoded();
      if (goesOn && raw.cmd == FLR_JRN_CREATE && !RecordMask(raw.mask).listed()) change();
    };
    for (int i = 0; i < changes; ++i) change();
  }
  void change() { write(std::to_string(++made)); }
  // How many changes were read until everything that was asked before is answered. More than this
  // would not end.
  int changesUntilAnswered() {
    constexpr int kEnough = 50'000;
    int changes = 0;
    std::promise<void> answered;
    driver->mark([&](std::uint64_t) {
      changes = made;
      goesOn = false;
      answered.set_value();
    });
    const auto onEach = std::exchange(onRecord, {});
    onRecord = [&, onEach](const Record& record) {
      goesOn = goesOn && made < kEnough;
      onEach(record);
    };
    start();
    answered.get_future().wait();
    stop();
    return changes;
  }
};
INSTANTIATE_TEST_SUITE_P(On, EndlessChanges, testing::Values("tmpfs"), typeOf);

TEST_P(EndlessChanges, AreReadOnceForAllWhoAskAfterAFile) {
  write("file");
  const fsf_fid file = fidAt(path("file"));
  std::filesystem::remove(path("file"));
  begin(500);
  for (int i = 0; i < 100; ++i) driver->resolve(file);
  EXPECT_LT(changesUntilAnswered(), 5000);
}

TEST_P(EndlessChanges, LeaveHalfOfTheTimeToThoseWhoAsk) {
  std::filesystem::create_directory(path("folder"));
  for (int i = 0; i < 10'000; ++i) write("folder/" + std::to_string(i));
  begin(1000);
  driver->list(fidAt(path("folder")));
  EXPECT_LT(changesUntilAnswered(), 20'000);
}

TEST_P(BusyDriver, ItsRecordsEndUpAtWhatIsOnTheDisk) {
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
