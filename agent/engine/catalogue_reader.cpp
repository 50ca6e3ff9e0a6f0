// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Readers take no lock: each database is read within one transaction, which shows one commit
// however long it takes.
#include "agent/engine/catalogue_reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <utility>

#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_header.h"
#include "agent/engine/folder_paths.h"
#include "agent/engine/sqlite_query.h"
#include "agent/errors.h"
#include "platform/exceptions.h"
#include "platform/unique_fd.h"
#include "records/fsf_fid.h"

namespace kddc {
namespace {

// How often a reader begins anew because the catalogue is replaced under its hands: a scan does so
// once, and then takes its time.
constexpr int kAttempts = 20;

// Stamps are stored as signed 32-bit numbers and meant as unsigned ones. Most rows are passed over,
// and SQLite compares in less time than it computes.
constexpr char kSince[] = " WHERE TIME NOT BETWEEN 0 AND ?1-1 AND (TIME & 4294967295) >= ?1";

// What says nothing about the file.
bool mayPass(const UDCException& e) {
  const int code = e.GetErrorNumber() & 0xff;
  return code == SQLITE_NOMEM || code == SQLITE_IOERR || code == SQLITE_FULL || code == SQLITE_BUSY;
}

constexpr char kPathColumns[] = "SELECT INODE,PINODE,NAME FROM FILES";
constexpr char kAllColumns[] =
    "SELECT INODE,PINODE,NAME,FILE_TYPE,MODE,UID,GID,NLINK,SIZE,BLOCKSUSED,ATIME,MTIME,CTIME,TIME,"
    "FID_ROWID FROM FILES";

}  // namespace

class CatalogueReader::View {
 public:
  View(std::string folder, std::string volumePath, Columns columns);

  void read(const std::optional<long long>& since, const RowSink& sink);
  std::uint64_t count();
  bool isKept() const { return !header_.graceful; }
  std::time_t scanned() const { return header_.scanned; }

 private:
  enum class Taken { kYes, kReplacedMeanwhile };

  Taken take();
  void openDatabases();
  void requireUsable();
  void fill(const Query& query, CatalogueRow& row);
  std::optional<fsf_fid> fidOf(std::int64_t fidRowId);
  // Runs `work`; what SQLite refuses becomes a sentence.
  template <class Work>
  decltype(auto) reading(Work&& work) const {
    try {
      return std::forward<Work>(work)();
    } catch (const UDCException& e) {
      failReading(e);
    }
  }
  [[noreturn]] void failReading(const UDCException& e) const;
  [[noreturn]] void refuse(const std::string& why) const;

