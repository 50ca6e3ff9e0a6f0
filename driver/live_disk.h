// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The disk as it is, reached by identifiers and never by paths.
//
// Attributes and identifier of a find are taken from one descriptor, so they belong together. Only
// folders are opened for reading; all else as O_PATH, because a FIFO would block, a device act and
// a stub bring its data back. Holds one descriptor for each root, which keeps the file system from
// being unmounted, and between two calls of forget() one more.
#pragma once

#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "driver/disk.h"
#include "platform/identity.h"
#include "platform/unique_fd.h"

namespace kddc {

struct LiveDiskOptions {
  // The volumes: folders of one file system, open for reading (not O_PATH). At least one.
  std::vector<UniqueFd> roots;
  std::vector<fsf_fid> leaveOut;  // folders
  std::string stubAttribute;
};

class LiveDisk : public Disk {
 public:
  // Throws std::system_error when a root cannot be looked at, std::invalid_argument when they lie
  // on several file systems.
  explicit LiveDisk(LiveDiskOptions options);

  Look lookUp(const fsf_fid& folder, const std::string& name) override;
  Look lookAt(const fsf_fid& fid) override;
  std::unique_ptr<Listing> list(const fsf_fid& folder) override;
  using Disk::whereabouts;
  Whereabouts whereabouts(const fsf_fid& fid, const fsf_fid* root) override;
  void forget() override { folder_ = {}; }

  // Another volume on the file system, and folders that are no part of it; as in LiveDiskOptions.
  void addRoot(UniqueFd root);
  void leaveOut(const fsf_fid& folder) { leaveOut_.push_back(folder); }
  // Lets go of a volume. One must stay.
  void dropRoot(const fsf_fid& root);

  // st_dev of the file system's files.
  dev_t device() const { return device_; }

 private:
  // The folder that names were looked up in last.
  struct Folder {
    fsf_fid fid{};
    UniqueFd fd;
    int absent = 0;  // names that were not there
    // All that it had when it had proved worth listing; absent as long as it has not, or is large.
    std::optional<std::unordered_set<std::string>> names;
  };

  // 0, or a negative errno.
  int openFolder(const fsf_fid& folder);
  void noteAbsent();
  // None, and errno, on failure.
  UniqueFd open(const fsf_fid& fid, int flags) const;
  Look examine(int fd, bool byName) const;
  bool isLeftOut(const Identity& identity) const;
  UniqueFd folderOf(int file) const;
  Whereabouts climb(UniqueFd folder, const fsf_fid* root) const;

  std::vector<UniqueFd> mounts_;  // the roots, open
  std::vector<fsf_fid> roots_;
  std::vector<fsf_fid> leaveOut_;
  std::string stubAttribute_;
  dev_t device_ = 0;

  Folder folder_;
};

}  // namespace kddc
