// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The part of a watch session that looks at the places of its volumes: what was mounted, unmounted,
// replaced, registered. It lets go of what is gone; what is back it leaves to the main thread.
#include <algorithm>
#include <ctime>
#include <utility>

#include "agent/engine/catalogue_folder.h"
#include "agent/errors.h"
#include "agent/live/watched_volume.h"
#include "platform/ev_debug.h"
#include "platform/mount_info.h"

namespace kddc {
namespace {

// How often places are looked at while the mount table does not change.
constexpr std::chrono::milliseconds kPlaces(1000);
constexpr char kTag[] = "WatchSession";

std::vector<std::string> mountsInside(const std::vector<MountInfo>& mounts,
                                      const std::string& path) {
  std::vector<std::string> inside;
  for (const MountInfo& mount : mounts)
    if (mount.mountPoint != path && isAtOrBelow(mount.mountPoint, path))
      inside.push_back(mount.mountPoint);
  return inside;
}

}  // namespace

WatchSession::Volume& WatchSession::add(WatchPlan::Volume plan) {
  auto volume = std::make_unique<Volume>();
  volume->plan = std::move(plan);
  volume->staleSince = std::time(nullptr);
  volume->mountsInside = mountsInside(readMountInfo(), volume->plan.path);
  const std::lock_guard lock(mutex_);
  volumes_.push_back(std::move(volume));
  return *volumes_.back();
}

// A registered one is what is mounted there.
Standing WatchSession::standing(const Volume& volume, const std::optional<VolumeMount>& now) const {
  if (volume.mount) return standingOf(*volume.mount, now);
  const bool isThere = now && (!plan_.registered || now->place == volume.plan.path);
  return isThere ? Standing::kOther : Standing::kGone;
}

void WatchSession::watchPlaces() {
  while (!endPlacing_) {
    const bool mountsChanged = mountWatch_.wait(kPlaces);
    if (endPlacing_) return;
    try {
      for (Volume* volume : allVolumes()) lookAt(*volume);
      if (mountsChanged) noteMounts();
      for (Volume* volume : allVolumes()) lookForReturn(*volume);
    } catch (...) {
      dbg.Error(kTag, "eRRoR -- %s", describeCurrentException().c_str());
    }
  }
}

// The registry learns of another disk before that is taken up. What is mounted inside a volume
// covers a part of it, or uncovers it again.
void WatchSession::noteMounts() {
  const std::vector<MountInfo> mounts = readMountInfo();
  for (Volume* volume : allVolumes()) {
    std::vector<std::string> inside = mountsInside(mounts, volume->plan.path);
    if (std::exchange(volume->mountsInside, inside) != inside && isStill(*volume))
      doubt(*volume, {"something was mounted or unmounted inside it"});
  }
  const std::lock_guard lock(mutex_);
  mountsChanged_ = true;
}

void WatchSession::lookAt(Volume& volume) {
  if (!isStill(volume)) return leave(volume, volume.plan.path + " is not mounted");
  FileKey catalogue;
  {
    const std::lock_guard lock(mutex_);
    if (volume.rows) catalogue = volume.catalogueFile;
  }
  if (!(catalogue == FileKey{}) && !(keyOf(volume.plan.catalogue + kFilesDatabase) == catalogue))
    doubt(volume, {"its catalogue was removed or replaced", Doubt::Remedy::kReopen});
}

// Whether it is followed without a gap; one that is not followed at all has none. Numbers of mounts
// are given again, so the mark must be there, too.
bool WatchSession::isStill(const Volume& volume) const {
  std::shared_ptr<VolumePort> port;
  std::optional<VolumeMount> before;
  {
    const std::lock_guard lock(mutex_);
    port = volume.port;
    before = volume.mount;
  }
  return !port ||
         (port->driver().hasMark() &&
          standingOf(*before, volumeMountAt(volume.plan.path, &*before)) == Standing::kSame);
}

// Nobody has one in hand that is absent.
void WatchSession::lookForReturn(Volume& volume) {
  const auto isAbsent = [&] {
    const std::lock_guard lock(mutex_);
    return volume.absent;
  };
  if (!isAbsent()) return;
  const auto now = volumeMountAt(volume.plan.path);
  const std::lock_guard lock(mutex_);
  if (standing(volume, now) == Standing::kGone) return;
  volume.absent = false;
  volume.pacer.hurry();
  changed_.notify_all();
}

// One that is no longer registered is let go of; it may be registered again.
void WatchSession::followRegistered(bool mountsChanged) {
  std::vector<WatchPlan::Volume> registered;
  try {
    registered = plan_.registered(mountsChanged);
  } catch (...) {
    return listeners_.note("cannot tell which volumes are registered: " +
                           describeCurrentException());
  }
  for (const WatchPlan::Volume& plan : registered)
    if (!find(plan.path)) {
      add(plan);
      listeners_.added(plan.path);
    }
  for (Volume* volume : allVolumes()) {
    const bool wanted = std::ranges::find(registered, volume->plan.path,
                                          &WatchPlan::Volume::path) != registered.end();
    if (std::exchange(volume->wanted, wanted) && !wanted)
      leave(*volume, volume->plan.path + " is not registered any more");
  }
}

}  // namespace kddc
