// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/watch_session.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <set>

#include "agent/errors.h"
#include "agent/live/give_way.h"
#include "agent/live/watched_volume.h"
#include "agent/own_folder.h"
#include "platform/platform_info.h"

namespace kddc {
namespace {

// Draining what is queued takes no longer than this; what is left then is saved.
constexpr std::chrono::seconds kDrain(30);
// How often the registry is read.
constexpr std::chrono::seconds kRegistry(5);

}  // namespace

// All that may refuse comes before the queue is opened, which throws away what an earlier run has
// saved where it is of no use; and the marks come last, when there is somewhere for events to go.
WatchSession::WatchSession(WatchPlan plan, WatchListeners listeners, ServiceManager& manager)
    : plan_(std::move(plan)), listeners_(std::move(listeners)), manager_(manager) {
  makeFolders(plan_.stateFolder);
  if (plan_.registered) plan_.volumes = plan_.registered(true);
  for (const WatchPlan::Volume& volume : plan_.volumes) add(volume);
  forEach([this](Volume& volume) {
    arrive(volume);
    examine(volume);
  });
  openQueue();
  forEach([this](Volume& volume) {
    if (!volume.failed) connect(volume);
  });
  manager_.forgetUnclaimed();
}

WatchSession::~WatchSession() {
  endPlacing();
  if (applying_.joinable()) {
    applier_->abandon();
    applying_.join();
  }
  for (const auto& [device, port] : ports_) port->end();
}

// What fails for a volume that was named fails for all; of those that are registered one that works
// will do. To have none there is no failure: they may come.
template <class Work>
void WatchSession::forEach(Work&& work) {
  std::exception_ptr first;
  bool works = false;
  for (Volume* volume : allVolumes()) {
    if (isStopping()) return;
    const InHand hand(*this, *volume);
    try {
      work(*volume);
      works = works || !volume->failed;
    } catch (const Stopped&) {
    } catch (const Absent& e) {
      if (!plan_.registered) throw;
      fail(*volume, e.what());
    } catch (...) {
      if (!plan_.registered) throw;
      if (!first) first = std::current_exception();
      fail(*volume, describeCurrentException());
    }
  }
  if (first && !works) std::rethrow_exception(first);
}

// Records that an earlier run has saved are worth nothing to a catalogue that is made anew.
void WatchSession::openQueue() {
  makeFolders(plan_.queueFolder);
  KDPlatformInfo::setDefault("DataClassification", "dRawBufferDir", plan_.queueFolder);
  KDPlatformInfo::setDefault("DataClassification", "dCacheRootDir", plan_.stateFolder);
  bool scans = false;
  std::set<unsigned long long> devices;
  for (const Volume* volume : allVolumes()) {
    scans = scans || volume->fresh;
    if (!volume->failed) devices.insert(volume->mount->device);
  }
  numbers_ = beginNumbering(plan_.numbersFile, devices);
  during("cannot use the queue in " + plan_.queueFolder,
         [&] { queue_ = std::make_unique<PersistentDCRawBuffer>(scans); });
  if (queue_->IsRescanNeeded(nullptr))
    for (auto& [device, numbers] : numbers_) numbers.expected = numbers.next;
  queue_->FinishedHandlingCorruptDbs();
  queue_->RemoveStrayFolders();
  applier_ = std::make_unique<Applier>(
      *queue_, [this](const VolumeRows* rows, const Doubt& why) { doubt(rows, why); });
}

// The driver threads come before the scan, so that changes queue up while it goes on; the database
// thread comes after it, because the scan has the catalogues to itself.
void WatchSession::run(const std::function<void()>& live) {
  startThreads();
  forEach([this](Volume& volume) {
    if (volume.port) fill(volume);
  });
  if (isStopping()) return finishBeforeApplying();
  applying_ = std::thread([this] {
    giveWay();
    queue_->DbThreadStarted();
    Heartbeat::Pulse pulse(manager_.heart());
    applier_->run(std::ref(pulse));
  });
  compareAll();
  if (!isStopping()) live();
  work();
  finish();
}

void WatchSession::startThreads() {
  queue_->DriverThreadStarted();
  isRunning_ = true;
  for (const auto& [device, port] : ports_) port->start();
  placing_ = std::thread([this] { watchPlaces(); });
}

// A catalogue that was just made has only to be told what was queued meanwhile.
void WatchSession::compareAll() {
  for (Volume* volume : allVolumes()) {
    if (isStopping()) return;
    const InHand hand(*this, *volume);
    if (!volume->rows) continue;
    if (!isInDoubt(*volume)) {
      if (catchUp(*volume, [&] { return isEnding(*volume); })) setLive(*volume);
    } else {
      compare(*volume);
    }
  }
}

// One thing at a time: whatever is due next, until the end. Reading the registry is worth its time
// only now and then, or when something was mounted.
void WatchSession::work() {
  auto registryRead = Pacer::Clock::now();
  while (!isStopping()) {
    Volume* due = nullptr;
    bool mountsChanged = false;
    {
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, kLook,
                        [&] { return isStopping() || mountsChanged_ || (due = nextToDo()); });
      mountsChanged = std::exchange(mountsChanged_, false);
    }
    const bool reads = mountsChanged || Pacer::Clock::now() - registryRead > kRegistry;
    if (reads && plan_.registered && !isStopping()) {
      followRegistered(mountsChanged);
      registryRead = Pacer::Clock::now();
    }
    if (due && !isStopping()) takeUp(*due);
  }
}

