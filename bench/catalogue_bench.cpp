// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Rows of the catalogue: insert and lookups, each beside its floor, the same SQL with the same
// settings on bare SQLite connections.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "bench/ratios.h"
#include "catalogue/db_access.h"
#include "records/fsf_fid.h"

namespace {

// The settings of platform/udc_dbms.cpp.
constexpr int kGroup = 20000;
constexpr int kCacheKiB = 64 * 1024;
constexpr int kWalPages = 16 * 1024;

constexpr int kWarmUp = 100000;  // lookups

// A folder on the disk that the benchmark measures, gone afterwards.
class Folder {
 public:
  Folder() {
    const char* base = std::getenv("KDDC_BENCH_DIR");
    path_ = std::string(base ? base : "/var/tmp") + "/kddc-bench-XXXXXX";
    if (!mkdtemp(path_.data())) std::abort();
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  std::string catalogue() const { return path_ + "/catalogue"; }

 private:
  std::string path_;
};

// Identifiers as ext4 gives them, in an order that has nothing to do with their values.
const std::vector<fsf_fid>& identifiers(std::size_t count) {
  static std::vector<fsf_fid> all;
  if (all.size() == count) return all;
  all.assign(count, {});
  std::vector<unsigned> numbers(count);
  std::iota(numbers.begin(), numbers.end(), 12U);
  std::mt19937 random(1);
  std::shuffle(numbers.begin(), numbers.end(), random);
  for (std::size_t i = 0; i < count; ++i) {
    all[i].data[0] = 1;
    all[i].data[1] = 8;
    const unsigned handle[2] = {numbers[i], static_cast<unsigned>(random())};
    std::copy_n(reinterpret_cast<const unsigned char*>(handle), 8, all[i].data + 4);
  }
  return all;
}

unsigned long long parentOf(std::size_t i) {
  return i / 100 + 1;
}

std::string nameOf(std::size_t i) {
  return "document-" + std::to_string(i) + ".txt";
}

StatFidName_s entryAt(std::size_t i, const fsf_fid& fid) {
  StatFidName_s entry{};
  entry.fid = fid;
  entry.name = nameOf(i);
  entry.st.st_mode = 0100644;
  entry.st.st_nlink = 1;
  entry.st.st_size = static_cast<off_t>(i % 100000);
  entry.st.st_blocks = 8;
  entry.st.st_atime = entry.st.st_mtime = entry.st.st_ctime = 4000000000;
  return entry;
}

// The floor: what a program would write that knows nothing but SQLite.
class Bare {
 public:
  explicit Bare(const std::string& folder) {
    files_ = open(folder + "/.db.kd");
    fids_ = open(folder + "/.fid.kd");
    insertFile_ = prepare(files_,
                          "INSERT INTO FILES (PINODE,MODE,NLINK,UID,GID,SIZE,BLOCKSUSED,ATIME,"
                          "MTIME,CTIME,TIME,FILE_TYPE,NAME,FID_ROWID) VALUES ( "
                          "?1,?2,?3,?4,?5,?6,?7,?8,?9,?10,?11,?12,?13,?14)");
    updateSize_ = prepare(files_, "UPDATE FILES SET SIZE=?1,BLOCKSUSED=?2 WHERE INODE=?3");
    insertFid_ = prepare(fids_,
                         "INSERT INTO FIDS (FILES_ROWID,SEQNUM,RESCAN,FID1,FID2,FID3,FID4) VALUES "
                         "(?1,?6,0,?2,?3,?4,?5)");
    updateSeq_ = prepare(fids_, "UPDATE FIDS SET SEQNUM=?1 WHERE FIDS_ROWID=?2");
    getFid_ = prepare(fids_,
                      "SELECT FIDS_ROWID,FILES_ROWID,SEQNUM,RESCAN FROM FIDS WHERE FID1=?1 AND "
                      "FID2=?2 AND FID3=?3 AND FID4=?4");
    getRow_ =
        prepare(files_, "SELECT INODE,FILE_TYPE,FID_ROWID FROM FILES WHERE PINODE=?1 AND NAME=?2");
  }
  ~Bare() {
    exec("COMMIT");
    for (sqlite3_stmt* s : {insertFile_, updateSize_, insertFid_, updateSeq_, getFid_, getRow_})
      sqlite3_finalize(s);
    sqlite3_close(files_);
    sqlite3_close(fids_);
  }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  void insert(const StatFidName_s& e, unsigned long long parent) {
    sqlite3_bind_int64(insertFile_, 1, static_cast<long long>(parent));
    const int numbers[] = {static_cast<int>(e.st.st_mode), static_cast<int>(e.st.st_nlink), 0, 0};
    for (int i = 0; i < 4; ++i) sqlite3_bind_int(insertFile_, 2 + i, numbers[i]);
    sqlite3_bind_int64(insertFile_, 6, INT64_MAX);
    sqlite3_bind_int64(insertFile_, 7, INT64_MAX);
    for (int i = 8; i <= 11; ++i) sqlite3_bind_int(insertFile_, i, static_cast<int>(4000000000U));
    sqlite3_bind_int(insertFile_, 12, 0);
    sqlite3_bind_text(insertFile_, 13, e.name.data(), static_cast<int>(e.name.size()),
                      SQLITE_STATIC);
    sqlite3_bind_int64(insertFile_, 14, sqlite3_last_insert_rowid(fids_) + 1);
    step(insertFile_);
    const long long inode = sqlite3_last_insert_rowid(files_);
    sqlite3_bind_int64(updateSize_, 1, e.st.st_size);
    sqlite3_bind_int64(updateSize_, 2, e.st.st_blocks);
    sqlite3_bind_int64(updateSize_, 3, inode);
    step(updateSize_);
    sqlite3_bind_int64(insertFid_, 1, inode);
    bindFid(insertFid_, 2, e.fid);
    sqlite3_bind_int64(insertFid_, 6, 0);
    step(insertFid_);
    sqlite3_bind_int64(updateSeq_, 1, 0);
    sqlite3_bind_int64(updateSeq_, 2, sqlite3_last_insert_rowid(fids_));
    step(updateSeq_);
    if (++inGroup_ * 2 == kGroup) {
      exec("COMMIT; BEGIN");
      inGroup_ = 0;
    }
  }

