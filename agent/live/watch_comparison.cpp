// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The part of a watch session that compares volumes with the disk: what makes that necessary, when
// it is done, and what becomes of what is found.
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <unordered_set>
#include <utility>

#include "agent/engine/catalogue_folder.h"
#include "agent/engine/sqlite_query.h"
#include "agent/errors.h"
#include "agent/live/compare.h"
#include "agent/live/strays.h"
#include "agent/live/watched_volume.h"
#include "catalogue/file_type.h"

namespace kddc {
namespace {

// After so many questions the walk waits for the answers; so many reasons are remembered.
constexpr std::uint64_t kMostOpenQuestions = 20'000;
constexpr std::size_t kMostReasons = 10;

}  // namespace

// What differs is asked for again by the driver's thread, so that its records keep their order.
class WatchSession::Questions : public Suspicions {
 public:
  Questions(WatchSession& session, Volume& volume)
      : session_(session), volume_(volume), port_(*volume.port), rows_(*volume.rows) {
    const ReadConnection files(filesDatabase());
    if (Query last(files, "SELECT MAX(INODE) FROM FILES"); last.step())
      lastBefore_ = last.integer(0);
  }

  // The two databases were not read at one moment, and time has passed since: whatever is done
  // about rows makes sure first.
  void identity(const WalkedEntry& folder, std::int64_t inode) override {
    rows_.doLater([inode, fid = folder.fid](LiveCatalogue&, Settle& settle) {
      settle.identify(static_cast<unsigned long long>(inode), fid);
    });
  }
  void name(const fsf_fid& folder, const WalkedEntry& entry) override {
    port_.look(folder, std::string(entry.name));
    noteOne();
  }
  void attributes(const WalkedEntry& entry) override {
    port_.lookAt(entry.fid);
    noteOne();
  }
  void absent(const fsf_fid& folder, std::string_view name) override {
    port_.look(folder, std::string(name));
    noteOne();
  }
  void row(std::int64_t inode) override { unname({inode}); }
  void compared(std::int64_t inode) override { compared_.insert(inode); }

  // A folder that moves from a part that the walk has not reached to one that it has left is not
  // met. Those that were added meanwhile were listed then. Whether there was one.
  bool askForTheRest() {
    const ReadConnection files(filesDatabase());
    Query folders(files, "SELECT INODE FROM FILES WHERE FILE_TYPE=?1 AND INODE<=?2");
    bool isAny = false;
    for (folders.bind(kFolder, lastBefore_); folders.step();) {
      const std::int64_t inode = folders.integer(0);
      if (compared_.contains(inode)) continue;
      isAny = true;
      rows_.doLater([inode](LiveCatalogue&, Settle& settle) {
        settle.askForContents(static_cast<unsigned long long>(inode));
      });
    }
    return isAny;
  }

  // What no way leads to.
  void findStrays(const CompareCounts& met) {
    if (hasMetAll(volume_.plan.catalogue, met)) return;
    const Strays strays = kddc::findStrays(volume_.plan.catalogue);
    unname(strays.rows);
    unname(strays.circles);
    rows_.doLater([identifiers = strays.identifiers](LiveCatalogue& rows, Settle&) {
      for (const std::int64_t id : identifiers)
        rows.forgetUnlessBorne(static_cast<unsigned long long>(id));
    });
  }

 private:
  std::string filesDatabase() const { return volume_.plan.catalogue + kFilesDatabase; }
  void unname(std::vector<std::int64_t> inodes) {
    rows_.doLater([&port = port_, inodes = std::move(inodes)](LiveCatalogue& rows, Settle& settle) {
      for (const std::int64_t inode : inodes) unnameNow(rows, settle, port, inode);
    });
  }
  // Should the name be right by now, a look gives it back.
  static void unnameNow(LiveCatalogue& rows, Settle& settle, VolumePort& port, std::int64_t inode) {
    const auto row = rows.rowAt(static_cast<unsigned long long>(inode));
    if (!row || row->parked()) return;
    const auto folder = rows.rowAt(row->parent);
    settle.unname(row->inode);
    if (folder && folder->hasFid()) port.look(folder->fid, row->name);
  }
  // The list of questions shall not grow with the volume.
  void noteOne() {
    if (++asked_ % kMostOpenQuestions != 0) return;
    if (!session_.catchUp(volume_, [this] { return session_.isEnding(volume_); })) throw Stopped();
  }

