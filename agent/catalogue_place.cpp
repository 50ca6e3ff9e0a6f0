// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/catalogue_place.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "agent/errors.h"
#include "agent/own_folder.h"
#include "agent/registry/registered_volumes.h"
#include "platform/platform_info.h"

namespace kddc {
namespace fs = std::filesystem;
namespace {

constexpr std::size_t kMaxLabel = 64;

// FNV-1a with 64 bits; the standard library's hash may be another one in its next release.
std::uint64_t hashOf(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

bool isPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

// For people who look into the state folder.
std::string labelOf(const std::string& volumePath) {
  std::string label = fs::path(volumePath).filename().string().substr(0, kMaxLabel);
  std::ranges::replace_if(
      label, [](char c) { return !isPlain(c); }, '_');
  return label.empty() ? "root" : label;
}

std::string homeFolder() {
  if (const char* home = secure_getenv("HOME"); home && home[0] == '/') return home;
  const passwd* user = getpwuid(geteuid());
  if (!user) throw Failure("cannot tell where to keep the state; name a folder with --state");
  return user->pw_dir;
}

std::string defaultStateFolder() {
  if (geteuid() == 0) return "/var/lib/kddc";
  const char* base = secure_getenv("XDG_STATE_HOME");
  return (base && base[0] == '/' ? std::string(base) : homeFolder() + "/.local/state") + "/kddc";
}

}  // namespace

// Two names of one folder are one volume.
std::string realVolumePath(const std::string& volume) {
  std::error_code error;
  const fs::path path = fs::canonical(volume, error);
  if (error) throw systemFailure("cannot use the volume " + volume, error.value());
  if (!fs::is_directory(path, error))
    throw Failure("cannot use the volume " + volume + ": it is no folder");
  return path.string();
}

// The label is for people, the number keeps apart what has one label. Both stay as they are:
// existing catalogues are found by them.
std::string placeName(const std::string& volumePath) {
  return fmt::format("{}-{:016x}", labelOf(volumePath), hashOf(volumePath));
}

std::string stateFolder(const Options& options) {
  if (!options.state.empty()) return settledPath(options.state);
  std::string configured;
  KDPlatformInfo::getString("DataClassification", "StateDir", &configured);
  return settledPath(configured.empty() ? defaultStateFolder() : configured);
}

std::string cataloguesFolder(const Options& options) {
  return stateFolder(options) + "/catalogues";
}

std::string defaultCatalogueFolder(const Options& options, const std::string& volumePath) {
  return cataloguesFolder(options) + "/" + placeName(volumePath);
}

std::string catalogueFolder(const Options& options, const std::string& volumePath) {
  if (!options.catalogue.empty()) return settledPath(options.catalogue);
  if (const auto registered = registeredCatalogue(volumePath)) return settledPath(*registered);
  return defaultCatalogueFolder(options, volumePath);
}

std::string socketsFolder(const Options& options) {
  return stateFolder(options) + "/sockets";
}

std::string controlSocket(const Options& options, const std::string& volumePath) {
  return socketsFolder(options) + "/" + placeName(volumePath);
}

}  // namespace kddc
