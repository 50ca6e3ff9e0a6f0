// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How costs grow with the catalogue: of a row while a scan makes it, of a record applied, of a
// lookup, and of the query for a fixed number of changes.
//
//   growth_bench [--smoke]
//
// Works in $KDDC_BENCH_DIR (default /var/tmp); ten million rows take 6 GB there, and a minute or
// two.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <functional>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "agent/engine/catalogue_reader.h"
#include "agent/engine/new_catalogue.h"
#include "bench/bare_catalogue.h"
#include "bench/bare_journal.h"
#include "bench/journal_stream.h"
#include "bench/mixed_records.h"
#include "bench/results.h"
#include "bench/scanned_catalogue.h"
#include "catalogue/db_access.h"
#include "catalogue/file_type.h"
#include "journal/apply_journal.h"
#include "platform/platform_info.h"

using kddc::CatalogueReader;
using kddc::bench::BareJournal;
using kddc::bench::Figure;
using kddc::bench::Folder;
using kddc::bench::kDatabases;
using kddc::bench::Order;
using kddc::bench::Ratio;
using kddc::bench::Stream;
using kddc::bench::Tree;
using kddc::bench::Volume;

namespace {

constexpr char kVolume[] = "/volume";
constexpr long long kChangeTime = 4200000000;  // later than every other stamp

using Clock = std::chrono::steady_clock;

double secondsFor(const std::function<void()>& work) {
  const auto began = Clock::now();
  work();
  return std::chrono::duration<double>(Clock::now() - began).count();
}

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

// What a scan finds in row `row` of the tree.
StatFidName_s entryAt(unsigned row) {
  StatFidName_s entry{};
  entry.fid = kddc::bench::fidOf(row);
  entry.name = row == 0 ? kVolume : Tree::name(row);
  entry.st.st_mode = Tree::isFolder(row) ? 040755 : 0100644;
  entry.st.st_nlink = 1;
  entry.st.st_size = 4096;
  entry.st.st_blocks = 8;
  entry.st.st_atime = entry.st.st_mtime = entry.st.st_ctime = kddc::bench::kLastScan;
  return entry;
}

// Applies as the program does.
class Kddc {
 public:
  explicit Kddc(const std::string& folder) : db_(folder) {
    require(db_.OpenHandle(false, false), "the catalogue does not open");
  }
  ~Kddc() { db_.CloseHandle(0, false); }
  void apply(const FlrJrnCommandRaw& record) {
    require(ApplyJournal(&db_, record), "a record is not applied");
  }
  void commit() { db_.Commit(); }

 private:
  DCSqliteDB db_;
};

// One catalogue, and what it costs to do one thing to it.
class Grown {
 public:
  Grown(unsigned rows, unsigned records, unsigned changes)
      : rows_(rows), records_(records), changes_(changes) {}

  // Until it is indexed, on the disk, and in its place.
  double newRow() {
    kddc::NewCatalogue made(original(), kVolume);
    kddc::ScanCatalogue& db = made.rows();
    const std::time_t now = std::time(nullptr);
    const double seconds = secondsFor([&] {
      for (unsigned row = 0; row < rows_; ++row) {
        StatFidName_s entry = entryAt(row);
        const unsigned long long parent = row == 0 ? 0 : Tree::parent(row) + 1;
        require(db.insertRow(entry, parent, kddc::kDeriveFromMode) == row + 1,
                "a row is out of order");
      }
      made.publish(now);
    });
    return seconds / rows_;
  }

  template <class Target, Order order>
  double record() {
    const std::string copy = copyOfOriginal();
    Volume volume(rows_, order);
    while (volume.stream().count() < records_) kddc::bench::mix(volume);
    const double seconds = applied<Target>(volume.stream(), copy);
    std::filesystem::remove_all(copy);
    return seconds / static_cast<double>(volume.stream().count());
  }

  double lookupByIdentifier() {
    return lookup([](DCSqliteDB& db, unsigned row) {
      const fsf_fid fid = kddc::bench::fidOf(row);
      unsigned long long inode = 0;
      db.GetFidTuple(&fid, nullptr, &inode, nullptr, nullptr, nullptr, nullptr);
      return inode;
    });
  }
  double lookupByName() {
    return lookup([](DCSqliteDB& db, unsigned row) {
      unsigned long long inode = 0;
      db.GetRowIdAndFileType(Tree::parent(row) + 1, Tree::name(row).c_str(), &inode, nullptr,
                             nullptr);
      return inode;
    });
  }

