// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The part of a watch session that compares volumes with the disk: what makes that necessary, when
// it is done, and what becomes of what is found.
#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "agent/errors.h"
#include "agent/live/compare.h"
#include "agent/live/strays.h"
#include "agent/live/watched_volume.h"

namespace kddc {
namespace {

constexpr std::uint64_t kMostOpenQuestions = 20'000;
constexpr std::size_t kMostReasons = 10;

}  // namespace

// What differs is asked for again by the driver's thread, so that its records keep their order.
class WatchSession::Questions : public Suspicions {
 public:
  Questions(WatchSession& session, Volume& volume) : session_(session), volume_(volume) {}

  // The two databases were not read at one moment, and time has passed since: whatever is done
  // about rows makes sure first.
  void identity(const WalkedEntry& folder, std::int64_t inode) override {
    volume_.rows->doLater([inode, fid = folder.fid](LiveCatalogue& rows, Settle&) {
      auto row = rows.rowAt(static_cast<unsigned long long>(inode));
      const bool isRoot = row && row->parent == 0;
      if (isRoot && !(row->fid == fid)) rows.readopt(*row, fid);
      if (row && !isRoot && !row->hasFid() && rows.namesOf(fid, 1).empty()) rows.adopt(*row, fid);
    });
  }
  void name(const fsf_fid& folder, const WalkedEntry& entry) override {
    volume_.port->look(folder, std::string(entry.name));
    noteOne();
  }
  void attributes(const WalkedEntry& entry) override {
    volume_.port->lookAt(entry.fid);
    noteOne();
  }
  void absent(const fsf_fid& folder, std::string_view name) override {
    volume_.port->look(folder, std::string(name));
    noteOne();
  }
  void row(std::int64_t inode) override { unname({inode}); }

  // What no way leads to.
  void findStrays(const CompareCounts& met) {
    if (hasMetAll(volume_.plan.catalogue, met)) return;
    const Strays strays = kddc::findStrays(volume_.plan.catalogue);
    unname(strays.rows);
    unname(strays.circles);
    volume_.rows->doLater([identifiers = strays.identifiers](LiveCatalogue& rows, Settle&) {
      for (const std::int64_t id : identifiers)
        rows.forgetUnlessBorne(static_cast<unsigned long long>(id));
    });
  }

 private:
  void unname(std::vector<std::int64_t> inodes) {
    volume_.rows->doLater([port = volume_.port.get(), inodes = std::move(inodes)](
                              LiveCatalogue& rows, Settle& settle) {
      for (const std::int64_t inode : inodes) unnameNow(rows, settle, *port, inode);
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
    if (!session_.catchUp(volume_, [this] { return session_.isStopping(); })) throw Stopped();
  }

  WatchSession& session_;
  Volume& volume_;
  std::uint64_t asked_ = 0;
};

void WatchSession::compare(Volume& volume) {
  {
    const std::lock_guard lock(mutex_);
    volume.live = false;
    volume.comparing = true;
    volume.reasons.push_back({std::time(nullptr), std::exchange(volume.doubt, {})});
    if (volume.reasons.size() > kMostReasons) volume.reasons.pop_front();
  }
  try {
    const CompareCounts met = compareNow(volume);
    const std::lock_guard lock(mutex_);
    volume.compared = met;
    volume.pause = kFirstPause;
    volume.lastComparison = std::time(nullptr);
    ++volume.comparisons;
    volume.live = volume.doubt.empty();
  } catch (const Stopped&) {
  } catch (...) {
    doubt(volume, describeCurrentException());
    const std::lock_guard lock(mutex_);
    volume.notBefore = WatchClock::now() + volume.pause;
    volume.pause = std::min<WatchClock::duration>(2 * volume.pause, kLongestPause);
  }
  const std::lock_guard lock(mutex_);
  volume.comparing = false;
  changed_.notify_all();
}

CompareCounts WatchSession::compareNow(Volume& volume) {
  const auto stopped = [this] { return isStopping(); };
  Questions questions(*this, volume);
  const CompareWishes wishes{.progress = listeners_.progress, .check = [&] {
                               if (isStopping()) throw Stopped();
                             }};
  WalkOptions options = walkOptions(volume);
  options.folderLost = [&](const fsf_fid& folder) { volume.port->list(folder); };
  const CompareCounts met = compareVolume(openRoot(volume.plan.path), volume.plan.path, options,
                                          volume.plan.catalogue, questions, wishes);
  questions.findStrays(met);
  if (!catchUp(volume, stopped)) throw Stopped();
  return met;
}

void WatchSession::watchOver() {
  while (!isStopping()) {
    Volume* due = nullptr;
    {
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, kLook, [&] { return isStopping() || (due = nextInDoubt()); });
    }
    if (due && !isStopping()) compare(*due);
  }
}

WatchSession::Volume* WatchSession::nextInDoubt() {
  for (const auto& volume : volumes_)
    if (!volume->doubt.empty() && WatchClock::now() >= volume->notBefore) return volume.get();
  return nullptr;
}

void WatchSession::doubt(const VolumeRows* rows, const std::string& reason) {
  for (const auto& volume : volumes_)
    if (!rows || volume->rows.get() == rows) doubt(*volume, reason);
}

void WatchSession::doubt(dev_t device, const std::string& reason) {
  for (const auto& volume : volumes_)
    if (volume->device == device) doubt(*volume, reason);
}

void WatchSession::doubt(Volume& volume, const std::string& reason) {
  {
    const std::lock_guard lock(mutex_);
    if (!volume.doubt.empty()) return;
    volume.doubt = reason;
    if (volume.live) volume.staleSince = std::time(nullptr);
    volume.live = false;
  }
  changed_.notify_all();
  listeners_.note(fmt::format("{}: {}; comparing it with the disk", volume.plan.path, reason));
}

bool WatchSession::isLive(const Volume& volume) const {
  const std::lock_guard lock(mutex_);
  return volume.live;
}

void WatchSession::setLive(Volume& volume) {
  const std::lock_guard lock(mutex_);
  volume.live = volume.doubt.empty();
  changed_.notify_all();
}

}  // namespace kddc
