// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A real driver on a real file system, and what it says as lines. Every test ends or is ended by an
// alarm.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "driver/driver.h"
#include "driver/record_mask.h"
#include "platform/unique_fd.h"
#include "tests/support/fid_at.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {

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
inline std::string lineOf(const Record& record) {
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
    std::filesystem::remove(path("lost+found"));
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

inline std::string typeOf(const testing::TestParamInfo<const char*>& type) {
  return type.param;
}

// As mkfs would, asks for the device alone, until it is given.
inline void waitUntilFree(const std::string& device) {
  while (!UniqueFd(open(device.c_str(), O_RDONLY | O_EXCL | O_CLOEXEC))) poll(nullptr, 0, 1);
}

}  // namespace kddc::test
