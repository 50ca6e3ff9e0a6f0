// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/quiet_rescan.h"

#include <fmt/format.h>

#include <utility>
#include <vector>

#include "agent/engine/catalogue_folder.h"
#include "agent/errors.h"
#include "agent/live/record_spool.h"
#include "agent/live/strays.h"
#include "driver/found_records.h"
#include "driver/record_mask.h"

namespace kddc {
namespace {

// The catalogue's lock, held while nothing is written: the mark that it is closed stays.
class Hold {
 public:
  explicit Hold(const std::string& folder) : db_(folder) {
    if (db_.OpenHandle(true, false)) return;
    const auto user = userOf(folder);
    throw Failure(
        fmt::format("{} is in use by {}; stop it first", folder, user ? *user : "another process"));
  }
  void release() { db_.CloseHandle(0, true); }

 private:
  DCSqliteDB db_;
};

// Nothing is asked: the walk brings everything.
class NoQuestions : public DiskQuestions {
 public:
  void list(const fsf_fid& /*folder*/) override {}
  void look(const fsf_fid& /*folder*/, const std::string& /*name*/) override {}
  void lookAt(const fsf_fid& /*file*/) override {}
};

// What differs, as records.
class Differences : public Suspicions {
 public:
  explicit Differences(const std::string& folder) : absent_(folder), found_(folder) {}

  void identity(const WalkedEntry& folder, std::int64_t inode) override {
    identities_.push_back({static_cast<unsigned long long>(inode), folder.fid});
  }
  void name(const fsf_fid& folder, const WalkedEntry& entry) override {
    name_ = entry.name;
    found_.add(presentRecord({folder, name_.c_str()}, {entry.fid, entry.st}));
    addAttributes(entry);
  }
  void attributes(const WalkedEntry& entry) override { addAttributes(entry); }
  void absent(const fsf_fid& folder, std::string_view name) override {
    name_ = name;
    absent_.add(absentRecord({folder, name_.c_str()}));
  }
  void row(std::int64_t inode) override { rows_.push_back(static_cast<unsigned long long>(inode)); }

  bool none() const {
    return identities_.empty() && rows_.empty() && absent_.records() == 0 && found_.records() == 0;
  }
  void applyTo(LiveCatalogue& rows, Settle& settle);

 private:
  struct Identity {
    unsigned long long inode;
    fsf_fid fid;
  };

  void addAttributes(const WalkedEntry& entry) {
    const FoundFile file{entry.fid, entry.st};
    found_.add(attributesRecord(file));
    if (S_ISREG(entry.st.st_mode)) found_.add(stubRecord(file, entry.isStub));
    if (RecordMask::of(entry.st.st_nlink, false).hasManyLinks()) found_.add(linkCountRecord(file));
  }

  std::vector<Identity> identities_;
  std::vector<unsigned long long> rows_;
  RecordSpool absent_, found_;
  std::string name_;
};

// Identifiers first, by which everything else is found; names that are gone before those that are
// there, so that a file that moved is met as a parked row and keeps its number.
void Differences::applyTo(LiveCatalogue& rows, Settle& settle) {
  for (const auto& [inode, fid] : identities_)
    if (auto row = rows.rowAt(inode)) rows.readopt(*row, fid);
  for (const unsigned long long inode : rows_) settle.unname(inode);
  const auto take = [&](const FlrJrnCommandRaw& record) { settle.take(record); };
  absent_.drain(take);
  found_.drain(take);
  rows.FlushAllJournals();
  settle.writeHeldBack();
  rows.Commit();
}

void unname(const std::vector<std::int64_t>& inodes, Settle& settle) {
  for (const std::int64_t inode : inodes) settle.unname(static_cast<unsigned long long>(inode));
}

// Strays go first: a new row may get the number of the folder that they have lost. Circles are
// mostly opened by a name that was found, and cut where that was not so.
void correct(const std::string& folder, Differences& differences, LiveCatalogue& rows,
             Settle& settle) {
  const Strays strays = findStrays(folder);
  unname(strays.rows, settle);
  for (const std::int64_t fidsRowId : strays.identifiers)
    rows.DeleteFidGivenRowId(static_cast<unsigned long long>(fidsRowId));
  differences.applyTo(rows, settle);
  if (!strays.circles.empty()) unname(findStrays(folder).circles, settle);
  settle.dropParked();
}

// Rows are left alone when nothing differs; only the reference time goes on.
SettleCounts apply(const std::string& folder, Differences& differences, const CompareCounts& met,
                   std::time_t began) {
  LiveCatalogue rows(folder);
  if (!rows.OpenHandle(false, false))
    throw Failure(folder + " is in use by another process; stop it first");
  NoQuestions nobody;
  Settle settle(rows, nobody);
  if (!differences.none() || !hasMetAll(folder, met)) correct(folder, differences, rows, settle);
  if (settle.counts().failed > 0)
    throw Failure(fmt::format(
        "{} changes could not be written to the catalogue in {}; -v says why; scan again",
        settle.counts().failed, folder));
  rows.CloseHandle(static_cast<unsigned long>(began), false);
  return settle.counts();
}

}  // namespace

// Compared while the catalogue is only held, and corrected afterwards: the walk may take hours, and
// a crash in it leaves the catalogue as good as it was.
RescanCounts rescanQuietly(UniqueFd root, const std::string& volumePath, const WalkOptions& options,
                           const std::string& catalogueFolder, std::time_t began,
                           const CompareWishes& wishes) {
  Hold hold(catalogueFolder);
  Differences differences(catalogueFolder);
  RescanCounts counts;
  counts.compared =
      compareVolume(std::move(root), volumePath, options, catalogueFolder, differences, wishes);
  hold.release();
  counts.settled = apply(catalogueFolder, differences, counts.compared, began);
  return counts;
}

}  // namespace kddc
