// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The part of a watch session that takes a volume up and lets go of it, step by step. Each step
// leaves what it made in the volume, so that the next try goes on where this one failed.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <utility>

#include "agent/catalogue_place.h"
#include "agent/engine/catalogue_condition.h"
#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/engine/full_scan.h"
#include "agent/engine/own_catalogue.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "agent/live/watched_volume.h"
#include "agent/own_folder.h"
#include "platform/file_handle.h"
#include "volumes/catalogue_files.h"

namespace kddc {
namespace {

// What is let go of has this long to be brought up to date first.
constexpr std::chrono::milliseconds kFarewell(500);

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

// Nothing of the volume's may be touched before: the queue of another process would be emptied.
std::unique_ptr<LockFile> takeLock(const WatchPlan::Volume& volume) {
  makeFolders(std::filesystem::path(volume.lockFile).parent_path());
  auto lock = std::make_unique<LockFile>();
  if (lock->take(volume.lockFile, false, std::chrono::seconds(0))) return lock;
  if (errno != EWOULDBLOCK) throw systemFailure("cannot use " + volume.lockFile, errno);
  throw Failure(fmt::format("{} is watched by {}; stop it first", volume.path,
                            describeProcess(LockFile::holderOf(volume.lockFile).value_or(0))));
}

// A folder that is named after the volume holds no other's catalogue: when it says so, the name of
// its root is damaged.
bool hasLostItsName(const WatchPlan::Volume& volume) {
  return std::filesystem::path(volume.catalogue).filename() == placeName(volume.path) &&
         volumeOf(volume.catalogue).value_or(volume.path) != volume.path;
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

}  // namespace

FileKey keyOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? FileKey{st.st_dev, st.st_ino} : FileKey{};
}

DetachedFolder openRoot(const std::string& path) {
  try {
    return DetachedFolder(path);
  } catch (const std::system_error& e) {
    throw systemFailure("cannot read the volume " + path, e.code().value());
  }
}

std::vector<CoveredPlace> coveredIn(const DetachedFolder& root, const std::string& path) {
  auto covered = root.covered();
  if (!covered) throw Failure(path + " is not mounted any more");
  return *std::move(covered);
}

WatchSession::InHand::InHand(WatchSession& session, Volume& volume)
    : session_(session), volume_(volume) {
  std::unique_lock lock(session_.mutex_);
  session_.changed_.wait(lock, [&] { return !volume_.inHand; });
  volume_.inHand = true;
}

WatchSession::InHand::~InHand() {
  {
    const std::lock_guard lock(session_.mutex_);
    volume_.inHand = false;
  }
  session_.changed_.notify_all();
}

void WatchSession::arrive(Volume& volume) {
  const std::string& path = volume.plan.path;
  const auto now = volumeMountAt(path);
  const Standing standing = this->standing(volume, now);
  if (standing == Standing::kGone) {
    // It has a reason to tell, perhaps.
    if (!volume.mount && !plan_.registered) const FanotifyGroup group(path);
    const std::lock_guard lock(mutex_);
    volume.absent = true;
    throw Absent(path + " is not mounted");
  }
  if (!volume.lock) volume.lock = takeLock(volume.plan);
  const std::lock_guard lock(mutex_);
  volume.isAnother = volume.mount && standing == Standing::kOther;
  volume.mount = now;
  volume.failed = false;
}

// A catalogue that was there must be compared with the disk: nobody has followed it meanwhile.
void WatchSession::examine(Volume& volume) {
  const std::string& folder = volume.plan.catalogue;
  requireOwnCatalogue(folder);
  refuseWhileInUse(folder);
  CatalogueCondition condition;
  if (!std::exchange(volume.isAnother, false))
    condition = examineCatalogue(folder, volume.plan.path);
  if (condition.kind == CatalogueCondition::Kind::kNone && hasLostItsName(volume.plan))
    condition = {CatalogueCondition::Kind::kDamaged, "the name of its root is damaged"};
  if (condition.kind == CatalogueCondition::Kind::kDamaged)
    listeners_.note(fmt::format("{}: the catalogue cannot be used ({}); it was set aside as {}",
                                volume.plan.path, condition.why, setAside(folder)));
  if (condition.kind != CatalogueCondition::Kind::kUsable)
    volume.fresh = std::make_unique<NewCatalogue>(folder, volume.plan.path);
  const std::lock_guard lock(mutex_);
  volume.scanning = volume.fresh != nullptr;
  if (!volume.fresh && volume.doubt.empty()) volume.doubt = "it was not watched for a while";
  volume.remedy = Doubt::Remedy::kCompare;
}

// One driver for each file system, whatever the number of volumes on it: none is made while another
// one ends there, whose numbers it goes on with, and none ends that a volume is about to share.
void WatchSession::connect(Volume& volume) {
  const std::lock_guard alone(connecting_);
  const dev_t device = volume.mount->device;
  std::vector<fsf_fid> own = ownFolders(volume);
  std::shared_ptr<DriverPort> port;
  {
    const std::lock_guard lock(mutex_);
    if (const auto known = ports_.find(device); known != ports_.end()) port = known->second;
  }
  if (port) {
    port->driver().addRoot(volume.plan.path, std::move(own));
  } else {
    DriverOptions options;
    options.roots = {volume.plan.path};
    options.leaveOut = std::move(own);
    port = makePort(device, std::move(options));
  }
  if (port->driver().device() != device)
    throw Failure(volume.plan.path + " was mounted anew just now");
  const fsf_fid root = rootOf(volume.plan.path);
  const std::lock_guard lock(mutex_);
  ports_[device] = port;
  volume.port = std::make_shared<VolumePort>(std::move(port), root);
}

std::shared_ptr<DriverPort> WatchSession::makePort(dev_t device, DriverOptions options) {
  RecordNumbers numbers;
  {
    const std::lock_guard lock(mutex_);
    const bool isNew = !numbers_.contains(device);
    numbers = numbers_[device];
    if (isNew) keepFarAhead(plan_.numbersFile, numbers_);
  }
  applier_->expect(device, numbers.expected);
  options.firstSequence = numbers.next;
  options.stubAttribute = plan_.stubAttribute;
  options.queue = plan_.events;
  DriverSinks sinks;
  sinks.record = [this](std::span<unsigned char> bytes) {
    const std::lock_guard lock(adding_);
    queue_->AddEntry(bytes.data(), static_cast<int>(bytes.size()));
    ++queuedRecords_;
    queuedBytes_ += bytes.size();
  };
  sinks.doubt = [this, device](const std::string& reason) { doubt(device, {reason}); };
  auto port = std::make_shared<DriverPort>(std::move(options), std::move(sinks), manager_);
  if (isRunning_) port->start();
  return port;
}

std::vector<fsf_fid> WatchSession::ownFolders(const Volume& volume) const {
  std::vector<fsf_fid> fids;
  for (const std::string& own :
       {plan_.stateFolder, volume.plan.catalogue, volume.plan.catalogue + ".new"})
    addFid(own, volume.mount->device, fids);
  return fids;
}

WalkOptions WatchSession::walkOptions(const Volume& volume) const {
  WalkOptions options;
  options.stubAttribute = plan_.stubAttribute;
  for (const std::string& own :
       {plan_.stateFolder, volume.plan.catalogue, volume.plan.catalogue + ".new"})
    if (const FileKey key = keyOf(own); !(key == FileKey{})) options.leaveOut.push_back(key);
  return options;
}

void WatchSession::fill(Volume& volume) {
  if (volume.fresh) scan(volume);
  attach(volume);
}

// A stop ends the work in whatever it was doing then; that is no failure of its own.
void WatchSession::scan(Volume& volume) {
  WalkOptions options = walkOptions(volume);
  std::vector<fsf_fid> lost;  // known, but nobody has seen what they hold
  options.folderLost = [&](const fsf_fid& folder) { lost.push_back(folder); };
  const std::time_t began = std::time(nullptr);
  const auto fresh = std::move(volume.fresh);
  try {
    fresh->rows().setTick([&] { return !isEnding(volume); });
    during("cannot scan " + volume.plan.path, [&] {
      const DetachedFolder root = openRoot(volume.plan.path);
      options.covered = coveredIn(root, volume.plan.path);
      fullScan(root.open(), volume.plan.path, options, fresh->rows(), listeners_.progress);
    });
    fresh->publish(began);
  } catch (const Failure&) {
    if (isEnding(volume) || interrupted()) throw Stopped();
    throw;
  }
  for (const fsf_fid& folder : lost) volume.port->list(folder);
  // Our own changes raise no events for us; this one may have been made inside the volume.
  fsf_fid parent;
  const std::string above = std::filesystem::path(volume.plan.catalogue).parent_path();
  if (deviceOf(above) == volume.mount->device &&
      identify(AT_FDCWD, above.c_str(), parent, true) == 0)
    volume.port->lookAt(parent);
  const std::lock_guard lock(mutex_);
  volume.scanning = false;
  // Records that came while the database thread was at work had no catalogue to go to.
  if (applying_.joinable() && volume.doubt.empty()) volume.doubt = "it was scanned anew";
}

void WatchSession::attach(Volume& volume) {
  auto rows =
      std::make_shared<VolumeRows>(volume.plan.catalogue, volume.mount->device, *volume.port);
  if (listeners_.change)
    rows->observe([this, &name = volume.plan.path](auto kind, const std::string& path) {
      listeners_.change(name, kind, path);
    });
  applier_->attach(*rows);
  const std::lock_guard lock(mutex_);
  volume.rows = std::move(rows);
  volume.catalogueFile = keyOf(volume.plan.catalogue + kFilesDatabase);
}

// Whether it was closed in good order. What was not is examined when it is opened the next time.
bool WatchSession::detach(Volume& volume, std::time_t asOf) {
  std::shared_ptr<VolumeRows> rows;
  {
    const std::lock_guard lock(mutex_);
    volume.settled = settledIn(volume);
    rows = std::exchange(volume.rows, nullptr);
    setStale(volume);
  }
  if (!rows) return true;
  applier_->detach(*rows);
  try {
    if (!std::filesystem::exists(volume.plan.catalogue)) putBack(volume, *rows);
    rows->close(asOf);
    return true;
  } catch (...) {
    listeners_.note(fmt::format("{}: the catalogue could not be closed: {}", volume.plan.path,
                                describeCurrentException()));
    return false;
  }
}

// A catalogue whose folder was removed is still open. What was asked of it is answered as before,
// and files keep their numbers.
void WatchSession::putBack(const Volume& volume, VolumeRows& rows) {
  const std::string beside = volume.plan.catalogue + ".new";
  RemoveDCDb(beside);
  makeFolders(beside);
  rows.copyTo(beside);
  if (std::rename(beside.c_str(), volume.plan.catalogue.c_str()) != 0)
    throw systemFailure("cannot put the catalogue back at " + volume.plan.catalogue, errno);
  listeners_.note(fmt::format("{}: its catalogue was removed and is put back", volume.plan.path));
}

void WatchSession::disconnect(Volume& volume) {
  const std::lock_guard alone(connecting_);
  std::shared_ptr<VolumePort> port;
  bool isShared = false;
  {
    const std::lock_guard lock(mutex_);
    port = std::exchange(volume.port, nullptr);
    if (!port) return;
    for (const auto& other : volumes_)
      isShared = isShared || (other->port && &other->port->port() == &port->port());
    volume.overflows += port->driver().counts().overflows;
    if (!isShared) ports_.erase(volume.mount->device);
  }
  if (isShared) {
    port->driver().dropRoot(port->root());
    return;
  }
  port->port().end();
  const std::lock_guard lock(mutex_);
  numbers_[volume.mount->device].next = port->driver().nextSequence();
}

// What happened until now is still said, as far as it can be had at once.
void WatchSession::leave(Volume& volume, const std::string& why) {
  {
    const std::lock_guard lock(mutex_);
    volume.leaving = true;
  }
  const InHand hand(*this, volume);
  const std::time_t left = std::time(nullptr);
  const auto end = Pacer::Clock::now() + kFarewell;
  const bool level = catchUp(volume, [&] { return Pacer::Clock::now() > end; });
  detach(volume, level && isLive(volume) ? left : 0);
  disconnect(volume);
  fail(volume, why);
  volume.fresh.reset();
  const std::lock_guard lock(mutex_);
  volume.absent = true;
  volume.scanning = volume.leaving = false;
}

}  // namespace kddc
