// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One volume on the database thread: its catalogue, and how records get into it.
//
// Threads: one, but for `counts` and the like, which may be asked for from any.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "agent/live/live_catalogue.h"
#include "agent/live/settle.h"

namespace kddc {

// What the database thread asks the driver, besides what Settle asks.
class DriverQuestions : public DiskQuestions {
 public:
  // Where a file is that has no name in the catalogue; answered when it is gone or elsewhere. The
  // number of the question, for isAnswered: whether the answer is in the queue, if there is one.
  virtual std::uint64_t resolve(const fsf_fid& file) = 0;
  virtual bool isAnswered(std::uint64_t question) const = 0;
};

class VolumeRows {
 public:
  // Opens the catalogue; Failure when it is in use or cannot be opened.
  VolumeRows(const std::string& folder, unsigned long long devt, DriverQuestions& driver);

  unsigned long long devt() const { return devt_; }
  // Calls it for whatever happens to an entry, with its path relative to the volume.
  void observe(std::function<void(CatalogueChange::Kind, const std::string& path)> observer);

  Settle::Result take(const FlrJrnCommandRaw& record);
  // Writes what is pending, commits, and asks after rows without a name.
  void checkpoint();
  // What a comparison found that no record can put right, done before the next record is taken, and
  // so before any that was asked for after it. From any thread.
  void doLater(std::function<void(LiveCatalogue&, Settle&)> chore);
  // As LiveCatalogue has it.
  void copyTo(const std::string& folder) { rows_.copyTo(folder); }
  // Writes, removes rows that have no name, and closes; `referenceTime` as CloseHandle has it.
  void close(std::time_t referenceTime);

  struct Report {
    SettleCounts settled;
    std::time_t lastCommit = 0;
  };
  Report report() const;

 private:
  void doChores();
  void askAboutParked();
  void publish();

  LiveCatalogue rows_;
  Settle settle_;
  DriverQuestions& driver_;
  unsigned long long devt_;
  bool dirty_ = false;
  std::atomic<bool> hasChores_ = false;
  std::map<fsf_fid, std::uint64_t> asked_;  // after parked files, and the number of the question

  mutable std::mutex mutex_;
  Report report_;
  std::vector<std::function<void(LiveCatalogue&, Settle&)>> chores_;
};

}  // namespace kddc
