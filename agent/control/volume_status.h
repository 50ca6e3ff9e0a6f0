// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How a volume's catalogue is doing: what the process that watches it answers to "status", and what
// kddc status prints.
//
// Threads: a plain value. Times are seconds since 1970.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

namespace kddc {

struct VolumeStatus {
  enum class State {
    kNotWatched,  // the catalogue is as of its last scan
    kScanning,    // the first scan, or a new one, while events wait
    kRescanning,  // a quiet rescan, while events wait
    kLive,        // it follows the disk
    kStale,       // it does not, for the moment: see staleSince, staleReason
  };
  struct Rescan {
    std::int64_t time = 0;
    std::string reason;

    friend bool operator==(const Rescan&, const Rescan&) = default;
  };

  std::string volume;     // its real path
  std::string catalogue;  // the folder
  State state = State::kNotWatched;
  std::optional<std::int64_t> staleSince;
  std::string staleReason;

  std::uint64_t rows = 0;
  std::optional<std::int64_t> lastScan;  // the end of the last full one

  // The rest means something when it is watched.
  std::int64_t process = 0;
  std::uint64_t backlogRecords = 0, backlogBytes = 0;  // taken from the kernel, not yet applied
  double recordsPerSecond = 0;                         // applied, lately
  std::optional<std::int64_t> lastCommit;
  std::optional<std::int64_t> lastComparison;  // the end of the last comparison of all of the disk
  std::uint64_t overflows = 0;                 // of the kernel's queue
  std::uint64_t refusedRecords = 0;            // damaged
  std::uint64_t failedRecords = 0;             // that could not be applied
  std::uint64_t rescanCount = 0;               // all of them since the process began
  std::vector<Rescan> rescans;                 // the last ones, in their order; keep it short

  friend bool operator==(const VolumeStatus&, const VolumeStatus&) = default;
};

// "live", "not watched" ...
const char* nameOf(VolumeStatus::State state);
// "volumes: 2 live, 1 rescanning".
std::string summaryOf(const std::vector<VolumeStatus::State>& states);

// The members of a good answer to "status"; docs/formats.md lists their names.
nlohmann::json toJson(const VolumeStatus& status);
// Throws Failure for an object in which a member is missing or of another type.
VolumeStatus volumeStatusFrom(const nlohmann::json& object);

}  // namespace kddc
