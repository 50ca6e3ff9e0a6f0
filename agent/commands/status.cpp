// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc status [VOLUME]: how catalogues are doing, from the processes that watch the volumes, and
// from the catalogues themselves where nobody does.
#include "agent/commands/status.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "agent/catalogue_place.h"
#include "agent/control/client.h"
#include "agent/engine/catalogue_reader.h"
#include "agent/errors.h"
#include "agent/output.h"
#include "agent/registry/registered_volumes.h"
#include "platform/printable.h"

namespace kddc {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience(10);

std::optional<VolumeStatus> askStatus(const std::string& socket, const std::string& volume) {
  const auto answer = askSocket(socket, {ControlCommand::kStatus, volume}, kPatience);
  if (!answer) return std::nullopt;
  return volumeStatusFrom(*answer);
}

// What a catalogue can say of itself when nobody watches its volume.
VolumeStatus statusOfCatalogue(const std::string& folder, const std::string& volume) {
  CatalogueReader reader(folder, volume, CatalogueReader::Columns::kPath);
  VolumeStatus status;
  status.volume = volume;
  status.catalogue = folder;
  status.rows = reader.count();
  status.lastScan = reader.scanned();
  return status;
}

// What a folder holds; a folder that is not there holds nothing.
std::vector<fs::path> entriesOf(const std::string& folder) {
  std::vector<fs::path> entries;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error))
    entries.push_back(entry->path());
  if (error && error != std::errc::no_such_file_or_directory)
    throw systemFailure("cannot read the folder " + folder, error.value());
  return entries;
}

// What the state folder knows. What cannot tell is named on standard error; the rest can.
struct Overview {
  std::vector<VolumeStatus> volumes;
  bool isWhole = true;

  // Whether there was somebody or something that should have told.
  template <class Look>
  bool add(Look&& look) {
    try {
      std::optional<VolumeStatus> status = look();
      if (!status) return false;
      volumes.push_back(*std::move(status));
    } catch (const Failure& e) {
      complain(e.what());
      isWhole = false;
    }
    return true;
  }
};

// First the processes that watch, which know best; then the registered catalogues and those in the
// state folder, each volume once.
Overview overview(const Options& options) {
  Overview all;
  std::set<std::string> told;
  for (const fs::path& socket : entriesOf(socketsFolder(options)))
    if (all.add([&] { return askStatus(socket, ""); })) told.insert(socket.filename());
  const auto addCatalogue = [&](const std::string& folder, const auto& isExpected) {
    all.add([&]() -> std::optional<VolumeStatus> {
      const auto volume = volumeOf(folder);
      if (!volume || !isExpected(*volume)) return std::nullopt;
      if (!told.insert(placeName(*volume)).second) return std::nullopt;
      return statusOfCatalogue(folder, *volume);
    });
  };
  for (const RegisteredVolume& volume : registeredVolumesIfReadable())
    addCatalogue(volume.catalogue, [&](const std::string& of) { return of == volume.mountPoint; });
  // One that is being built, beside the old one, has another name.
  for (const fs::path& folder : entriesOf(cataloguesFolder(options)))
    addCatalogue(folder, [&](const std::string& of) { return folder.filename() == placeName(of); });
  std::ranges::sort(all.volumes, {}, &VolumeStatus::volume);
  return all;
}

std::string timeText(const std::optional<std::int64_t>& time) {
  if (!time) return "never";
  return fmt::format("{:%Y-%m-%d %H:%M:%S}", fmt::localtime(static_cast<std::time_t>(*time)));
}

class Block {
 public:
  explicit Block(const VolumeStatus& status) {
    text_ = printable(status.volume) + "\n";
    line("state", stateText(status));
    line("catalogue", status.catalogue);
    line("rows", status.rows);
    line("last scan", timeText(status.lastScan));
    if (status.state != VolumeStatus::State::kNotWatched) addWatched(status);
  }
  const std::string& text() const { return text_; }

 private:
  void addWatched(const VolumeStatus& status) {
    line("last full comparison", timeText(status.lastComparison));
    line("last commit", timeText(status.lastCommit));
    line("process", status.process);
    line("backlog",
         fmt::format("{} records, {} bytes", status.backlogRecords, status.backlogBytes));
    line("rate", fmt::format("{:.1f} records/s", status.recordsPerSecond));
    line("overflows", status.overflows);
    line("refused records", status.refusedRecords);
    line("failed records", status.failedRecords);
    line("rescans", status.rescanCount);
    for (const VolumeStatus::Rescan& rescan : status.rescans)
      line("", timeText(rescan.time) + "  " + rescan.reason);
  }
  template <class Value>
  void line(const char* label, const Value& value) {
    text_ += fmt::format("  {:<22}{}\n", label, printable(fmt::format("{}", value)));
  }

  std::string text_;
};

void print(const std::vector<VolumeStatus>& volumes, bool json) {
  std::string text;
  for (const VolumeStatus& status : volumes) {
    if (!json && !text.empty()) text += '\n';
    text += json ? printableJson(toJson(status).dump()) + '\n' : Block(status).text();
  }
  printAnswer(text);
}

}  // namespace

std::optional<VolumeStatus> watchedStatus(const Options& options, const std::string& volumePath) {
  return askStatus(controlSocket(options, volumePath), volumePath);
}

VolumeStatus statusOf(const Options& options, const std::string& volumePath) {
  if (auto status = watchedStatus(options, volumePath)) return *std::move(status);
  return statusOfCatalogue(catalogueFolder(options, volumePath), volumePath);
}

std::string stateText(const VolumeStatus& status) {
  std::string text = nameOf(status.state);
  if (status.staleSince) text += " since " + timeText(status.staleSince);
  if (!status.staleReason.empty()) text += ": " + status.staleReason;
  return text;
}

int runStatus(const Options& options, const std::string& volume, bool json) {
  if (!volume.empty()) {
    print({statusOf(options, realVolumePath(volume))}, json);
    return kExitDone;
  }
  const Overview all = overview(options);
  if (all.volumes.empty() && all.isWhole)
    throw Failure("no volume is known in " + stateFolder(options) +
                  "; start with: kddc scan, or kddc watch");
  print(all.volumes, json);
  return all.isWhole ? kExitDone : kExitFailed;
}

}  // namespace kddc
