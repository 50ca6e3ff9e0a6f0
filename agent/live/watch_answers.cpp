// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The part of a watch session that answers: when the catalogue holds everything, and how it is
// doing.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <future>
#include <thread>

#include "agent/engine/catalogue_reader.h"
#include "agent/errors.h"
#include "agent/live/watched_volume.h"

namespace kddc {
namespace {

// A question may raise another one: a name that came from outside is looked at, turns out to be a
// folder and is listed; a file found there takes a name from another one, which is asked after; the
// folders on its way may have to be listed, and take names once more. These five are the longest
// chain that is known (the settling's model holds it to that), so what is still asked after three
// times as many rounds was raised by what happened meanwhile.
constexpr int kMostRounds = 16;
// Between two looks at something that is about to happen.
constexpr std::chrono::milliseconds kMoment(2);

}  // namespace

WatchSession::Volume* WatchSession::find(const std::string& path) const {
  const std::lock_guard lock(mutex_);
  const auto at =
      std::ranges::find_if(volumes_, [&](const auto& v) { return v->plan.path == path; });
  return at == volumes_.end() ? nullptr : at->get();
}

std::vector<WatchSession::Volume*> WatchSession::allVolumes() const {
  const std::lock_guard lock(mutex_);
  std::vector<Volume*> all;
  for (const auto& volume : volumes_) all.push_back(volume.get());
  return all;
}

std::vector<std::string> WatchSession::volumes() const {
  std::vector<std::string> paths;
  for (const Volume* volume : allVolumes()) paths.push_back(volume->plan.path);
  return paths;
}

bool WatchSession::isLive(const Volume& volume) const {
  const std::lock_guard lock(mutex_);
  return volume.live;
}

bool WatchSession::isInDoubt(const Volume& volume) const {
  const std::lock_guard lock(mutex_);
  return !volume.doubt.empty();
}

bool WatchSession::mustReopen(const Volume& volume) const {
  const std::lock_guard lock(mutex_);
  return volume.rows && volume.remedy == Doubt::Remedy::kReopen;
}

bool WatchSession::isEnding(const Volume& volume) const {
  return isStopping() || volume.leaving;
}

// Waits until the driver has said all there was, and all that this made necessary to ask; not for
// what happens meanwhile. Each wait is for what was queued or asked when it began, so a load that
// never ends cannot keep it.
bool WatchSession::catchUp(const Volume& volume, const std::function<bool()>& giveUp) {
  std::shared_ptr<VolumePort> port;
  {
    const std::lock_guard lock(mutex_);
    port = volume.port;
  }
  if (!port) return false;
  auto answered = applyUpTo(*port, &Driver::barrier, giveUp);
  for (int round = 0; answered && round < kMostRounds; ++round) {
    const std::uint64_t asked = port->lastQuestion();
    if (asked <= *answered) return true;
    for (; !port->isAnswered(asked); std::this_thread::sleep_for(kMoment))
      if (isCutOff(*port, giveUp)) return false;
    answered = applyUpTo(*port, &Driver::mark, giveUp);
  }
  return answered.has_value();
}

// Waits until all that the driver says up to this NOOP is applied. The number of the last question
// whose answer, and those of all before it, are among that; none when nobody waits any more.
std::optional<std::uint64_t> WatchSession::applyUpTo(VolumePort& port, AskForNoop ask,
                                                     const std::function<bool()>& giveUp) {
  if (isCutOff(port, giveUp)) return std::nullopt;
  const auto reached = std::make_shared<std::promise<Driver::Served>>();
  auto served = reached->get_future();
  (port.driver().*ask)([reached, &driver = port.driver()](std::uint64_t sequence) {
    reached->set_value({driver.finished().request, sequence});
  });
  while (served.wait_for(kLook) != std::future_status::ready)
    if (isCutOff(port, giveUp)) return std::nullopt;
  const auto [answered, last] = served.get();
  while (!applier_->waitFor(port.driver().device(), last, kLook))
    if (isCutOff(port, giveUp)) return std::nullopt;
  return answered;
}

bool WatchSession::isCutOff(const VolumePort& port, const std::function<bool()>& giveUp) const {
  return giveUp() || stops_ > 1 || port.hasEnded() || applier_->hasEnded();
}

// False as for flush. What failed is tried at once, and is waited for no longer when it fails
// again: nobody knows how long.
bool WatchSession::waitUntilLive(Volume& volume, const std::function<bool()>& giveUp) {
  std::unique_lock lock(mutex_);
  const std::uint64_t failures = volume.failures;
  if (volume.failed) volume.pacer.hurry();
  changed_.notify_all();
  const auto isHopeless = [&] {
    return !volume.live && (volume.absent || (volume.failed && volume.failures > failures));
  };
  const auto isOver = [&] { return volume.live || isHopeless() || isStopping(); };
  while (!changed_.wait_for(lock, kLook, isOver))
    if (giveUp()) return false;
  if (isHopeless() && !isStopping())
    throw Failure(
        fmt::format("the catalogue of {} is not up to date: {}", volume.plan.path, volume.doubt));
  return !isStopping();
}

bool WatchSession::flush(const std::string& path, const std::function<bool()>& giveUp) {
  Volume& volume = *find(path);
  for (;;) {
    if (!waitUntilLive(volume, giveUp)) return false;
    const bool level = catchUp(volume, giveUp);
    if (isStopping() || giveUp()) return false;
    if (!level || !isLive(volume)) continue;
    if (isStill(volume)) return true;
    mountWatch_.wake();  // whoever lets go of it may not have noticed yet
  }
}

// Since the volume is followed, also in rows that were let go of since. Called with the mutex held.
SettleCounts WatchSession::settledIn(const Volume& volume) {
  return volume.rows ? volume.settled + volume.rows->report().settled : volume.settled;
}

// The catalogue may be opened anew before the comparison is done, or be let go of right after it.
std::optional<RescanCounts> WatchSession::rescan(const std::string& path,
                                                 const std::function<bool()>& giveUp) {
  Volume& volume = *find(path);
  if (!flush(path, giveUp)) return std::nullopt;
  const auto settled = [&] {
    const std::lock_guard lock(mutex_);
    return settledIn(volume);
  };
  const auto comparisons = [&] {
    const std::lock_guard lock(mutex_);
    return volume.comparisons;
  };
  const SettleCounts settledBefore = settled();
  const std::uint64_t before = comparisons();
  doubt(volume, {"somebody asked for it"});
  do {
    {
      const std::lock_guard lock(mutex_);
      volume.pacer.hurry();
    }
    if (!flush(path, giveUp)) return std::nullopt;
  } while (comparisons() == before);
  const std::lock_guard lock(mutex_);
  return RescanCounts{volume.compared, settledIn(volume) - settledBefore};
}

VolumeStatus::State WatchSession::stateOf(const Volume& volume) const {
  if (volume.live) return VolumeStatus::State::kLive;
  if (volume.scanning) return VolumeStatus::State::kScanning;
  return volume.comparing ? VolumeStatus::State::kRescanning : VolumeStatus::State::kStale;
}

std::vector<VolumeStatus::State> WatchSession::states() const {
  const std::lock_guard lock(mutex_);
  std::vector<VolumeStatus::State> states;
  for (const auto& volume : volumes_) states.push_back(stateOf(*volume));
  return states;
}

VolumeStatus WatchSession::status(const std::string& path) const {
  const Volume& volume = *find(path);
  const bool isGone = !isStill(volume);
  VolumeStatus status;
  {
    const std::lock_guard lock(mutex_);
    status.state = stateOf(volume);
    if (!volume.live && volume.staleSince != 0) status.staleSince = volume.staleSince;
    status.staleReason = volume.doubt;
    if (volume.live && isGone) {
      status.state = VolumeStatus::State::kStale;
      status.staleSince = std::time(nullptr);
      status.staleReason = path + " is not mounted";
    }
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
  std::shared_ptr<VolumePort> port;
  std::shared_ptr<VolumeRows> rows;
  {
    const std::lock_guard lock(mutex_);
    port = volume.port;
    rows = volume.rows;
    status.overflows = volume.overflows;
  }
  if (port) status.overflows += port->driver().counts().overflows;
  const Applier::Counts applied = applier_->counts();
  const std::uint64_t records = queuedRecords_, bytes = queuedBytes_;
  status.backlogRecords = records - std::min(records, applied.records);
  status.backlogBytes = bytes - std::min(bytes, applied.bytes);
  status.recordsPerSecond = applied.rate;
  status.refusedRecords = applied.refused;
  if (!rows) return;
  const VolumeRows::Report report = rows->report();
  status.failedRecords = report.settled.failed;
  if (report.lastCommit != 0) status.lastCommit = report.lastCommit;
}

}  // namespace kddc
