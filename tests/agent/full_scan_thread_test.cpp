// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "agent/engine/batch_queue.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/engine/full_scan.h"
#include "agent/engine/new_catalogue.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {
namespace {

struct FullScan : testing::Test {
  TempFolder temp;
  std::string volume = temp / "volume";
  std::string folder = temp / "catalogue";
  WalkOptions options{.stubAttribute = "user.stub", .leaveOut = {}};

  FullScan() {
    alarm(120);  // the watchdog: neither thread may wait for ever
    for (int i = 0; i < 60; ++i)
      std::filesystem::create_directories(volume + "/folder-" + std::to_string(i));
    for (int i = 0; i < 12000; ++i)
      temp.write("volume/folder-" + std::to_string(i % 60) + "/" + std::to_string(i), "");
  }
  ~FullScan() override { alarm(0); }

  WalkCounts scan(NewCatalogue& catalogue, const ScanProgress& progress) {
    return fullScan(UniqueFd(open(volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)), volume,
                    options, catalogue.rows(), progress);
  }
};

TEST_F(FullScan, WhatOneThreadWalksTheOtherInserts) {
  NewCatalogue catalogue(folder, volume);
  std::uint64_t last = 0;
  const WalkCounts counts = scan(catalogue, [&](std::uint64_t entries) { last = entries; });
  catalogue.publish(1000000);
  EXPECT_EQ(counts.entries, 12061u);
  EXPECT_EQ(last, 12061u);

  CatalogueReader reader(folder, volume, CatalogueReader::Columns::kPath);
  std::size_t rows = 0;
  bool found = false;
  reader.readAll([&](const CatalogueRow& row) {
    ++rows;
    found = found || row.path == "folder-7/4267";
  });
  EXPECT_EQ(rows, 12061u);
  EXPECT_TRUE(found);
}

TEST_F(FullScan, AFailureOfTheInsertingSideStopsTheWalk) {
  NewCatalogue catalogue(folder, volume);
  EXPECT_THROW(scan(catalogue, [](std::uint64_t) { throw std::domain_error("no more"); }),
               std::domain_error);
}

TEST_F(FullScan, AFailureOfTheWalkReachesTheCaller) {
  NewCatalogue catalogue(folder, volume);
  EXPECT_THROW(fullScan(UniqueFd(), volume, options, catalogue.rows(), [](std::uint64_t) {}),
               std::runtime_error);
}

TEST_F(FullScan, WithoutPublishNothingStays) {
  {
    NewCatalogue catalogue(folder, volume);
    scan(catalogue, [](std::uint64_t) {});
  }
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_FALSE(std::filesystem::exists(folder + ".new"));
}

Batch batchOf(const std::string& name) {
  Batch batch;
  batch.names = name;
  return batch;
}

TEST(BatchQueue, BatchesComeOutInTheirOrderAndThenNone) {
  BatchQueue queue;
  std::thread producer([&] {
    for (int i = 0; i < 500; ++i) EXPECT_TRUE(queue.push(batchOf(std::to_string(i))));
    queue.finish();
  });
  for (int i = 0; i < 500; ++i) EXPECT_EQ(queue.pop()->names, std::to_string(i));
  EXPECT_FALSE(queue.pop().has_value());
  producer.join();
}

TEST(BatchQueue, AStopFreesAProducerThatWaitsForRoom) {
  BatchQueue queue;
  std::thread producer([&] {
    while (queue.push(batchOf("more"))) {
    }
  });
  EXPECT_EQ(queue.pop()->names, "more");
  queue.stop();
  producer.join();
  EXPECT_FALSE(queue.pop().has_value());
}

TEST(BatchQueue, AStopFreesAConsumerThatWaitsForABatch) {
  BatchQueue queue;
  std::thread consumer([&] { EXPECT_FALSE(queue.pop().has_value()); });
  queue.stop();
  consumer.join();
}

}  // namespace
}  // namespace kddc::test
