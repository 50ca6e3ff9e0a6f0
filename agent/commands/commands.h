// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The commands of the program, one file each. Each returns an exit code; work that cannot be done
// leaves as an exception that the command line turns into one line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "agent/engine/record_file.h"

namespace kddc {

inline constexpr int kExitDone = 0;
inline constexpr int kExitDifference = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitFailed = 3;

// What every command understands.
struct Options {
  std::string catalogue;  // empty: the default place
  std::string state;      // empty: the default place
  int verbosity = 0;
  bool quiet = false;
};

// How paths are printed: one a line, each ended by NUL, or as JSON Lines with all that is known.
enum class Form { kLines, kNul, kJson };

struct ReplayOptions {
  std::string file;
  RecordFormat format = RecordFormat::kByContent;
  std::optional<unsigned long long> devt;  // the records of that volume alone
  bool coalesce = false;  // what is sent about a file is merged before it is written
  bool stats = false;
  bool json = false;
};

int runScan(const Options& options, const std::string& volume);
// Prints counts as a line, or as JSON.
int runRescan(const Options& options, const std::string& volume, bool json);
int runList(const Options& options, const std::string& volume, Form form);
struct ChangesOptions {
  // Seconds since 1970; entries whose change stamp is that or later are printed.
  long long since = 0;
  Form form = Form::kLines;
  bool flush = true;  // where the volume is watched, first wait until the catalogue is current
};
int runChanges(const Options& options, const std::string& volume, const ChangesOptions& changes);
int runFlush(const Options& options, const std::string& volume);
// Of one volume; of all that the state folder knows when `volume` is empty. As text, or as JSON
// Lines.
int runStatus(const Options& options, const std::string& volume, bool json);
// What differs, as lines or as JSON Lines, and counts.
int runVerify(const Options& options, const std::string& volume, bool json);
int runCheck(const Options& options, const std::string& volume);
// As text, or as JSON Lines.
int runDump(const std::vector<std::string>& files, RecordFormat format, bool json);
// Until an interrupt. Without volumes those that are registered. `print`: a line for each change,
// as it is applied.
int runWatch(const Options& options, const std::vector<std::string>& volumes, bool print);
int runReplay(const Options& options, const ReplayOptions& replayOptions);
// The registry of volumes. As text, or as JSON Lines.
int runVolumesList(const Options& options, bool json);
int runVolumesRefresh(const Options& options);
// Have the next refresh register, or forget, what is mounted there.
int runVolumesAdd(const Options& options, const std::string& path);
int runVolumesRemove(const Options& options, const std::string& path);

}  // namespace kddc