// Does what is missing until the volume is live.
void WatchSession::takeUp(Volume& volume) {
  const InHand hand(*this, volume);
  const auto began = Pacer::Clock::now();
  try {
    if (mustReopen(volume)) detach(volume, 0);
    if (!volume.port) arrive(volume);
    if (!volume.rows) examine(volume);
    if (!volume.port) connect(volume);
    if (!volume.rows) fill(volume);
    compare(volume);
  } catch (const Stopped&) {
  } catch (...) {
    fail(volume, describeCurrentException());
    const std::lock_guard lock(mutex_);
    volume.pacer.ended(began, Pacer::Clock::now(), false);
  }
}

void WatchSession::stop() {
  if (++stops_ > 1) applier_->giveUp();
  changed_.notify_all();
}

// The marks go first; then whatever was queued by then is said and applied.
void WatchSession::finish() {
  endPlacing();
  // Before the marks go: what changes in between is told again, and not missed, by whoever asks for
  // changes since then.
  const std::time_t ended = std::time(nullptr);
  const bool inOrder = drain(stops_ == 1);
  for (const auto& [device, port] : ports_) port->end();
  queue_->DriverThreadShutDown();
  if (!inOrder) {
    stop();  // as if asked a second time: whoever holds up the database thread lets go of it
    applier_->abandon();
  }
  applying_.join();
  bool isClosed = true;
  for (Volume* volume : allVolumes()) {
    if (!volume->rows) continue;
    // A volume in doubt is as of the time it was as of before.
    isClosed = detach(*volume, inOrder && isLive(*volume) ? ended : 0) && isClosed;
    listAsClosed(*volume);
  }
  // The second of the two, which saves the queue: nobody reads it any more.
  queue_->DbThreadShutDown();
  keepNumbers();
  if (!isClosed) throw Failure("stopped, but not in good order; the next start makes up for it");
}

// The list is for others: that it cannot be written must not keep the next catalogue open.
void WatchSession::listAsClosed(const Volume& volume) try {
  queue_->DbShutDown(volume.mount->device);
} catch (...) {
  listeners_.note(fmt::format("{}: the catalogue is closed, but cannot be listed so: {}",
                              volume.plan.path, describeCurrentException()));
}

void WatchSession::endPlacing() {
  endPlacing_ = true;
  mountWatch_.wake();
  if (placing_.joinable()) placing_.join();
}

// Whether all is applied, and the database thread ends by itself.
bool WatchSession::drain(bool inOrder) {
  const auto end = Pacer::Clock::now() + kDrain;
  const auto tooLate = [&] { return Pacer::Clock::now() > end; };
  // All at once, before the first is waited for: volumes end as of one time.
  for (const auto& [device, port] : ports_) port->driver().endCapture([](std::uint64_t) {});
  for (const Volume* volume : allVolumes())
    if (volume->port) inOrder = inOrder && catchUp(*volume, tooLate);
  if (!inOrder || ports_.empty()) return false;
  applier_->finishAtNextNoop();
  ports_.begin()->second->driver().barrier([](std::uint64_t) {});
  return true;
}

// Nothing was applied yet, and what is queued is of no use to a catalogue that is not there.
void WatchSession::finishBeforeApplying() {
  endPlacing();
  for (const auto& [device, port] : ports_) port->end();
  for (Volume* volume : allVolumes()) detach(*volume, 0);
  keepNumbers();
  listeners_.note("stopped before the scan was done; the next start scans anew");
}

void WatchSession::keepNumbers() {
  for (const auto& [device, port] : ports_) numbers_[device].next = port->driver().nextSequence();
  for (auto& [device, numbers] : numbers_)
    if (const auto expected = applier_->expected(device)) numbers.expected = expected;
  kddc::keepNumbers(plan_.numbersFile, numbers_);
}

}  // namespace kddc
