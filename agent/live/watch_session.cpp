// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/watch_session.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <deque>
#include <filesystem>
#include <future>
#include <set>

#include "agent/catalogue_place.h"
#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/engine/full_scan.h"
#include "agent/engine/new_catalogue.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/live/compare.h"
#include "agent/live/strays.h"
#include "catalogue/db_access.h"
#include "platform/file_handle.h"
#include "platform/lock_file.h"
#include "platform/platform_info.h"

namespace kddc {
namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;
using Clock = std::chrono::steady_clock;

// A question may raise another one: a name that came from outside is looked at, turns out to be a
// folder and is listed, and a file found there takes a name from another one. Under load new ones
// are raised all the time; those that an earlier round left are answered by then.
constexpr int kMostRounds = 32;
constexpr auto kMoment = 2ms;  // between two looks at something that is about to happen
constexpr auto kLook = 200ms;  // how often a wait asks whether it is still wanted
constexpr auto kFirstPause = 1s, kLongestPause = 300s;
constexpr std::uint64_t kMostOpenQuestions = 20'000;
constexpr std::size_t kMostReasons = 10;

UniqueFd openRoot(const std::string& path) {
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) throw systemFailure("cannot read the volume " + path, errno);
  return fd;
}

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
  if (lock.take(volume.lockFile, false, 0s)) return;
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

// Leaves a comparison because the session is being stopped.
struct WatchSession::Stopped {};

struct WatchSession::Volume {
  WatchPlan::Volume plan;
  LockFile lock;
  dev_t device = 0;
  std::unique_ptr<NewCatalogue> fresh;  // as long as there is no good catalogue
  bool isNew = false;                   // there was none
  std::unique_ptr<VolumePort> port;
  std::unique_ptr<VolumeRows> rows;

  // Guarded by the session's mutex.
  bool live = false, comparing = false;
  std::string doubt;  // why a comparison is due; empty: none is
  std::time_t staleSince = 0;
  std::time_t lastComparison = 0;
  std::uint64_t comparisons = 0;  // that have ended
  CompareCounts compared;         // by the last of them
  std::deque<VolumeStatus::Rescan> reasons;
  Clock::time_point notBefore{};
  Clock::duration pause = kFirstPause;
};

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
    queue_->DbThreadStarted();
    applier_->run();
  });
}

void WatchSession::compareOld() {
  for (const auto& volume : volumes_) {
    if (volume->isNew || isStopping()) continue;
    volume->doubt = "it was not watched for a while";
    compare(*volume);
  }
}

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
    volume.notBefore = Clock::now() + volume.pause;
    volume.pause = std::min<Clock::duration>(2 * volume.pause, kLongestPause);
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
    if (!volume->doubt.empty() && Clock::now() >= volume->notBefore) return volume.get();
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
