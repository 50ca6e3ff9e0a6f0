// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/catalogue_folder.h"

#include <fmt/format.h>
#include <sys/types.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "agent/errors.h"
#include "platform/lock_file.h"

namespace kddc {
namespace {

constexpr std::array<std::string_view, 2> kDatabases = {".db.kd", ".fid.kd"};

bool isOurs(const std::string& name) {
  return std::ranges::any_of(kDatabases, [&](std::string_view database) {
    return name.starts_with(database) &&
           std::ranges::find(kDatabaseSuffixes, std::string_view(name).substr(database.size())) !=
               std::end(kDatabaseSuffixes);
  });
}

std::optional<pid_t> holderOf(const std::string& folder, const char* database) {
  return LockFile::holderOf(folder + database + ".lock");
}

// The second word of the process's command line, when the process is one of ours.
std::string commandOf(pid_t process) {
  const std::string proc = fmt::format("/proc/{}/", process);
  std::string program, word, command;
  std::getline(std::ifstream(proc + "comm") >> std::ws, program);
  if (program != "kddc") return program;
  std::ifstream words(proc + "cmdline");
  if (std::getline(words, word, '\0') && std::getline(words, command, '\0'))
    program += " " + command;
  return program;
}

}  // namespace

std::string describeProcess(pid_t process) {
  if (process == 0) return "another process";
  const std::string command = commandOf(process);
  return command.empty() ? fmt::format("process {}", process)
                         : fmt::format("process {} ({})", process, command);
}

std::optional<std::string> userOf(const std::string& folder) {
  for (const char* database : {kFilesDatabase, kFidDatabase})
    if (const auto process = holderOf(folder, database)) return describeProcess(*process);
  return std::nullopt;
}

void refuseWhileInUse(const std::string& folder) {
  if (const auto user = userOf(folder))
    throw Failure(fmt::format("{} is in use by {}; stop it first", folder, *user));
}

// Both, as only a catalogue that is open has them: a lock alone may be that of a check.
bool isKept(const std::string& folder) {
  return holderOf(folder, kFilesDatabase) && holderOf(folder, kFidDatabase);
}

// A new catalogue takes the place of the folder, and with it of all that it holds.
void refuseForeignFiles(const std::string& folder) {
  namespace fs = std::filesystem;
  std::error_code error;
  fs::directory_iterator entry(folder, error);
  if (error == std::errc::no_such_file_or_directory) return;
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (!isOurs(name))
      throw Failure(
          fmt::format("{} holds {}, which is no part of a catalogue; name an empty or a new folder",
                      folder, name));
  }
  if (error) throw systemFailure("cannot use the folder " + folder, error.value());
}

}  // namespace kddc
