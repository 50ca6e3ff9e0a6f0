// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The road of a recorded file, on any bytes: found in the file, checked, decoded, applied to a
// small catalogue that coalesces records. Nothing may leave that road but a count, and what is of
// no matter to a catalogue changes nothing. Each input meets the same catalogue: what it wrote is
// rolled back.
#include <sqlite3.h>

#include <cstring>
#include <exception>
#include <span>
#include <string>
#include <vector>

#include "agent/engine/record_file.h"
#include "journal/apply_journal.h"
#include "journal/cumulative_journal.h"
#include "platform/platform_info.h"
#include "records/journal_record.h"
#include "support/journal_stats.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/temp_folder.h"

using kddc::fuzz::require;

namespace {

struct Row {
  unsigned char fid;
  unsigned long long parent;
  const char* name;
  unsigned int mode;
};
// The identifiers and names of the seeds, so that their records find something.
constexpr Row kRows[] = {{0x01, 0, "/volume", 040755}, {0xa1, 1, "a", 040755},
                         {0xb2, 2, "ab", 0100644},     {0xc3, 2, "xyz", 0100644},
                         {0xd4, 1, "d", 040755},       {0xb2, 5, "ab", 0100644}};

class Catalogue : public CumulativeJournal {
 public:
  explicit Catalogue(const std::string& folder) : CumulativeJournal(folder) {
    CreateDb();
    require(OpenHandle(false, false));
    for (const Row& row : kRows) {
      StatFidName_s entry{};
      std::memset(entry.fid.data, row.fid, sizeof entry.fid.data);
      entry.name = row.name;
      entry.st.st_mode = row.mode;
      Insert(&entry, row.parent, 7);
    }
    Commit();
  }
  void mark() { both("SAVEPOINT input"); }
  void rollBack() {
    journalMap.clear();
    both("ROLLBACK TO input; RELEASE input");
  }
  // Counts what was written or is about to be.
  std::size_t changes() const {
    return journalMap.size() + static_cast<std::size_t>(sqlite3_total_changes(filesDb->handle)) +
           static_cast<std::size_t>(sqlite3_total_changes(fidDb->handle));
  }

 private:
  void both(const char* sql) {
    for (const auto& db : {filesDb->handle, fidDb->handle})
      require(sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK);
  }
};

// Made once, in memory where the host allows it, and never committed after that.
Catalogue& catalogue() {
  static const kddc::test::TempFolder folder = [] {
    for (const char* key : {"CommitEveryRows", "CommitEveryMilliseconds"})
      KDPlatformInfo::setDefault("DataClassification", key, "1000000000");
    kddc::fuzz::sayNothing();
    return kddc::test::TempFolder(kddc::test::inMemory());
  }();
  static Catalogue catalogue(folder / "catalogue");
  return catalogue;
}

void take(std::span<const unsigned char> bytes) {
  // A copy, so that a read beyond the record is one beyond the buffer.
  const std::vector<unsigned char> wire(bytes.begin(), bytes.end());
  FlrJrnCommandRaw record;
  require(decodeRawCmd(wire.data(), &record) == 0);
  const auto before = catalogue().changes();
  const bool applied = ApplyJournal(&catalogue(), record);
  if (kddc::changesCatalogue(record.cmd)) return;
  require(applied && catalogue().changes() == before);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const kddc::fuzz::InputFile input(data, size);
  catalogue().mark();
  kddc::RecordFile file(input.path(), kddc::RecordFormat::kByContent);
  while (const auto piece = file.next())
    if (piece->damage.empty()) take(piece->bytes);
  try {
    catalogue().FlushAllJournals();
  } catch (const std::exception&) {  // of a row that a damaged catalogue lacks; logged before
  }
  catalogue().rollBack();
  JournalPerfStatMap_g.clear();
  return 0;
}

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
  size = LLVMFuzzerMutate(data, size, maxSize);
  if (seed % 2 != 0) kddc::fuzz::putRecordLengthRight(data, size);
  return size;
}