  std::string folder_;
  std::string volumePath_;
  Columns columns_;
  CatalogueHeader header_;
  std::optional<ReadConnection> files_, fids_;
  std::optional<Query> fid_;
};

CatalogueReader::View::View(std::string folder, std::string volumePath, Columns columns)
    : folder_(std::move(folder)), volumePath_(std::move(volumePath)), columns_(columns) {
  for (int attempt = 0; attempt < kAttempts; ++attempt)
    if (reading([&] { return take(); }) == Taken::kYes) return;
  throw Failure(folder_ + " is being replaced again and again; try later");
}

// Both databases must be of one catalogue: a scan may exchange the folder between two openings.
CatalogueReader::View::Taken CatalogueReader::View::take() {
  const UniqueFd before(open(folder_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat then, now;
  if (!before || fstat(before.get(), &then) != 0)
    refuse(fmt::format("there is no catalogue for {} in {}", volumePath_, folder_));
  openDatabases();
  const bool isAbandoned = !header_.graceful && !kddc::isKept(folder_);
  if (stat(folder_.c_str(), &now) != 0 || then.st_ino != now.st_ino || then.st_dev != now.st_dev)
    return Taken::kReplacedMeanwhile;
  // It may have been closed between our look at the flag and our look at the lock.
  if (isAbandoned && readHeader(ReadConnection(folder_ + kFilesDatabase)).graceful)
    return Taken::kReplacedMeanwhile;
  if (isAbandoned) refuse(fmt::format("the catalogue in {} was not closed properly", folder_));
  return Taken::kYes;
}

void CatalogueReader::View::openDatabases() {
  fid_.reset();
  if (access((folder_ + kFilesDatabase).c_str(), F_OK) != 0 && errno == ENOENT)
    refuse(fmt::format("there is no catalogue for {} in {}", volumePath_, folder_));
  files_.emplace(folder_ + kFilesDatabase);
  files_->run("BEGIN");
  header_ = readHeader(*files_);
  requireUsable();
  if (columns_ == Columns::kPath) return;
  // Second: a writer commits identifiers first, so every one that FILES names is here.
  fids_.emplace(folder_ + kFidDatabase);
  fids_->run("BEGIN");
  fid_.emplace(*fids_, "SELECT FID1,FID2,FID3,FID4 FROM FIDS WHERE FIDS_ROWID=?1");
  fid_->bind(0).step();  // the transaction begins with the first read
}

// A catalogue that somebody keeps is open and not closed properly; that is looked at elsewhere.
void CatalogueReader::View::requireUsable() {
  if (header_.version != kCatalogueVersion)
    refuse(fmt::format("the catalogue in {} is of version '{}', not {}", folder_, header_.version,
                       kCatalogueVersion));
  if (!header_.fullScan) refuse(fmt::format("the first scan of {} has not finished", volumePath_));
  if (header_.volume != volumePath_)
    throw Failure(fmt::format("{} holds the catalogue of {}, not of {}", folder_, header_.volume,
                              volumePath_));
}

void CatalogueReader::View::read(const std::optional<long long>& since, const RowSink& sink) {
  reading([&] {
    std::string sql = columns_ == Columns::kPath ? kPathColumns : kAllColumns;
    if (since) sql += kSince;
    Query query(*files_, sql.c_str());
    if (since) query.bind(*since);
    FolderPaths folders(*files_);  // rows of one folder mostly follow each other
    CatalogueRow row;
    std::string path;
    while (query.step()) {
      const std::int64_t parent = query.integer(1);
      if (parent == 0) {
        path.assign(1, '.');
      } else {
        const std::string* prefix = folders.prefixOf(parent);
        if (!prefix) continue;
        requireName(query.text(2), query.integer(0));
        path.assign(*prefix).append(query.text(2));
      }
      row.path = path;
      if (columns_ == Columns::kAll) fill(query, row);
      sink(row);
    }
  });
}

std::uint64_t CatalogueReader::View::count() {
  return reading([&] {
    Query query(*files_, "SELECT COUNT(*) FROM FILES");
    return query.step() ? static_cast<std::uint64_t>(query.integer(0)) : 0;
  });
}

void CatalogueReader::View::fill(const Query& query, CatalogueRow& row) {
  row.type = static_cast<int>(query.integer(3));
  row.mode = query.word(4);
  row.uid = query.word(5);
  row.gid = query.word(6);
  row.nlink = query.word(7);
  row.size = query.integer(8);
  row.blocks = query.integer(9);
  row.atime = query.word(10);
  row.mtime = query.word(11);
  row.ctime = query.word(12);
  row.time = query.word(13);
  row.fid = fidOf(query.integer(14));
}

std::optional<fsf_fid> CatalogueReader::View::fidOf(std::int64_t fidRowId) {
  if (!fid_->bind(fidRowId).step()) return std::nullopt;
  unsigned long long pieces[4];
  for (int i = 0; i < 4; ++i) pieces[i] = static_cast<unsigned long long>(fid_->integer(i));
  fid_->reset();
  fsf_fid fid{};
  GetBlobForInt(pieces, &fid);
  return fid;
}

// What SQLite says of the file is put down to the catalogue, which can be made anew; the rest may
// pass.
void CatalogueReader::View::failReading(const UDCException& e) const {
  switch (e.GetErrorNumber() & 0xff) {
    case SQLITE_NOTADB:
    case SQLITE_ERROR:  // no such table, no such column
      refuse(fmt::format("{} holds no catalogue ({})", folder_, e.GetMessage()));
    case SQLITE_CORRUPT:
      refuse(fmt::format("the catalogue in {} is damaged ({})", folder_, e.GetMessage()));
    default:
      throw Failure(
          fmt::format("cannot read the catalogue in {}: {}", folder_, describeCurrentException()));
  }
}

void CatalogueReader::View::refuse(const std::string& why) const {
  throw Failure(fmt::format("{}; make a new one with: kddc scan {}", why, volumePath_));
}

CatalogueReader::CatalogueReader(std::string folder, std::string volumePath, Columns columns)
    : view_(std::make_unique<View>(std::move(folder), std::move(volumePath), columns)) {}
CatalogueReader::~CatalogueReader() = default;

void CatalogueReader::readAll(const RowSink& sink) {
  view_->read(std::nullopt, sink);
}
void CatalogueReader::readSince(long long since, const RowSink& sink) {
  view_->read(since, sink);
}
std::uint64_t CatalogueReader::count() {
  return view_->count();
}
bool CatalogueReader::isKept() const {
  return view_->isKept();
}
std::time_t CatalogueReader::scanned() const {
  return view_->scanned();
}

std::optional<std::string> volumeOf(const std::string& folder) {
  try {
    const std::string volume = readHeader(ReadConnection(folder + kFilesDatabase)).volume;
    if (!volume.empty()) return volume;
  } catch (const UDCException& e) {  // no catalogue, or one that nobody can read, belongs to none
    if (mayPass(e))
      throw Failure(fmt::format("cannot tell whose catalogue is in {}: {}", folder,
                                describeCurrentException()));
  } catch (const Failure&) {  // nor does a link
  }
  return std::nullopt;
}

}  // namespace kddc
