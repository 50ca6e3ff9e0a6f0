// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc check VOLUME: the integrity of both databases.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/engine/catalogue_condition.h"
#include "agent/engine/catalogue_folder.h"
#include "agent/engine/own_catalogue.h"
#include "agent/errors.h"
#include "agent/output.h"
#include "platform/unique_fd.h"

namespace kddc {
namespace {

struct Database {
  const char* name;
  const char* file;
};
constexpr Database kDatabases[] = {{"files database", kFilesDatabase},
                                   {"fid database", kFidDatabase}};

// The first bytes of every SQLite database, the NUL included.
constexpr char kMagicText[] = "SQLite format 3";
constexpr std::string_view kMagic(kMagicText, sizeof kMagicText);

// A check would make an empty database of a missing one.
void requireDatabase(const std::string& path, const std::string& volume) {
  std::array<char, kMagic.size()> start{};
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file)
    throw Failure(fmt::format("cannot read {}: {}; make a catalogue with: kddc scan {}", path,
                              std::strerror(errno), volume));
  const ssize_t length = read(file.get(), start.data(), start.size());
  if (length < 0 || std::string_view(start.data(), start.size()) != kMagic)
    throw Failure(
        fmt::format("{} is no database; make a new catalogue with: kddc scan {}", path, volume));
}

}  // namespace

int runCheck(const Options& options, const std::string& volume) {
  const std::string path = realVolumePath(volume);
  const std::string folder = catalogueFolder(options, path);
  requireOwnFiles(folder);
  for (const Database& database : kDatabases) requireDatabase(folder + database.file, path);
  refuseWhileInUse(folder);

  int result = kExitDone;
  for (const Database& database : kDatabases) {
    const bool ok = passesCheck(folder + database.file);
    printAnswer(fmt::format("{}: {}\n", database.name, ok ? "ok" : "damaged"));
    if (!ok) result = kExitDifference;
  }
  return result;
}

}  // namespace kddc