  long long inodeOf(const fsf_fid& fid) {
    bindFid(getFid_, 1, fid);
    return lastOf(getFid_, 1);
  }
  long long inodeOf(unsigned long long parent, const std::string& name) {
    sqlite3_bind_int64(getRow_, 1, static_cast<long long>(parent));
    sqlite3_bind_text(getRow_, 2, name.data(), static_cast<int>(name.size()), SQLITE_STATIC);
    const bool found = sqlite3_step(getRow_) == SQLITE_ROW;  // names are unique in their folder
    const long long inode = found ? sqlite3_column_int64(getRow_, 0) : -1;
    sqlite3_reset(getRow_);
    return inode;
  }

 private:
  sqlite3* open(const std::string& path) {
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    const std::string settings =
        "PRAGMA journal_mode=WAL; PRAGMA synchronous=1; PRAGMA cache_size=-" +
        std::to_string(kCacheKiB) + "; PRAGMA wal_autocheckpoint=" + std::to_string(kWalPages) +
        "; BEGIN";
    sqlite3_exec(db, settings.c_str(), nullptr, nullptr, nullptr);
    return db;
  }
  static sqlite3_stmt* prepare(sqlite3* db, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    return statement;
  }
  void exec(const char* sql) {
    sqlite3_exec(files_, sql, nullptr, nullptr, nullptr);
    sqlite3_exec(fids_, sql, nullptr, nullptr, nullptr);
  }
  static void bindFid(sqlite3_stmt* statement, int first, const fsf_fid& fid) {
    unsigned long long pieces[4];
    unsigned long long* out = pieces;
    GetIntForBlob(&fid, &out);
    for (int i = 0; i < 4; ++i)
      sqlite3_bind_int64(statement, first + i, static_cast<long long>(pieces[i]));
  }
  static void step(sqlite3_stmt* statement) {
    if (sqlite3_step(statement) != SQLITE_DONE) std::abort();
    sqlite3_reset(statement);
  }
  static long long lastOf(sqlite3_stmt* statement, int column) {
    long long value = -1;
    while (sqlite3_step(statement) == SQLITE_ROW) value = sqlite3_column_int64(statement, column);
    sqlite3_reset(statement);
    return value;
  }