  // The shortest of a few.
  double query() {
    stampSome();
    double best = 1e9;
    for (int i = 0; i < 5; ++i) best = std::min(best, secondsFor([&] { queryOnce(); }));
    return best;
  }

 private:
  std::string original() const { return folder_.catalogue(); }

  // What is applied is applied once.
  std::string copyOfOriginal() const {
    std::string copy = original() + "-copy";
    std::filesystem::create_directory(copy);
    for (const char* name : kDatabases) {
      std::filesystem::copy_file(original() + name, copy + name);
      kddc::bench::flushToDisk(copy + name);
    }
    return copy;
  }

  template <class Target>
  static double applied(const Stream& stream, const std::string& catalogue) {
    Target target(catalogue);
    return secondsFor([&] {
      stream.forEach([&](const FlrJrnCommandRaw& record) { target.apply(record); });
      target.commit();
    });
  }

  // Warm: as many were made before. Of entries in small folders: the root's grows with the
  // catalogue.
  template <class Find>
  double lookup(const Find& find) {
    DCSqliteDB db(original());
    require(db.OpenHandle(false, false), "the catalogue does not open");
    std::mt19937 random(2);
    const auto findAll = [&] {
      for (unsigned i = 0; i < records_; ++i) {
        const unsigned row = Tree::file(static_cast<unsigned>(random() % Tree{rows_}.files()));
        require(find(db, row) == row + 1, "a lookup found another row");
      }
    };
    findAll();
    const double seconds = secondsFor(findAll);
    db.CloseHandle(0, false);
    return seconds / records_;
  }

  void stampSome() const {
    kddc::bench::BareDatabase files(original() + kDatabases[0]);
    files.exec(("UPDATE FILES SET TIME=" + std::to_string(kChangeTime - (1LL << 32)) +
                " WHERE INODE%" + std::to_string(rows_ / changes_) + "=0")
                   .c_str());
  }
  void queryOnce() const {
    CatalogueReader reader(original(), kVolume, CatalogueReader::Columns::kPath);
    unsigned found = 0;
    reader.readSince(kChangeTime, [&](const kddc::CatalogueRow&) { ++found; });
    require(found == changes_, "the query found more or less than has changed");
  }

  Folder folder_;
  unsigned rows_, records_, changes_;
};

struct Cost {
  const char* what;
  double (Grown::*measure)();
};

// In this order: a query marks rows as changed.
constexpr Cost kCosts[] = {
    {"an entry scanned into a new catalogue", &Grown::newRow},
    {"a record applied, near", &Grown::record<Kddc, Order::kNear>},
    {"the same by bare SQLite, near", &Grown::record<BareJournal, Order::kNear>},
    {"a record applied, far", &Grown::record<Kddc, Order::kFar>},
    {"the same by bare SQLite, far", &Grown::record<BareJournal, Order::kFar>},
    {"a lookup by identifier", &Grown::lookupByIdentifier},
    {"a lookup by name", &Grown::lookupByName},
    {"a query for a thousand changes", &Grown::query},
};

void measure(std::span<const unsigned> sizes, unsigned records, unsigned changes) {
  std::vector<double> first;
  for (const unsigned rows : sizes) {
    Grown grown(rows, records, changes);
    for (std::size_t i = 0; i < std::size(kCosts); ++i) {
      const auto& [what, measure] = kCosts[i];
      Figure figure = {.table = "growth", .what = what, .ours = (grown.*measure)()};
      figure.column = kddc::bench::withCommas(rows) + " rows";
      kddc::bench::report(figure);
      if (rows == sizes.front()) first.push_back(figure.ours);
      if (rows != sizes.back()) continue;
      figure.column = "last over first";
      figure.beside = kddc::bench::withCommas(sizes.front()) + " rows";
      figure.theirs = first[i];
      figure.ratio = Ratio::kTimesAsLong;
      kddc::bench::report(figure);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  KDPlatformInfo::setDefault("DataClassification", "SqlitePageSize", "4096");  // the program's
  KDPlatformInfo::setDefault("DataClassification", "SortedInsertMapSize", "20000");
  const bool smoke = argc > 1 && argv[1] == std::string_view("--smoke");
  static constexpr unsigned kSizes[] = {100000, 1000000, 10000000}, kSmallSizes[] = {2000, 4000};
  try {
    if (smoke)
      measure(kSmallSizes, 200, 100);
    else
      measure(kSizes, 200000, 1000);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "growth_bench: %s\n", e.what());
    return 1;
  }
}
