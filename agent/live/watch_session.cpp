// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/watch_session.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <set>

#include "agent/catalogue_place.h"
#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/engine/full_scan.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/live/give_way.h"
#include "agent/live/watched_volume.h"
#include "catalogue/db_access.h"
#include "platform/file_handle.h"
#include "platform/platform_info.h"

namespace kddc {
namespace {

fsf_fid rootOf(const std::string& path) {
  fsf_fid fid;
  const int error = identify(AT_FDCWD, path.c_str(), fid, true);
  if (error < 0) throw systemFailure("cannot use the volume " + path, -error);
  return fid;
}

dev_t deviceOf(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) throw systemFailure("cannot use the volume " + path, errno);
  return st.st_dev;
}

bool isGood(const WatchPlan::Volume& volume) {
  FlrDriver driver;
  bool inside = false;
  fsf_fid files, fids;
  return DCSqliteDB::IsDbGood(volume.catalogue, volume.path, &driver, inside, files, fids) &&
         volumeOf(volume.catalogue) == volume.path;
}

// Nothing of the volume's may be touched before: the queue of another process would be emptied.
void takeLock(LockFile& lock, const WatchPlan::Volume& volume) {
  makeFolders(std::filesystem::path(volume.lockFile).parent_path());
  if (lock.take(volume.lockFile, false, std::chrono::seconds(0))) return;
  if (errno != EWOULDBLOCK) throw systemFailure("cannot use " + volume.lockFile, errno);
  throw Failure(fmt::format("{} is watched by {}; stop it first", volume.path,
                            describeProcess(LockFile::holderOf(volume.lockFile).value_or(0))));
}

// Folders that are no part of a volume: ours. An identifier means something on its file system
// only.
void addFid(const std::string& folder, dev_t device, std::vector<fsf_fid>& fids) {
  struct stat st;
  fsf_fid fid;
  if (stat(folder.c_str(), &st) == 0 && st.st_dev == device &&
      identify(AT_FDCWD, folder.c_str(), fid, true) == 0)
    fids.push_back(fid);
}

void addKey(const std::string& folder, WalkOptions& options) {
  struct stat st;
  if (stat(folder.c_str(), &st) == 0) options.leaveOut.push_back({st.st_dev, st.st_ino});
}

}  // namespace

UniqueFd openRoot(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) throw systemFailure("cannot read the volume " + path, errno);
  return fd;
}

WatchSession::WatchSession(WatchPlan plan, WatchListeners listeners)
    : plan_(std::move(plan)), listeners_(std::move(listeners)) {
  for (const WatchPlan::Volume& volume : plan_.volumes) prepare(volume);
  openQueue();
  for (const auto& [device, numbers] : numbers_) follow(device);
}

WatchSession::~WatchSession() {
  if (applying_.joinable()) {
    applier_->abandon();
    applying_.join();
  }
  ports_.clear();
}

void WatchSession::prepare(WatchPlan::Volume plan) {
  auto volume = std::make_unique<Volume>();
  volume->device = deviceOf(plan.path);
  takeLock(volume->lock, plan);
  refuseWhileInUse(plan.catalogue);
  if (!isGood(plan)) volume->fresh = std::make_unique<NewCatalogue>(plan.catalogue, plan.path);
  volume->isNew = volume->fresh != nullptr;
  volume->plan = std::move(plan);
  volumes_.push_back(std::move(volume));
}

// Records that an earlier run has saved are worth nothing to a catalogue that is made anew.
void WatchSession::openQueue() {
  makeFolders(plan_.queueFolder);
  const bool scans = std::ranges::any_of(volumes_, [](const auto& v) { return v->isNew; });
  KDPlatformInfo::setDefault("DataClassification", "dRawBufferDir", plan_.queueFolder);
  KDPlatformInfo::setDefault("DataClassification", "dCacheRootDir", plan_.stateFolder);
  std::set<unsigned long long> devices;
  for (const auto& volume : volumes_) devices.insert(volume->device);
  numbers_ = beginNumbering(plan_.numbersFile, devices);
  during("cannot use the queue in " + plan_.queueFolder,
         [&] { queue_ = std::make_unique<PersistentDCRawBuffer>(scans); });
  if (queue_->IsRescanNeeded(nullptr))
    for (auto& [device, numbers] : numbers_) numbers.expected = numbers.next;
  queue_->FinishedHandlingCorruptDbs();
  queue_->RemoveStrayFolders();
}

// One driver for each file system, whatever the number of volumes on it.
void WatchSession::follow(dev_t device) {
  DriverOptions options;
  options.firstSequence = numbers_[device].next;
  options.stubAttribute = plan_.stubAttribute;
  options.queue = plan_.events;
  addFid(plan_.stateFolder, device, options.leaveOut);
  for (const auto& volume : volumes_) {
    if (volume->device == device) options.roots.push_back(volume->plan.path);
    addFid(volume->plan.catalogue, device, options.leaveOut);
    addFid(volume->plan.catalogue + ".new", device, options.leaveOut);
  }
  DriverSinks sinks;
  sinks.record = [this](std::span<unsigned char> bytes) {
    const std::lock_guard lock(adding_);
    queue_->AddEntry(bytes.data(), static_cast<int>(bytes.size()));
    ++queuedRecords_;
    queuedBytes_ += bytes.size();
  };
  sinks.doubt = [this, device](const std::string& reason) { doubt(device, reason); };
  ports_.push_back(std::make_unique<DriverPort>(std::move(options), std::move(sinks)));
  for (const auto& volume : volumes_)
    if (volume->device == device)
      volume->port = std::make_unique<VolumePort>(*ports_.back(), rootOf(volume->plan.path));
}

