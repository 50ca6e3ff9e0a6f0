// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc volumes list|add|remove: the registry of volumes, told and edited.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/catalogue_place.h"
#include "agent/commands/status.h"
#include "agent/control/protocol.h"
#include "agent/engine/catalogue_folder.h"
#include "agent/errors.h"
#include "agent/output.h"
#include "agent/own_folder.h"
#include "agent/registry/disk_identity.h"
#include "agent/registry/registered_volumes.h"
#include "platform/platform_info.h"
#include "platform/printable.h"
#include "volumes/volume_registry.h"

namespace kddc {
namespace {

// A registered volume, and how it is just now.
struct Told {
  RegisteredVolume volume;
  bool isMounted = false;
  std::string identity;     // of what is mounted
  bool isReplaced = false;  // another file system stands there than at the last refresh
  std::string state;
};

// A catalogue that cannot be read is no reason to tell nothing of the other volumes.
std::string stateOf(const Options& options, const Told& told) {
  if (!told.isMounted) return "not mounted";
  try {
    return stateText(statusOf(options, told.volume.mountPoint));
  } catch (const Failure& e) {
    if (access((told.volume.catalogue + kFilesDatabase).c_str(), F_OK) != 0) return "not scanned";
    complain(e.what());
    return "unusable";
  }
}

std::vector<Told> tellAll(Options options) {
  options.catalogue.clear();  // it names that of one volume only
  const auto mounts = mountsByPlace();
  const auto identities = knownIdentities();
  std::vector<Told> all;
  for (RegisteredVolume& volume : registeredVolumes()) {
    Told& told = all.emplace_back();
    told.volume = std::move(volume);
    const auto mount = mounts.find(told.volume.mountPoint);
    const auto known = identities.find(told.volume.mountPoint);
    told.isMounted = mount != mounts.end();
    if (told.isMounted) told.identity = identityOf(mount->second);
    told.isReplaced = known != identities.end() && areDifferent(known->second, told.identity);
    told.state = stateOf(options, told);
  }
  return all;
}

std::string toJson(const Told& told) {
  nlohmann::json object;
  object["number"] = told.volume.number;
  putBytes(object, "mount_point", told.volume.mountPoint);
  putBytes(object, "device", told.volume.device);
  putBytes(object, "type", told.volume.fsType);
  object["local"] = told.volume.isLocal;
  object["mounted"] = told.isMounted;
  object["identity"] = told.identity.empty() ? nlohmann::json() : nlohmann::json(told.identity);
  object["replaced"] = told.isReplaced;
  putBytes(object, "catalogue", told.volume.catalogue);
  putBytes(object, "state", told.state);
  return printableJson(object.dump()) + '\n';
}

using Line = std::array<std::string, 7>;

Line lineOf(const Told& told) {
  const RegisteredVolume& volume = told.volume;
  return {fmt::format("{}", volume.number),
          printable(volume.mountPoint),
          printable(volume.device),
          printable(volume.fsType),
          volume.isLocal ? "local" : "shared",
          printable(volume.catalogue),
          printable(told.state)};
}

// In characters; of UTF-8 all bytes but the first of each are 10xxxxxx.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::ranges::count_if(text, [](char c) { return (c & 0xc0) != 0x80; }));
}

// The last column is as long as it likes.
std::string table(const std::vector<Line>& lines) {
  std::array<std::size_t, std::tuple_size_v<Line>> widths{};
  for (const Line& line : lines)
    for (std::size_t i = 0; i + 1 < line.size(); ++i)
      widths[i] = std::max(widths[i], widthOf(line[i]));
  std::string text;
  for (const Line& line : lines) {
    for (std::size_t i = 0; i + 1 < line.size(); ++i)
      text += line[i] + std::string(widths[i] - widthOf(line[i]) + 2, ' ');
    text += line.back() + '\n';
  }
  return text;
}

void print(const std::vector<Told>& all, bool json) {
  std::string text;
  std::vector<Line> lines = {
      {"number", "mount point", "device", "type", "reach", "catalogue", "state"}};
  for (const Told& told : all) {
    if (json) text += toJson(told);
    lines.push_back(lineOf(told));
  }
  printAnswer(json ? text : table(lines));
}

// What a command does to the table of the mode.
enum class Edit { kPut, kDrop };

KdMntEntry requireMountPoint(const std::string& place) {
  const auto mounts = mountsByPlace();
  if (const auto mount = mounts.find(place); mount != mounts.end()) return mount->second;
  throw Failure(place +
                " is no mount point, so it cannot be registered; any folder can be scanned or "
                "watched by its path");
}

// What no refresh would register is better said at once.
void requireRegistrable(const KdMntEntry& mount) {
  long long rootToo = 0;
  KDPlatformInfo::getNumber("DataClassification", "nEnableMonitoringForRoot", &rootToo);
  if (mount.mountPoint == "/" && rootToo == 0)
    throw Failure("/ is registered only with nEnableMonitoringForRoot = 1 in the settings");
  char support = 0;
  if (!supported_fs_type(mount.fsType.c_str(), &support))
    throw Failure(fmt::format("{} cannot be registered: its type ({}) is not in the table FSTYPE",
                              mount.mountPoint, mount.fsType));
}

void edit(RegistryMode mode, Edit edit, const std::string& place) {
  RegistryEditor registry;
  const auto names = registry.names(mode);
  const bool isListed = std::ranges::find(names, place) != names.end();
  if (edit == Edit::kPut && isListed)
    throw Failure(fmt::format("{} is listed in {} already", place, tableOf(mode)));
  // A name that is listed can be dropped, whatever became of the place.
  if (!isListed) requireMountPoint(place);
  if (edit == Edit::kDrop && !isListed)
    throw Failure(fmt::format("{} is not listed in {}", place, tableOf(mode)));
  if (edit == Edit::kPut)
    registry.putName(mode, place);
  else
    registry.dropName(mode, place);
  registry.close();
}

void note(const Options& options, const std::string& sentence) {
  if (!options.quiet) complain(sentence);
}

}  // namespace

int runVolumesList(const Options& options, bool json) {
  const std::vector<Told> all = tellAll(options);
  if (all.empty()) {
    note(options, "no volume is registered; start with: kddc volumes add, kddc volumes refresh");
    return kExitDone;
  }
  print(all, json);
  for (const Told& told : all)
    if (told.isReplaced)
      complain(told.volume.mountPoint +
               " is another file system than at the last refresh, and the catalogue is of the "
               "other one; run: kddc volumes refresh");
  return kExitDone;
}

// The modes are mirror images: one lists what is to be registered, the other what is not, so to add
// a volume is to drop its name there.
int runVolumesAdd(const Options& options, const std::string& path) {
  const std::string place = settledPath(path);
  const RegistryMode mode = registryMode();
  requireRegistrable(requireMountPoint(place));
  edit(mode, mode == RegistryMode::kMonitor ? Edit::kPut : Edit::kDrop, place);
  note(options, "the next kddc volumes refresh registers " + place);
  return kExitDone;
}

int runVolumesRemove(const Options& options, const std::string& path) {
  const std::string place = settledPath(path);
  const RegistryMode mode = registryMode();
  edit(mode, mode == RegistryMode::kMonitor ? Edit::kDrop : Edit::kPut, place);
  note(options, mode == RegistryMode::kMonitor ? "the next kddc volumes refresh forgets " + place +
                                                     " and removes its catalogue"
                                               : "the next kddc volumes refresh forgets " + place);
  return kExitDone;
}

}  // namespace kddc
