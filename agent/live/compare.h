// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Compares a volume with its catalogue, and writes nothing.
//
//   walking thread ─► batches ─► the caller's thread ◄─ rows of the folder, read-only
//                                      │
//                                      ▼ what differs
//                                 Suspicions
//
// A suspicion is not the truth: the disk may have changed since the walk, the catalogue since its
// row was read. Where something runs live, the name or file is looked at again in the order of the
// records; where nothing does, what the walk found is as good as anything.
//
// Compared are the name, the identifier, the type, mode, owner, link count, size, times of
// modification and change (seconds, low 32 bits). The time of change alone counts, for it is the
// only trace of an access control list or extended attribute. The time of access and the number of
// blocks do not count.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "agent/engine/walk.h"
#include "platform/unique_fd.h"

namespace kddc {

// Views and references are valid during the call. What a folder holds is told after the folder.
class Suspicions {
 public:
  virtual ~Suspicions() = default;

  // The row `inode` of a folder, of the root perhaps, does not know the identifier that the folder
  // has; what is told of its contents relies on that it will.
  virtual void identity(const WalkedEntry& folder, std::int64_t inode) = 0;
  // The name in that folder has no row, or one that is another file's, of another type, or without
  // an identifier.
  virtual void name(const fsf_fid& folder, const WalkedEntry& entry) = 0;
  // The name has its row, and the attributes in it are others.
  virtual void attributes(const WalkedEntry& entry) = 0;
  // A row's name was not found on the disk.
  virtual void absent(const fsf_fid& folder, std::string_view name) = 0;
  // All that the folder of that row holds was compared.
  virtual void compared(std::int64_t /*inode*/) {}
  // A row that no look at a name can put right: of two that bear the same name one, or one whose
  // name cannot be one.
  virtual void row(std::int64_t inode) = 0;
};

struct CompareCounts {
  WalkCounts walk;
  std::uint64_t rows = 0;   // of FILES, in the folders that were compared
  std::uint64_t pairs = 0;  // those of them that know their identifier
};

struct CompareWishes {
  std::function<void(std::uint64_t entries)> progress;  // on the caller's thread
  // Called at each entry, on the walking thread; what it throws ends the comparison.
  std::function<void()> check;
};

// Failure as of the walk; when the catalogue has no root, or is another volume's. UDCException when
// the catalogue cannot be read. Ends with the first failure: then not all suspicions were told.
CompareCounts compareVolume(UniqueFd root, const std::string& volumePath,
                            const WalkOptions& options, const std::string& catalogueFolder,
                            Suspicions& suspicions, const CompareWishes& wishes);

}  // namespace kddc
