// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The part of a watch session that answers: when the catalogue holds everything, and how it is
// doing.
#include <unistd.h>

#include <algorithm>
#include <future>
#include <thread>

#include "agent/engine/catalogue_reader.h"
#include "agent/errors.h"
#include "agent/live/watched_volume.h"

namespace kddc {
namespace {

// A question may raise another one: a name that came from outside is looked at, turns out to be a
// folder and is listed, and a file found there takes a name from another one. Under load new ones
// are raised all the time; those that an earlier round left are answered by then.
constexpr int kMostRounds = 32;
// Between two looks at something that is about to happen.
constexpr std::chrono::milliseconds kMoment(2);

}  // namespace

WatchSession::Volume* WatchSession::find(const std::string& path) const {
  const auto at =
      std::ranges::find_if(volumes_, [&](const auto& v) { return v->plan.path == path; });
  return at == volumes_.end() ? nullptr : at->get();
}

// Waits until the driver has said all there was, and all that this made necessary to ask.
bool WatchSession::catchUp(Volume& volume, const std::function<bool()>& giveUp) {
  for (int round = 0; round < kMostRounds; ++round) {
    const auto reached = std::make_shared<std::promise<std::uint64_t>>();
    auto number = reached->get_future();
    const std::uint64_t barrier = volume.port->driver().barrier(
        [reached](std::uint64_t sequence) { reached->set_value(sequence); });
    while (number.wait_for(kLook) != std::future_status::ready)
      if (giveUp() || stops_ > 1) return false;
    const std::uint64_t last = number.get();
    while (!applier_->waitFor(volume.device, last, kLook))
      if (giveUp() || stops_ > 1 || applier_->hasEnded()) return false;
    const std::uint64_t asked = volume.port->lastQuestion();
    if (asked < barrier) return true;
    for (; !volume.port->isAnswered(asked); std::this_thread::sleep_for(kMoment))
      if (giveUp() || stops_ > 1) return false;
  }
  return true;
}

bool WatchSession::flush(const std::string& path, const std::function<bool()>& giveUp) {
  Volume* volume = find(path);
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      if (!changed_.wait_for(lock, kLook, [&] { return volume->live || isStopping(); })) {
        if (giveUp()) return false;
        continue;
      }
    }
    if (isStopping() || !catchUp(*volume, giveUp)) return false;
    if (isLive(*volume)) return true;
  }
}

std::optional<RescanCounts> WatchSession::rescan(const std::string& path,
                                                 const std::function<bool()>& giveUp) {
  Volume* volume = find(path);
  if (!flush(path, giveUp)) return std::nullopt;
  const SettleCounts before = volume->rows->report().settled;
  const std::uint64_t comparisons = [&] {
    const std::lock_guard lock(mutex_);
    return volume->comparisons;
  }();
  doubt(*volume, "somebody asked for it");
  for (;;) {
    if (!flush(path, giveUp)) return std::nullopt;
    const std::lock_guard lock(mutex_);
    if (volume->comparisons > comparisons) break;
  }
  const SettleCounts settled = volume->rows->report().settled - before;
  const std::lock_guard lock(mutex_);
  return RescanCounts{volume->compared, settled};
}

VolumeStatus::State WatchSession::stateOf(const Volume& volume) const {
  if (volume.live) return VolumeStatus::State::kLive;
  if (volume.fresh) return VolumeStatus::State::kScanning;
  return volume.comparing ? VolumeStatus::State::kRescanning : VolumeStatus::State::kStale;
}

VolumeStatus WatchSession::status(const std::string& path) const {
  const Volume& volume = *find(path);
  VolumeStatus status;
  {
    const std::lock_guard lock(mutex_);
    status.state = stateOf(volume);
    if (!volume.live && volume.staleSince != 0) status.staleSince = volume.staleSince;
    status.staleReason = volume.doubt;
    status.rescanCount = volume.comparisons;
    status.rescans.assign(volume.reasons.begin(), volume.reasons.end());
    if (volume.lastComparison != 0) status.lastComparison = volume.lastComparison;
  }
  status.volume = path;
  status.catalogue = volume.plan.catalogue;
  status.process = getpid();
  fillFromCatalogue(status);
  fillFromThreads(volume, status);
  return status;
}

// Nothing is known yet while the first scan runs.
void WatchSession::fillFromCatalogue(VolumeStatus& status) const {
  try {
    CatalogueReader reader(status.catalogue, status.volume, CatalogueReader::Columns::kPath);
    status.rows = reader.count();
    status.lastScan = reader.scanned();
  } catch (const Failure&) {
  }
}

void WatchSession::fillFromThreads(const Volume& volume, VolumeStatus& status) const {
  const DriverCounts driver = volume.port->driver().counts();
  status.overflows = driver.overflows;
  const std::lock_guard lock(mutex_);
  if (!applier_) return;
  const Applier::Counts applied = applier_->counts();
  const std::uint64_t records = queuedRecords_, bytes = queuedBytes_;
  status.backlogRecords = records - std::min(records, applied.records);
  status.backlogBytes = bytes - std::min(bytes, applied.bytes);
  status.recordsPerSecond = applied.rate;
  status.refusedRecords = applied.refused;
  const VolumeRows::Report report = volume.rows->report();
  status.failedRecords = report.settled.failed;
  if (report.lastCommit != 0) status.lastCommit = report.lastCommit;
}

}  // namespace kddc
