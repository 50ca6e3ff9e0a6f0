// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The disk as it is, reached by identifiers and never by paths.
//
// Attributes and identifier of a find are taken from one descriptor, so they belong together. Only
// folders are opened for reading; all else as O_PATH, because a FIFO would block, a device act and
// a stub bring its data back. Holds one descriptor for each root, and between two calls of forget()
// one more, and the mount table. None of them keeps a volume from being unmounted, see
// platform/detached_folder.h; its device is in use until the object goes.
//
// What something is mounted on is absent, though the mounts that we look through do not have it.
// After each forget() the mount table is asked whether that is still so.
#pragma once

#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "driver/disk.h"
#include "platform/detached_folder.h"
#include "platform/identity.h"
#include "platform/mount_changes.h"
#include "platform/unique_fd.h"

namespace kddc {

struct LiveDiskOptions {
  std::vector<std::string> roots;  // the volumes: folders of one file system, at least one
  std::vector<fsf_fid> leaveOut;   // folders
  std::string stubAttribute;
};

class LiveDisk : public Disk {
 public:
  // Throws std::system_error when a root cannot be opened, std::invalid_argument when they lie on
  // several file systems.
  explicit LiveDisk(LiveDiskOptions options);

  Look lookUp(const fsf_fid& folder, const std::string& name) override;
  Look lookAt(const fsf_fid& fid) override;
  std::unique_ptr<Listing> list(const fsf_fid& folder) override;
  using Disk::whereabouts;
  Whereabouts whereabouts(const fsf_fid& fid, const fsf_fid* root) override;
  void forget() override;

  // Another volume on the file system, and folders that are no part of it; as in LiveDiskOptions.
  void addRoot(DetachedFolder root);
  void leaveOut(const fsf_fid& folder) { leaveOut_.push_back(folder); }
  // Lets go of a volume. One must stay.
  void dropRoot(const fsf_fid& root);

  // st_dev of the file system's files.
  dev_t device() const { return device_; }

 private:
  struct Root {
    DetachedFolder folder;
    fsf_fid fid{};
  };
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
  static UniqueFd open(const Root& through, const fsf_fid& fid, int flags);
  Look examine(int fd, bool byName) const;
  bool isLeftOut(const Identity& identity) const;
  bool isCovered(const fsf_fid& folder, const std::string& name);
  bool isHidden(const fsf_fid& fid) const;
  void renewCovered();
  static UniqueFd folderOf(int file, const Root& root);
  Whereabouts whereaboutsIn(const Root& mount, const fsf_fid& fid, const fsf_fid& root) const;
  Whereabouts climb(UniqueFd folder, const fsf_fid& root) const;

  std::vector<Root> roots_;
  std::vector<fsf_fid> leaveOut_;
  std::string stubAttribute_;
  dev_t device_ = 0;
  MountChanges mountChanges_;
  bool knowsCovered_ = false;

  Folder folder_;
};

}  // namespace kddc
