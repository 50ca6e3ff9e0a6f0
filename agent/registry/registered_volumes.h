// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The registry as the program reads and edits it. Beside the tables of the registry it keeps one of
// its own, which tells which file system stood at a mount point:
//
//   IDENTITY(MOUNT_POINT, UUID)   one row for each mount point that was ever a volume
//
// A row of it outlives the volume's own: a disk may go, and another come, with a refresh between.
//
// Readers take no lock and make nothing: a registry that is missing holds no volume. A reader of a
// registry on a read-only file system is served as well.
//
// Threads: one per object. Failures: Failure, with the registry's path, why, and what to do.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/mount_table.h"
#include "platform/udc_dbms.h"

namespace kddc {

struct RegisteredVolume {
  long long number = 0;
  std::string mountPoint;
  std::string device, fsType;  // as of the last refresh
  std::string catalogue;       // the folder
  bool isLocal = true;
};

// By number.
std::vector<RegisteredVolume> registeredVolumes();
// The same for a user who may not look into the registry of the host: it is nothing to them.
std::vector<RegisteredVolume> registeredVolumesIfReadable();

// The catalogue folder of the volume mounted there; none when no registry that this user may read
// knows it.
std::optional<std::string> registeredCatalogue(const std::string& mountPoint);

// The identity (see identityOf) of what stood at each mount point at its last refresh.
std::map<std::string, std::string> knownIdentities();

// Which of the two tables says what is registered: every file system that can be, but those in
// FILTER, or those in MONITOR alone.
enum class RegistryMode { kMonitor, kFilter };
// The key "VolumesMode", "monitor" (the default) or "filter".
RegistryMode registryMode();
const char* tableOf(RegistryMode mode);

// The mount table as a map: of several mounts at one place the last, which covers the others.
std::map<std::string, KdMntEntry> mountsByPlace();

// The names in the mode's table: of the volumes that are to be registered, or that are not.
std::set<std::string> listedNames(RegistryMode mode);

// Whether this process may edit the registry; a service mostly only reads it.
bool mayEditRegistry();

// The registry, open for writing; made when it is missing. One process has it at a time.
class RegistryEditor {
 public:
  RegistryEditor();
  // Commits, and closes it; until then nothing is kept.
  void close();

  // The names in MONITOR or FILTER.
  std::list<std::string> names(RegistryMode mode);
  void putName(RegistryMode mode, const std::string& mountPoint);
  void dropName(RegistryMode mode, const std::string& mountPoint);

  void setCatalogue(const std::string& mountPoint, const std::string& folder);
  void setIdentity(const std::string& mountPoint, const std::string& identity);

 private:
  void run(const std::string& sql);

  std::unique_ptr<UDC_DBMS> db_;
};

}  // namespace kddc
