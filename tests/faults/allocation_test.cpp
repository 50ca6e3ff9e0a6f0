// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Every allocation of the library fails in turn. What it does then is an error to its caller, leaks
// nothing, and leaves a catalogue that is good, or is said not to be. It replaces operator new, for
// the whole program.
#include <gmock/gmock.h>

#include <functional>
#include <new>

#include "buffer/persistent_raw_buffer.h"
#include "journal/apply_journal.h"
#include "tests/support/counted_allocations.h"
#include "tests/support/cumulative_fixture.h"
#include "tests/support/queue_folders.h"

namespace kddc::test {
namespace {

enum class End { kDone, kThrown };

// Calls `work` with its k-th allocation failing; whether that one was reached.
bool failAllocation(long k, const std::function<void()>& work, End& end) {
  leftUntilFailure = k;
  try {
    work();
    end = End::kDone;
  } catch (const std::exception&) {
    end = End::kThrown;
  }
  const bool reached = leftUntilFailure < 0;
  leftUntilFailure = -1;
  return reached;
}

// Hundreds of catalogues cost the disk nothing there.
const bool kInMemory = setenv("TMPDIR", inMemory().c_str(), 1) == 0;

constexpr long kMost = 100'000;  // more than any of the works makes

FlrJrnCommandRaw recordOf(FlrJrnCreateRaw payload) {
  FlrJrnCommandRaw record{};
  record.cmd = FLR_JRN_CREATE;
  record.timestamp = 5000;
  record.u.create = payload;
  return record;
}

struct CatalogueAllocation : CatalogueTest {
  const LogCapture quiet{0};

  bool isGood() {
    FlrDriver driver;
    bool inside = false;
    fsf_fid files{}, fids{};
    return DCSqliteDB::IsDbGood(folder, "/data", &driver, inside, files, fids);
  }
  // A life from the opening to the close; each failure ends it as an exception or an answer.
  void live() {
    CumulativeJournal db(folder);
    if (!db.OpenHandle(false, false)) throw std::runtime_error("not opened");
    FlrJrnCommandRaw made = recordOf(CumulativeTest::file('A', "a"));
    if (!ApplyJournal(&db, made)) throw std::runtime_error("not applied");
    FlrJrnCommandRaw changed{};
    changed.cmd = FLR_JRN_SETATTR;
    changed.u.setattr = CumulativeTest::sizeOf('A', 77);
    if (!ApplyJournal(&db, changed)) throw std::runtime_error("not applied");
    FlrJrnCommandRaw gone{};
    gone.cmd = FLR_JRN_REMOVE;
    gone.u.remove = CumulativeTest::removal('B', "b");
    if (!ApplyJournal(&db, gone)) throw std::runtime_error("not applied");
    db.FlushAllJournals();
    db.Commit();
    db.CloseHandle(6000, false);
  }
  void beginAnew() {
    std::filesystem::remove_all(folder);
    OpenCatalogue db(folder);
    db.CreateDb();
    ASSERT_TRUE(db.OpenHandle(false, false));
    StatFidName_s top = entry("top", 'T', kDirectory), file = entry("b", 'B', kRegular);
    const unsigned long long parent = db.Insert(&top, 0, 7);
    db.Insert(&file, parent, 7);
    db.UpdateTimesForFullScan();
    db.CloseHandle(5000, false);
  }
};

TEST_F(CatalogueAllocation, ThatFailsAnywhereIsAnErrorAndTheCatalogueIsUsableAfterwards) {
  long k = 0;
  int errors = 0;
  for (End end{};; ++k) {
    SCOPED_TRACE("allocation " + std::to_string(k));
    ASSERT_LT(k, kMost);
    beginAnew();
    if (!failAllocation(
            k, [&] { live(); }, end))
      break;
    errors += end == End::kThrown;
    // Whatever the answer was: a life that was closed in good order holds all of it, and another
    // one can be begun.
    if (isGood()) {
      EXPECT_THAT(files("NAME"), testing::AnyOf(testing::ElementsAre("top", "a"),
                                                testing::ElementsAre("top", "b")));
    }
    OpenCatalogue again(folder);
    EXPECT_TRUE(again.OpenHandle(false, false));
    again.CloseHandle(7000, true);
    if (HasFailure()) break;
  }
  std::cout << "  " << k << " allocations, " << errors << " of which ended in an error\n";
  EXPECT_EQ(files("NAME"), (Rows{"top", "a"}));
}

struct QueueAllocation : QueueFolders {
  const LogCapture quiet{0};

  // A record goes in and comes out, the queue is saved and restored.
  void live() {
    PersistentDCRawBuffer queue(true);
    queue.DriverThreadStarted();
    queue.DbThreadStarted();
    unsigned char* data = nullptr;
    int length = 0;
    for (const char* text : {"one", "two", "three"})
      if (!add(queue, text)) throw std::runtime_error("not taken");
    if (!queue.ReadEntry(&data, &length)) throw std::runtime_error("not given");
    queue.DriverThreadShutDown();
    queue.DbThreadShutDown();
    if (!queue.IsSaveExact()) throw std::runtime_error("not saved");
  }
};

TEST_F(QueueAllocation, ThatFailsAnywhereIsAnErrorAndRecordsAreThereOrSaidToBeLost) {
  long k = 0;
  int errors = 0;
  for (End end{};; ++k) {
    SCOPED_TRACE("allocation " + std::to_string(k));
    ASSERT_LT(k, kMost);
    std::filesystem::remove_all(buffer);
    if (!failAllocation(
            k, [&] { live(); }, end))
      break;
    errors += end == End::kThrown;
    std::filesystem::create_directories(buffer);
    PersistentDCRawBuffer next(false);
    if (!next.IsRescanNeeded(nullptr)) {
      next.DriverThreadStarted();
      next.DbThreadStarted();
      unsigned char* data = nullptr;
      int length = 0;
      for (const char* text : {"two", "three"}) {
        ASSERT_TRUE(next.ReadEntry(&data, &length));
        EXPECT_EQ(asText(data, length), text);
      }
    }
    if (HasFailure()) break;
  }
  std::cout << "  " << k << " allocations, " << errors << " of which ended in an error\n";
}

}  // namespace
}  // namespace kddc::test