void WatchSession::run(const std::function<void()>& live) {
  queue_->DriverThreadStarted();
  for (const auto& port : ports_) port->start();
  try {
    scanNew();
  } catch (const Stopped&) {
    return finishBeforeApplying();
  }
  applyRecords();
  compareOld();
  for (const auto& volume : volumes_) {
    if (!isStopping()) catchUp(*volume, [] { return false; });
    setLive(*volume);
  }
  if (!isStopping()) live();
  watchOver();
  finish();
}

void WatchSession::scanNew() {
  for (const auto& volume : volumes_)
    if (volume->fresh) scan(*volume);
}

WalkOptions WatchSession::walkOptions(const Volume& volume) const {
  WalkOptions options;
  options.stubAttribute = plan_.stubAttribute;
  for (const std::string& own :
       {plan_.stateFolder, volume.plan.catalogue, volume.plan.catalogue + ".new"})
    addKey(own, options);
  return options;
}

// A stop ends the work in whatever it was doing then; that is no failure of its own.
template <class Work>
void WatchSession::unlessStopped(Work&& work) {
  try {
    work();
  } catch (const Failure&) {
    if (isStopping() || interrupted()) throw Stopped();
    throw;
  }
}

void WatchSession::scan(Volume& volume) {
  WalkOptions options = walkOptions(volume);
  std::vector<fsf_fid> lost;  // known, but nobody has seen what they hold
  options.folderLost = [&](const fsf_fid& folder) { lost.push_back(folder); };
  const std::time_t began = std::time(nullptr);
  unlessStopped([&] {
    volume.fresh->rows().setTick([this] { return !isStopping(); });
    during("cannot scan " + volume.plan.path, [&] {
      fullScan(openRoot(volume.plan.path), volume.plan.path, options, volume.fresh->rows(),
               listeners_.progress);
    });
    volume.fresh->publish(began);
  });
  for (const fsf_fid& folder : lost) volume.port->list(folder);
  // Our own changes raise no events for us; this one may have been made inside the volume.
  fsf_fid parent;
  const std::string above = std::filesystem::path(volume.plan.catalogue).parent_path();
  if (deviceOf(above) == volume.device && identify(AT_FDCWD, above.c_str(), parent, true) == 0)
    volume.port->lookAt(parent);
  const std::lock_guard lock(mutex_);
  volume.fresh.reset();
}

void WatchSession::applyRecords() {
  std::vector<VolumeRows*> rows;
  for (const auto& volume : volumes_) {
    volume->rows =
        std::make_unique<VolumeRows>(volume->plan.catalogue, volume->device, *volume->port);
    if (listeners_.change)
      volume->rows->observe([this, &name = volume->plan.path](auto kind, const std::string& path) {
        listeners_.change(name, kind, path);
      });
    rows.push_back(volume->rows.get());
  }
  Applier::FirstNumbers first;
  for (const auto& [device, numbers] : numbers_) first[device] = numbers.expected;
  auto applier = std::make_unique<Applier>(
      *queue_, rows, first,
      [this](const VolumeRows* where, const std::string& reason) { doubt(where, reason); });
  {
    const std::lock_guard lock(mutex_);
    applier_ = std::move(applier);
  }
  applying_ = std::thread([this] {
    giveWay();
    queue_->DbThreadStarted();
    applier_->run();
  });
}

void WatchSession::compareOld() {
  for (const auto& volume : volumes_) {
    if (volume->isNew || isStopping()) continue;
    {
      const std::lock_guard lock(mutex_);
      volume->doubt = "it was not watched for a while";
    }
    compare(*volume);
  }
}

void WatchSession::stop() {
  const bool atOnce = ++stops_ > 1;
  {
    const std::lock_guard lock(mutex_);
    if (atOnce && applier_) applier_->giveUp();
  }
  changed_.notify_all();
}

// The marks go first; then whatever was queued by then is said and applied.
void WatchSession::finish() {
  const std::time_t ended = std::time(nullptr);
  const auto never = [] { return false; };
  bool inOrder = stops_ == 1;
  for (const auto& volume : volumes_) {
    volume->port->driver().endCapture([](std::uint64_t) {});
    inOrder = inOrder && catchUp(*volume, never);
  }
  if (inOrder) {
    applier_->finishAtNextNoop();
    ports_[0]->driver().barrier([](std::uint64_t) {});
  }
  for (const auto& port : ports_) port->end();
  queue_->DriverThreadShutDown();
  if (!inOrder) applier_->abandon();
  applying_.join();
  for (const auto& volume : volumes_) {
    // A volume in doubt is as of the time it was as of before.
    volume->rows->close(inOrder && isLive(*volume) ? ended : 0);
    queue_->DbShutDown(volume->device);
  }
  queue_->DbThreadShutDown();
  keepNumbers();
}

// Nothing was applied yet, and what is queued is of no use to a catalogue that is not there.
void WatchSession::finishBeforeApplying() {
  for (const auto& port : ports_) port->end();
  keepNumbers();
  listeners_.note("stopped before the scan was done; the next start scans anew");
}

void WatchSession::keepNumbers() const {
  NumbersByDevt numbers;
  for (const auto& volume : volumes_) {
    const unsigned long long next = volume->port->driver().nextSequence();
    numbers[volume->device] = {next, applier_ ? applier_->expected(volume->device) : next};
  }
  kddc::keepNumbers(plan_.numbersFile, numbers);
}
}  // namespace kddc
