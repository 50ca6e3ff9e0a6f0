// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The road of a recorded file, on any bytes: found in the file, checked, decoded, printed, applied
// to a small catalogue. Nothing may leave that road but a count. Each input meets the same
// catalogue: what it wrote is rolled back.
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agent/engine/record_file.h"
#include "catalogue/db_access.h"
#include "journal/apply_journal.h"
#include "platform/ev_debug.h"
#include "platform/platform_info.h"
#include "platform/unique_fd.h"
#include "records/journal_record.h"
#include "support/journal_stats.h"
#include "tests/support/temp_folder.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

// Not assert, which a release build drops.
void require(bool holds) {
  if (!holds) std::abort();
}

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

class Catalogue : public DCSqliteDB {
 public:
  explicit Catalogue(const std::string& folder) : DCSqliteDB(folder) {
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
  void rollBack() { both("ROLLBACK TO input; RELEASE input"); }

 private:
  void both(const char* sql) {
    for (const auto& db : {filesDb->handle, fidDb->handle})
      require(sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK);
  }
};

// Made once, in memory where the host allows it, and never committed after that.
Catalogue& catalogue() {
  static const kddc::test::TempFolder folder = [] {
    if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
    for (const char* key : {"CommitEveryRows", "CommitEveryMilliseconds"})
      KDPlatformInfo::setDefault("DataClassification", key, "1000000000");
    dbg.SetSink([](const EvDebug::Line&) {});
    return kddc::test::TempFolder();
  }();
  static Catalogue catalogue(folder / "catalogue");
  return catalogue;
}

void print(const FlrJrnCommandRaw& record, unsigned int size) {
  std::vector<char> text(size);  // exactly as large: a write beyond it is seen
  require(printRawCmd(text.data(), size, &record) == &text.back());
  require(text.back() == '\0');
}

void replay(const std::string& path) {
  kddc::RecordFile file(path, kddc::RecordFormat::kByContent);
  while (const auto piece = file.next()) {
    if (!piece->damage.empty()) continue;
    // A copy, so that a read beyond the record is one beyond the buffer.
    const std::vector<unsigned char> wire(piece->bytes.begin(), piece->bytes.end());
    FlrJrnCommandRaw record;
    require(decodeRawCmd(wire.data(), &record) == 0);
    for (const unsigned int size : {1U, 10U, 200U, 8192U}) print(record, size);
    ApplyJournal(&catalogue(), record);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const kddc::UniqueFd memory(memfd_create("input", MFD_CLOEXEC));
  require(write(memory.get(), data, size) == static_cast<ssize_t>(size));
  catalogue().mark();
  replay("/proc/self/fd/" + std::to_string(memory.get()));
  catalogue().rollBack();
  JournalPerfStatMap_g.clear();
  return 0;
}

// Most mutations make the first length a lie, and nothing would be applied. So it is put right, for
// one record alone, half of the time.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
  size = LLVMFuzzerMutate(data, size, maxSize);
  if (size >= 4 && seed % 2 != 0) {
    data[1] = static_cast<uint8_t>(size >> 16);
    data[2] = static_cast<uint8_t>(size >> 8);
    data[3] = static_cast<uint8_t>(size);
  }
  return size;
}
