// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The database thread on a real queue and real catalogues.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "agent/live/applier.h"
#include "buffer/persistent_raw_buffer.h"
#include "tests/support/catalogue.h"
#include "tests/support/queue_folders.h"

namespace kddc::test {

// Volume 0 and volume 1 share device 7, volume 2 is on device 8. In each the root is file R.
struct ApplierTest : QueueFolders {
  using Names = std::vector<std::string>;

  // Answers nothing.
  struct Unanswered : DriverQuestions {
    std::atomic<std::uint64_t> resolved = 0;
    void list(const fsf_fid& /*folder*/) override {}
    void look(const fsf_fid& /*folder*/, const std::string& /*name*/) override {}
    void lookAt(const fsf_fid& /*file*/) override {}
    std::uint64_t resolve(const fsf_fid& /*file*/) override { return ++resolved; }
    bool isAnswered(std::uint64_t /*question*/) const override { return false; }
  };

  static constexpr std::chrono::seconds kLong{60};

  Unanswered driver;
  std::unique_ptr<PersistentDCRawBuffer> queue;
  std::vector<std::unique_ptr<VolumeRows>> volumes;
  std::unique_ptr<Applier> applier;
  std::thread thread;
  unsigned long long next = 1;  // the number of the record that is sent next for device 7
  std::map<unsigned long long, unsigned long long> elsewhere;  // that of the last one, by device

  std::mutex mutex;
  std::condition_variable changed;
  Names doubts;

  void SetUp() override {
    QueueFolders::SetUp();
    queue = std::make_unique<PersistentDCRawBuffer>(true);
    for (int i = 0; i < 3; ++i) createCatalogue(i);
  }
  void TearDown() override {
    if (thread.joinable()) end();
    QueueFolders::TearDown();
  }

  std::string catalogue(int volume) const { return folder / ("volume" + std::to_string(volume)); }
  void createCatalogue(int volume) const {
    OpenCatalogue db(catalogue(volume));
    db.CreateDb();
    ASSERT_TRUE(db.OpenHandle(false, false));
    StatFidName_s root = CatalogueTest::entry("/volume", 'R', CatalogueTest::kDirectory);
    db.Insert(&root, 0, 7);
    db.UpdateTimesForFullScan();
    db.CloseHandle(5000, false);
  }
  // SQL on a catalogue that is not open yet.
  void prepare(int volume, const std::string& sql) const {
    DatabaseView(catalogue(volume) + "/.db.kd").rows(sql);
  }
  // What everybody can read.
  Names names(int volume) const {
    return DatabaseView(catalogue(volume) + "/.db.kd")
        .rows("SELECT NAME FROM FILES ORDER BY INODE");
  }

  void start(unsigned long long first = 1) {
    next = first;
    applier = std::make_unique<Applier>(
        *queue, [this](const VolumeRows* volume, const Doubt& why) { doubt(volume, why.reason); });
    applier->expect(7, first);
    applier->expect(8, 1);
    for (const unsigned long long devt : {7ULL, 7ULL, 8ULL}) {
      const int number = static_cast<int>(volumes.size());
      volumes.push_back(std::make_unique<VolumeRows>(catalogue(number), devt, driver));
      applier->attach(*volumes.back());
    }
    thread = std::thread([this] { applier->run(); });
  }
  void end() {
    applier->abandon();
    thread.join();
  }
  void doubt(const VolumeRows* volume, const std::string& reason) {
    const std::lock_guard lock(mutex);
    std::string who = "all";
    for (std::size_t i = 0; i < volumes.size(); ++i)
      if (volumes[i].get() == volume) who = std::to_string(i);
    doubts.push_back(who + ": " + reason);
    changed.notify_all();
  }
  Names doubtsOnceThereAre(std::size_t count) {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return doubts.size() >= count; });
    return doubts;
  }

  unsigned long long send(FlrJrnCommandRaw record) {
    record.seq_num = record.devt == 7 ? next++ : ++elsewhere[record.devt];
    std::vector<unsigned char> bytes(getRawCmdSize(&record));
    encodeRawCmd(&record, bytes.data());
    queue->AddEntry(bytes.data(), static_cast<int>(bytes.size()));
    return record.seq_num;
  }
  void create(const char* name, char file, unsigned long long devt = 7) {
    FlrJrnCommandRaw record{};
    record.cmd = FLR_JRN_CREATE;
    record.devt = devt;
    record.mask = 1;
    record.u.create = {fidOf('R'), fidOf(file), name, 0100644, 0, 0, {}, {}, 0};
    send(record);
  }
  // A change time of the root.
  void touchRoot() {
    FlrJrnCommandRaw record{};
    record.cmd = FLR_JRN_SETXATTR;
    record.devt = 7;
    record.timestamp = 2'000'000'000;
    record.u.setxattr = {fidOf('R'), 0, "", 0, nullptr};
    send(record);
  }
  unsigned long long noop(unsigned long long devt = 7) {
    FlrJrnCommandRaw record{};
    record.cmd = FLR_JRN_NOOP;
    record.devt = devt;
    return send(record);
  }
  // Everything sent so far is applied and committed.
  void settle() {
    for (const unsigned long long devt : {7ULL, 8ULL})
      ASSERT_TRUE(applier->waitFor(devt, noop(devt), kLong));
  }
};

}  // namespace kddc::test
