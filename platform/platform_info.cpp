// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Nothing is kept between two calls but the defaults: a setting is asked for when an object is
// made, rarely enough that reading the file each time costs less than noticing that it changed.
#include "platform/platform_info.h"

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string_view>

#include "platform/failure.h"
#include "platform/registry_folder.h"
#include "platform/settings_file.h"

namespace kddc {
namespace {

std::string fromEnvironment(const char* name, const char* otherwise) {
  const char* value = ::secure_getenv(name);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

struct Defaults {
  std::mutex mutex;
  Settings settings;
};

Defaults& defaults() {
  static Defaults instance;
  return instance;
}

std::string settingsPath() {
  return registryFolder() + "/settings.ini";
}

std::optional<Setting> find(const Settings& settings, const SectionAndKey& wanted) {
  const auto found = settings.find(wanted);
  if (found == settings.end()) return std::nullopt;
  return found->second;
}

std::optional<Setting> lookUp(const SectionAndKey& wanted) {
  if (auto setting = find(readSettings(settingsPath(), wanted), wanted)) return setting;
  const std::lock_guard lock(defaults().mutex);
  return find(defaults().settings, wanted);
}

std::optional<long long> wholeNumber(std::string_view text) {
  // from_chars knows "-" but not "+".
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  long long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

[[noreturn]] void failNumber(const SectionAndKey& wanted, const Setting& setting) {
  const std::string place =
      setting.line == 0 ? "the default" : settingsPath() + ":" + std::to_string(setting.line);
  failKd("KDPlatformInfo :: getNumber",
         place + ": \"" + wanted.second + "\" of section [" + wanted.first +
             "] must be a whole number that fits into 64 bits, not \"" + setting.value + "\"",
         -1);
}

}  // namespace

std::string registryFolder() {
  return fromEnvironment("KELDARA_REGISTRY_ROOT", "/etc/KeldaraRegistry");
}

}  // namespace kddc

int KDPlatformInfo::getNumber(const char* section, const char* key, long long* out) {
  const kddc::SectionAndKey wanted(section, key);
  const auto setting = kddc::lookUp(wanted);
  if (!setting) return 0;
  const auto number = kddc::wholeNumber(setting->value);
  if (!number) kddc::failNumber(wanted, *setting);
  *out = *number;
  return 1;
}

int KDPlatformInfo::getString(const char* section, const char* key, std::string* out) {
  const auto setting = kddc::lookUp({section, key});
  if (!setting) return 0;
  *out = setting->value;
  return 1;
}

void KDPlatformInfo::setDefault(const std::string& section, const std::string& key,
                                const std::string& value) {
  const std::lock_guard lock(kddc::defaults().mutex);
  kddc::defaults().settings[{section, key}] = {value, 0};
}

std::string KDPI_Base::getZentharDirectory() {
  return kddc::fromEnvironment("ZENTHAR_DIRECTORY", "/opt/zenthar");
}
