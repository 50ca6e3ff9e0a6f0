// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc volumes refresh: brings the registry in step with what is mounted, and the catalogues with
// the file systems they are of.
#include "agent/commands/volumes_refresh.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "agent/catalogue_place.h"
#include "agent/commands/status.h"
#include "agent/engine/catalogue_folder.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/errors.h"
#include "agent/output.h"
#include "agent/registry/disk_identity.h"
#include "agent/registry/registered_volumes.h"
#include "platform/ev_debug.h"
#include "platform/platform_info.h"
#include "platform/printable.h"
#include "volumes/catalogue_files.h"
#include "volumes/volume_registry.h"

namespace kddc {
namespace {

using Volumes = std::vector<RegisteredVolume>;

// The library scans as far as it can and logs what it could not do. The lines also go where they
// went before.
class ErrorsLogged {
 public:
  ErrorsLogged() {
    before_ = dbg.SetSink([this](const EvDebug::Line& line) {
      if (line.kind == EvDebug::Line::kError) errors_.emplace_back(line.text);
      if (before_) before_(line);
    });
  }
  ~ErrorsLogged() { dbg.SetSink(before_); }
  ErrorsLogged(const ErrorsLogged&) = delete;
  ErrorsLogged& operator=(const ErrorsLogged&) = delete;

  const std::vector<std::string>& errors() const { return errors_; }

 private:
  EvDebug::Sink before_;
  std::vector<std::string> errors_;
};

const RegisteredVolume* findIn(const Volumes& volumes, const std::string& mountPoint) {
  const auto found = std::ranges::find(volumes, mountPoint, &RegisteredVolume::mountPoint);
  return found == volumes.end() ? nullptr : &*found;
}

// In monitor mode the catalogues of volumes that are no longer listed are removed, which nobody may
// be using. Asks for the table also in filter mode: without it the scan could not choose.
void refuseToStopUsed(RegistryMode mode) {
  RegistryEditor registry;
  const auto listed = registry.names(mode);
  registry.close();
  if (mode == RegistryMode::kFilter) return;
  for (const RegisteredVolume& volume : registeredVolumes())
    if (std::ranges::find(listed, volume.mountPoint) == listed.end())
      refuseWhileInUse(volume.catalogue);
}

// Whether everything was done; what was not has been complained about.
bool scanMounts(const Options& options, RegistryMode mode) {
  std::string shared;
  KDPlatformInfo::getString("DataClassification", "SharedVolumesFile", &shared);
  const ErrorsLogged logged;
  scan_and_update_volumes(shared.c_str(), mode == RegistryMode::kFilter, nullptr, "",
                          (stateFolder(options) + "/queues").c_str(), {});
  for (const std::string& error : logged.errors())
    complain("the registry is not up to date: " + error);
  return logged.errors().empty();
}

// Where a volume that was not registered until now has its catalogue already: then it stays there.
std::string presentCatalogue(const Options& options, const std::string& mountPoint) {
  if (const auto status = watchedStatus(options, mountPoint)) return status->catalogue;
  const std::string folder = defaultCatalogueFolder(options, mountPoint);
  return volumeOf(folder) == mountPoint ? folder : "";
}

bool liesOn(const std::string& folder, const std::string& mountPoint) {
  struct stat inner {
  }, outer{};
  return stat(folder.c_str(), &inner) == 0 && stat(mountPoint.c_str(), &outer) == 0 &&
         inner.st_dev == outer.st_dev;
}

// The catalogue of a file system that stood there before must not answer for the one that stands
// there now. One that lies on the file system itself came with it. False when it is in use.
bool dropCatalogue(const RegisteredVolume& volume) {
  if (const auto user = userOf(volume.catalogue)) {
    complain(
        fmt::format("{} is another file system than before, but its catalogue is in use by "
                    "{}; stop it, then refresh again",
                    volume.mountPoint, *user));
    return false;
  }
  const bool stays = liesOn(volume.catalogue, volume.mountPoint);
  if (!stays) RemoveDCDb(volume.catalogue);
  complain(fmt::format("{} is another file system than before; {}", volume.mountPoint,
                       stays ? "its catalogue came with it" : "its catalogue begins anew"));
  return true;
}

// What follows the scan: the places of catalogues, and the identities.
class Settlement {
 public:
  Settlement(const Options& options, const Volumes& before) : options_(options), before_(before) {}

  // Whether everything was done.
  bool settle(Volumes& volumes) {
    bool isWhole = true;
    for (RegisteredVolume& volume : volumes)
      if (const auto mount = mounts_.find(volume.mountPoint); mount != mounts_.end())
        isWhole = settle(volume, identityOf(mount->second)) && isWhole;
    registry_.close();
    return isWhole;
  }

 private:
  bool settle(RegisteredVolume& volume, const std::string& identity) {
    const std::string known = identities_[volume.mountPoint];
    const RegisteredVolume* before = findIn(before_, volume.mountPoint);
    const bool identityTells = !known.empty() && !identity.empty();
    // The scan goes by the name of the device and gives a disk that came back under another one a
    // new row, with a new place. Where the identity tells, it keeps the old place.
    if (!before)
      putCatalogue(volume, presentCatalogue(options_, volume.mountPoint));
    else if (identityTells)
      putCatalogue(volume, before->catalogue);

    const bool isAnother =
        identityTells ? areDifferent(known, identity) : before && before->device != volume.device;
    // As long as the catalogue is the old one's, the next refresh must notice again.
    if (isAnother && !dropCatalogue(volume)) return false;
    if (!identity.empty() && identity != known) registry_.setIdentity(volume.mountPoint, identity);
    return true;
  }
  void putCatalogue(RegisteredVolume& volume, const std::string& folder) {
    if (folder.empty() || folder == volume.catalogue) return;
    volume.catalogue = folder;
    registry_.setCatalogue(volume.mountPoint, folder);
  }

  const Options& options_;
  const Volumes& before_;
  std::map<std::string, KdMntEntry> mounts_ = mountsByPlace();
  std::map<std::string, std::string> identities_ = knownIdentities();
  RegistryEditor registry_;
};

void printNew(const char* word, const Volumes& volumes, const Volumes& others) {
  for (const RegisteredVolume& volume : volumes)
    if (!findIn(others, volume.mountPoint))
      printAnswer(fmt::format("{} {}\n", word, printable(volume.mountPoint)));
}

}  // namespace

RegistryChange refreshRegistry(const Options& options) {
  const RegistryMode mode = registryMode();
  // Where the settings name no other place, what we keep lies together, not in the volumes.
  KDPlatformInfo::setDefault("DataClassification", "DB_FOLDER", cataloguesFolder(options));
  refuseToStopUsed(mode);
  RegistryChange change;
  change.before = registeredVolumes();
  change.isWhole = scanMounts(options, mode);
  change.after = registeredVolumes();
  change.isWhole = Settlement(options, change.before).settle(change.after) && change.isWhole;
  return change;
}

int runVolumesRefresh(const Options& options) {
  const RegistryChange change = refreshRegistry(options);
  printNew("removed", change.before, change.after);
  printNew("added", change.after, change.before);
  if (!options.quiet) fmt::print(stderr, "{} registered\n", change.after.size());
  return change.isWhole ? kExitDone : kExitFailed;
}

}  // namespace kddc