  sqlite3 *files_, *fids_;
  sqlite3_stmt *insertFile_, *updateSize_, *insertFid_, *updateSeq_, *getFid_, *getRow_;
  int inGroup_ = 0;
};

void Insert(benchmark::State& state) {
  const auto& fids = identifiers(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    const Folder folder;
    DCSqliteDB db(folder.catalogue());
    db.CreateDb();
    db.OpenHandle(false, false);
    state.ResumeTiming();
    for (std::size_t i = 0; i < fids.size(); ++i) {
      StatFidName_s entry = entryAt(i, fids[i]);
      db.Insert(&entry, parentOf(i), 7);
    }
    db.Commit();
    state.PauseTiming();
    db.CloseHandle(0, false);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BareInsert(benchmark::State& state) {
  const auto& fids = identifiers(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    const Folder folder;
    DCSqliteDB(folder.catalogue()).CreateDb();
    {
      Bare bare(folder.catalogue());
      state.ResumeTiming();
      for (std::size_t i = 0; i < fids.size(); ++i) bare.insert(entryAt(i, fids[i]), parentOf(i));
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// A catalogue of as many rows, filled once for all lookups; each connection has filled its cache.
struct Filled {
  explicit Filled(std::size_t rows) : fids(identifiers(rows)), db(folder.catalogue()) {
    db.CreateDb();
    db.OpenHandle(false, false);
    for (std::size_t i = 0; i < rows; ++i) {
      StatFidName_s entry = entryAt(i, fids[i]);
      db.Insert(&entry, parentOf(i), 7);
    }
    db.Commit();
    bare = std::make_unique<Bare>(folder.catalogue());
    std::mt19937 random(3);
    for (int i = 0; i < kWarmUp; ++i) {
      const std::size_t row = random() % rows;
      ours(row);
      ours(parentOf(row), nameOf(row));
      bare->inodeOf(fids[row]);
      bare->inodeOf(parentOf(row), nameOf(row));
    }
  }

  unsigned long long ours(std::size_t row) {
    unsigned long long inode = 0;
    db.GetFidTuple(&fids[row], nullptr, &inode, nullptr, nullptr, nullptr, nullptr);
    return inode;
  }
  unsigned long long ours(unsigned long long parent, const std::string& name) {
    unsigned long long inode = 0;
    db.GetRowIdAndFileType(parent, name.c_str(), &inode, nullptr, nullptr);
    return inode;
  }

  Folder folder;
  const std::vector<fsf_fid>& fids;
  DCSqliteDB db;
  std::unique_ptr<Bare> bare;
};

Filled& filled(std::size_t rows) {
  static std::unique_ptr<Filled> catalogue;
  if (!catalogue || catalogue->fids.size() != rows) {
    catalogue.reset();
    catalogue = std::make_unique<Filled>(rows);
  }
  return *catalogue;
}

template <class Lookup>
void lookUp(benchmark::State& state, const Lookup& lookup) {
  const auto rows = static_cast<std::size_t>(state.range(0));
  std::mt19937 random(2);
  for (auto _ : state) benchmark::DoNotOptimize(lookup(random() % rows));
  state.SetItemsProcessed(state.iterations());
}

void LookupByIdentifier(benchmark::State& state) {
  Filled& catalogue = filled(static_cast<std::size_t>(state.range(0)));
  lookUp(state, [&](std::size_t i) { return catalogue.ours(i); });
}

void BareLookupByIdentifier(benchmark::State& state) {
  Filled& catalogue = filled(static_cast<std::size_t>(state.range(0)));
  lookUp(state, [&](std::size_t i) { return catalogue.bare->inodeOf(catalogue.fids[i]); });
}

void LookupByName(benchmark::State& state) {
  Filled& catalogue = filled(static_cast<std::size_t>(state.range(0)));
  lookUp(state, [&](std::size_t i) { return catalogue.ours(parentOf(i), nameOf(i)); });
}

void BareLookupByName(benchmark::State& state) {
  Filled& catalogue = filled(static_cast<std::size_t>(state.range(0)));
  lookUp(state, [&](std::size_t i) { return catalogue.bare->inodeOf(parentOf(i), nameOf(i)); });
}

BENCHMARK(Insert)->Arg(100000)->Arg(1000000)->Iterations(1)->Repetitions(3)->Unit(
    benchmark::kMillisecond);
BENCHMARK(BareInsert)
    ->Arg(100000)
    ->Arg(1000000)
    ->Iterations(1)
    ->Repetitions(3)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(LookupByIdentifier)->Arg(100000)->Arg(1000000);
BENCHMARK(BareLookupByIdentifier)->Arg(100000)->Arg(1000000);
BENCHMARK(LookupByName)->Arg(100000)->Arg(1000000);
BENCHMARK(BareLookupByName)->Arg(100000)->Arg(1000000);

}  // namespace

int main(int argc, char** argv) {
  std::vector<kddc::Ratio> ratios;
  for (const char* what : {"Insert", "LookupByIdentifier", "LookupByName"})
    for (const char* rows : {"/100000", "/1000000"}) {
      const std::string ours = std::string(what) + rows;
      ratios.push_back({ours, "Bare" + ours});
    }
  return kddc::runWithRatios(argc, argv, ratios);
}
