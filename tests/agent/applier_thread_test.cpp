// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The database thread on a real queue and real catalogues: what it applies, commits, doubts, and
// when it ends.
#include <gmock/gmock.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "agent/live/applier.h"
#include "tests/support/catalogue.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_folders.h"

namespace kddc::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
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

// Volume 0 and volume 1 share device 7, volume 2 is on device 8. In each the root is file R.
struct ApplierTest : QueueFolders {
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

TEST_F(ApplierTest, ANoopCommitsWhatCameBeforeItAndWakesWhoeverWaits) {
  start();
  create("a", 'A');
  EXPECT_TRUE(applier->waitFor(7, noop(), kLong));
  EXPECT_THAT(names(0), ElementsAre("/volume", "a"));
  EXPECT_THAT(doubts, IsEmpty());
}

TEST_F(ApplierTest, NothingIsCommittedBeforeANoop) {
  start();
  create("a", 'A');
  add(*queue, "no record");
  doubtsOnceThereAre(1);
  EXPECT_THAT(names(0), ElementsAre("/volume"));
  EXPECT_FALSE(applier->waitFor(7, 1, std::chrono::milliseconds(0)));
  settle();
  EXPECT_TRUE(applier->waitFor(7, 1, std::chrono::milliseconds(0)));
}

TEST_F(ApplierTest, ARecordGoesToEveryVolumeOfItsDeviceAndToNoOther) {
  start();
  create("on7", 'A', 7);
  create("on8", 'B', 8);
  create("on9", 'C', 9);
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume", "on7"));
  EXPECT_THAT(names(1), ElementsAre("/volume", "on7"));
  EXPECT_THAT(names(2), ElementsAre("/volume", "on8"));
  EXPECT_THAT(doubts, IsEmpty());
}

TEST_F(ApplierTest, ADamagedRecordIsLeftOutAndDoubted) {
  const LogCapture log(0);
  start();
  create("a", 'A');
  add(*queue, "no record");
  create("b", 'B');
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume", "a", "b"));
  EXPECT_THAT(doubts, ElementsAre("all: a record was damaged"));
  EXPECT_EQ(applier->counts().refused, 1u);
  EXPECT_EQ(applier->counts().gaps, 0u);
  EXPECT_TRUE(log.mentions("a record of 9 bytes is damaged and was left out"));
}

TEST_F(ApplierTest, ARecordThatIsCutOffIsLeftOut) {
  start();
  FlrJrnCommandRaw record{};
  record.cmd = FLR_JRN_CREATE;
  record.devt = 7;
  record.u.create = {fidOf('R'), fidOf('A'), "a", 0100644, 0, 0, {}, {}, 0};
  std::vector<unsigned char> bytes(getRawCmdSize(&record));
  encodeRawCmd(&record, bytes.data());
  queue->AddEntry(bytes.data(), static_cast<int>(bytes.size()) - 1);
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume"));
  EXPECT_THAT(doubts, ElementsAre("all: a record was damaged"));
}

TEST_F(ApplierTest, AGapIsDoubtedAndWhatFollowsIsApplied) {
  start();
  create("a", 'A');
  next += 3;
  create("b", 'B');
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume", "a", "b"));
  EXPECT_THAT(doubts, ElementsAre("0: 3 records are missing", "1: 3 records are missing"));
  EXPECT_EQ(applier->counts().gaps, 1u);
  EXPECT_EQ(applier->expected(7), 7u);
}

TEST_F(ApplierTest, ARecordThatComesTwiceIsDoubtedAndAppliedAgain) {
  start();
  create("a", 'A');
  --next;
  create("a", 'A');
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume", "a"));
  EXPECT_THAT(doubts, ElementsAre("0: records came twice or out of order",
                                  "1: records came twice or out of order"));
}

TEST_F(ApplierTest, NumbersThatStepBackAreDoubtedOnceAndGoOnFromThere) {
  start(100);
  create("a", 'A');
  next = 1;
  create("b", 'B');
  create("c", 'C');
  add(*queue, "no record");
  EXPECT_THAT(doubtsOnceThereAre(3),
              ElementsAre("0: records came twice or out of order",
                          "1: records came twice or out of order", "all: a record was damaged"));
  EXPECT_EQ(applier->expected(7), 3u);
}

TEST_F(ApplierTest, TheNumbersOfEachDeviceRiseByThemselves) {
  start(100);
  create("on8", 'B', 8);
  create("on7", 'A', 7);
  elsewhere[8] += 2;
  create("more", 'C', 8);
  settle();
  EXPECT_THAT(doubts, ElementsAre("2: 2 records are missing"));
  EXPECT_EQ(applier->expected(7), 102u);
  EXPECT_EQ(applier->expected(8), 6u);
}

TEST_F(ApplierTest, TheFirstNumberIsTheOneThatItWasGiven) {
  start(100);
  EXPECT_EQ(applier->expected(7), 100u);
  EXPECT_TRUE(applier->waitFor(7, 99, std::chrono::milliseconds(0)))
      << "nothing is missing up to it";
  settle();
  EXPECT_THAT(doubts, IsEmpty());
  EXPECT_EQ(applier->expected(7), 101u);
}

TEST_F(ApplierTest, CountsRecordsAndTheirBytes) {
  start();
  add(*queue, "no record");
  settle();
  EXPECT_EQ(applier->counts().records, 3u);
  EXPECT_EQ(applier->counts().bytes, 9u + 2 * 26u);
}

TEST_F(ApplierTest, ARecordThatCannotBeAppliedIsDoubtedForItsVolumeAlone) {
  prepare(1,
          "CREATE TRIGGER refuse BEFORE UPDATE ON FILES WHEN OLD.INODE=1 BEGIN "
          "SELECT RAISE(ABORT,'no'); END");
  start();
  touchRoot();
  create("a", 'A');
  settle();
  EXPECT_THAT(doubts, ElementsAre("1: a record could not be applied"));
  EXPECT_THAT(names(1), ElementsAre("/volume", "a"));
}

TEST_F(ApplierTest, ACatalogueThatCannotBeWrittenIsDoubtedAndStillWakesWhoeverWaits) {
  prepare(0, "CREATE TRIGGER refuse BEFORE INSERT ON FILES BEGIN SELECT RAISE(ABORT,'no'); END");
  start();
  create("a", 'A');
  settle();
  EXPECT_THAT(
      doubts,
      ElementsAre("0: the catalogue could not be written: no (SQLite 19: constraint failed)"));
  EXPECT_THAT(names(0), ElementsAre("/volume"));
  EXPECT_THAT(names(1), ElementsAre("/volume", "a"));
}

TEST_F(ApplierTest, ADamagedSwapFileIsDoubtedAndWhatWasGoodInItIsApplied) {
  queue.reset();
  std::filesystem::create_directories(buffer);
  put(buffer + "/DriverThreadShutdownIndicator", "");
  put(buffer + "/DbThreadShutdownIndicator", "");
  FlrJrnCommandRaw record{};
  record.cmd = FLR_JRN_CREATE;
  record.devt = 7;
  record.seq_num = 1;
  record.u.create = {fidOf('R'), fidOf('A'), "a", 0100644, 0, 0, {}, {}, 0};
  std::vector<unsigned char> bytes(getRawCmdSize(&record));
  encodeRawCmd(&record, bytes.data());
  put(buffer + "/swap.1",
      stored(asText(bytes.data(), static_cast<int>(bytes.size()))) + "\xff\xff");
  queue = std::make_unique<PersistentDCRawBuffer>(false);
  ASSERT_FALSE(queue->IsRescanNeeded(nullptr));
  start();
  next = 2;
  settle();
  EXPECT_THAT(doubtsOnceThereAre(1), ElementsAre("all: a swap file was damaged"));
  EXPECT_THAT(names(0), ElementsAre("/volume", "a"));
}

TEST_F(ApplierTest, ARowThatIsParkedIsAskedAfterOnceWhileTheAnswerIsOut) {
  start();
  create("a", 'A');
  settle();
  FlrJrnCommandRaw gone{};
  gone.cmd = FLR_JRN_REMOVE;
  gone.devt = 7;
  gone.mask = 1;
  gone.u.remove = {fidOf('R'), "a", fidOf('A'), 1};
  send(gone);
  settle();
  EXPECT_EQ(driver.resolved, 2u) << "once for each of two volumes";
  settle();
  EXPECT_EQ(driver.resolved, 2u);
}

TEST_F(ApplierTest, AParkedRowWithoutAnIdentifierGoes) {
  prepare(0,
          "INSERT INTO FILES(INODE,FID_ROWID,PINODE,FILE_TYPE,NAME) VALUES"
          "(2,99,9223372036854775807,1,''),(3,98,2,2,'below')");
  start();
  touchRoot();
  settle();
  EXPECT_THAT(names(0), ElementsAre("/volume"));
  EXPECT_EQ(driver.resolved, 0u);
}

TEST_F(ApplierTest, ANoopThatClaimsToBeALaterOneStandsForNoneThatIsStillToCome) {
  start();
  next = 1000;
  noop();
  next = 2;
  create("a", 'A');
  add(*queue, "no record");
  doubtsOnceThereAre(5);  // two for each of two volumes
  EXPECT_FALSE(applier->waitFor(7, 3, std::chrono::milliseconds(0)));
  EXPECT_TRUE(applier->waitFor(7, noop(), kLong));
  EXPECT_THAT(names(0), ElementsAre("/volume", "a"));
}

// Ends. -------------------------------------------------------------------------------------------

TEST_F(ApplierTest, FinishesAtTheNextNoopAndLeavesWhatFollows) {
  start();
  create("a", 'A');
  settle();
  EXPECT_FALSE(applier->hasEnded());
  applier->finishAtNextNoop();
  create("b", 'B');
  const auto last = noop();
  thread.join();
  EXPECT_TRUE(applier->hasEnded());
  EXPECT_TRUE(applier->waitFor(7, last, std::chrono::milliseconds(0)));
  EXPECT_THAT(names(0), ElementsAre("/volume", "a", "b"));
  EXPECT_FALSE(applier->waitFor(7, noop(), kLong)) << "nobody will apply it";
  unsigned char* data = nullptr;
  int length = 0;
  while (!queue->ReadEntry(&data, &length)) {
  }
  EXPECT_EQ(length, 26) << "the last NOOP is still in the queue";
}

TEST_F(ApplierTest, AbandonEndsAThreadThatHasNothingToDo) {
  start();
  settle();
  end();
  EXPECT_TRUE(applier->hasEnded());
  create("b", 'B');
  EXPECT_FALSE(applier->waitFor(7, noop(), kLong));
  EXPECT_THAT(names(0), ElementsAre("/volume"));
}

TEST_F(ApplierTest, AbandonEndsAThreadThatIsBusyAfterTheRecordInHand) {
  start();
  for (int i = 0; i < 2000; ++i) create(("f" + std::to_string(i)).c_str(), 'A');
  end();
  const auto taken = applier->counts().records;
  EXPECT_EQ(applier->expected(7), taken + 1);
  unsigned char* data = nullptr;
  int length = 0;
  std::uint64_t left = 0;
  for (; taken + left < 2000; left += queue->ReadEntry(&data, &length) ? 1 : 0) {
  }
  EXPECT_EQ(taken + left, 2000u) << "what was not taken is still in the queue";
}

TEST_F(ApplierTest, ThoseWhoWaitAreWokenWhenTheThreadEnds) {
  start();
  std::thread waiter([&] { EXPECT_FALSE(applier->waitFor(7, 1'000'000, std::chrono::hours(1))); });
  end();
  waiter.join();
}

}  // namespace
}  // namespace kddc::test