  WatchSession& session_;
  Volume& volume_;
  VolumePort& port_;  // both stay while the volume is in hand; chores end with the rows
  VolumeRows& rows_;
  std::uint64_t asked_ = 0;
  std::unordered_set<std::int64_t> compared_;  // folders, by INODE
  std::int64_t lastBefore_ = 0;                // INODE of the last row before the comparison
};

void WatchSession::compare(Volume& volume) {
  const auto began = Pacer::Clock::now();
  {
    const std::lock_guard lock(mutex_);
    volume.comparing = true;
    volume.reasons.push_back({std::time(nullptr), std::exchange(volume.doubt, {})});
    if (volume.reasons.size() > kMostReasons) volume.reasons.pop_front();
  }
  try {
    const CompareCounts met = compareNow(volume);
    const std::lock_guard lock(mutex_);
    volume.compared = met;
    volume.lastComparison = std::time(nullptr);
    ++volume.comparisons;
    volume.live = volume.doubt.empty();
    volume.failed = volume.failed && !volume.live;
    volume.pacer.ended(began, Pacer::Clock::now(), true);
  } catch (const Stopped&) {
    const std::lock_guard lock(mutex_);
    if (volume.doubt.empty()) volume.doubt = volume.reasons.back().reason;
  } catch (...) {
    fail(volume, describeCurrentException());
    const std::lock_guard lock(mutex_);
    volume.pacer.ended(began, Pacer::Clock::now(), false);
  }
  const std::lock_guard lock(mutex_);
  volume.comparing = false;
  changed_.notify_all();
}

CompareCounts WatchSession::compareNow(Volume& volume) {
  const auto ends = [&] { return isEnding(volume); };
  // What is still queued may be of a time after which changes were missed, and would be taken for
  // news of what was compared meanwhile.
  if (!applyUpTo(*volume.port, &Driver::barrier, ends)) throw Stopped();
  Questions questions(*this, volume);
  const CompareWishes wishes{.progress = listeners_.progress, .check = [&] {
                               if (ends()) throw Stopped();
                             }};
  WalkOptions options = walkOptions(volume);
  options.folderLost = [&](const fsf_fid& folder) { volume.port->list(folder); };
  const DetachedFolder root = openRoot(volume.plan.path);
  options.covered = coveredIn(root, volume.plan.path);
  const CompareCounts met = compareVolume(root.open(), volume.plan.path, options,
                                          volume.plan.catalogue, questions, wishes);
  questions.findStrays(met);
  if (!catchUp(volume, ends)) throw Stopped();
  if (questions.askForTheRest() && !catchUp(volume, ends)) throw Stopped();
  return met;
}

// Called with the mutex held.
WatchSession::Volume* WatchSession::nextToDo() const {
  const auto now = Pacer::Clock::now();
  for (const auto& volume : volumes_) {
    const bool mayDo = volume->wanted && !volume->absent && !volume->inHand && !volume->leaving;
    const bool hasToDo = !volume->rows || !volume->doubt.empty();
    if (mayDo && hasToDo && volume->pacer.isDue(now)) return volume.get();
  }
  return nullptr;
}

void WatchSession::doubt(const VolumeRows* rows, const Doubt& why) {
  for (Volume* volume : allVolumes()) {
    bool concerned = false;
    {
      const std::lock_guard lock(mutex_);
      concerned = volume->rows && (!rows || volume->rows.get() == rows);
    }
    if (concerned) doubt(*volume, why);
  }
}

void WatchSession::doubt(dev_t device, const Doubt& why) {
  for (Volume* volume : allVolumes()) {
    bool concerned = false;
    {
      const std::lock_guard lock(mutex_);
      concerned = volume->port && volume->port->driver().device() == device;
    }
    if (concerned) doubt(*volume, why);
  }
}

// The first of several reasons is told; the stronger remedy counts.
void WatchSession::doubt(Volume& volume, const Doubt& why) {
  const bool reopens = why.remedy == Doubt::Remedy::kReopen;
  {
    const std::lock_guard lock(mutex_);
    if (reopens) volume.remedy = why.remedy;
    if (!volume.doubt.empty()) return;
    volume.doubt = why.reason;
    setStale(volume);
  }
  changed_.notify_all();
  listeners_.note(fmt::format(
      "{}: {}; {}", volume.plan.path, why.reason,
      reopens ? "opening it again and comparing it with the disk" : "comparing it with the disk"));
}

// It is tried again, as the pacer says or when what stood in the way has changed.
void WatchSession::fail(Volume& volume, const std::string& why) {
  bool isNews = false;
  {
    const std::lock_guard lock(mutex_);
    isNews = !volume.failed || volume.doubt != why;
    volume.doubt = why;
    volume.remedy = Doubt::Remedy::kReopen;
    volume.failed = true;
    ++volume.failures;
    volume.scanning = false;
    setStale(volume);
  }
  changed_.notify_all();
  if (isNews) listeners_.note(why);
}

// Called with the mutex held.
void WatchSession::setStale(Volume& volume) {
  if (volume.live) volume.staleSince = std::time(nullptr);
  volume.live = false;
}

void WatchSession::setLive(Volume& volume) {
  const std::lock_guard lock(mutex_);
  volume.live = volume.doubt.empty();
  changed_.notify_all();
}

}  // namespace kddc
