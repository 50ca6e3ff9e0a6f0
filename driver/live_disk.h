// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The disk as it is, reached by identifiers and never by paths.
//
// Attributes and identifier of a find are taken from one descriptor, so they belong together. Only
// folders are opened for reading; all else as O_PATH, because a FIFO would block, a device act and
// a stub bring its data back.
//
// The volumes can be unmounted meanwhile, see platform/detached_folder.h: they are opened when they
// are looked at and held until letGo(), or until it shows that one was unmounted. From then on, or
// when a path does not lead to its volume any more, all is unknown, with ENODEV. The mount table is
// asked after each forget(); it also tells what something is mounted on, which is absent.
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
  // Holds them. Throws std::system_error when a root cannot be opened, std::invalid_argument when
  // they lie on several file systems.
  explicit LiveDisk(LiveDiskOptions options);

  Look lookUp(const fsf_fid& folder, const std::string& name) override;
  Look lookAt(const fsf_fid& fid) override;
  std::unique_ptr<Listing> list(const fsf_fid& folder) override;
  using Disk::whereabouts;
  Whereabouts whereabouts(const fsf_fid& fid, const fsf_fid* root) override;
  std::vector<std::pair<fsf_fid, std::string>> wayTo(const fsf_fid& fid,
                                                     const fsf_fid* root) override;
  void forget() override;

  // Another volume on the file system, and folders that are no part of it; as in LiveDiskOptions.
  void addRoot(const std::string& path);
  void leaveOut(const fsf_fid& folder) { leaveOut_.push_back(folder); }
  // Lets go of a volume. One must stay.
  void dropRoot(const fsf_fid& root);

  // Closes the volumes until the next look. What is not held is unmounted when umount(2) returns.
  void letGo();
  bool isHeld() const { return roots_.front().folder.has_value(); }

  // st_dev of the file system's files.
  dev_t device() const { return device_; }

 private:
  struct Root {
    std::string path;
    fsf_fid fid{};
    std::optional<DetachedFolder> folder = {};
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
  // Opens the volumes, and finds out about mounts, where that is to be done. 0, or an errno.
  int hold();
  void takeHold();
  void readMounts();
  // None, and errno, on failure.
  UniqueFd open(const fsf_fid& fid, int flags);
  static UniqueFd open(const Root& through, const fsf_fid& fid, int flags);
  Look examine(int fd, bool byName) const;
  bool isLeftOut(const Identity& identity) const;
  bool isHidden(const fsf_fid& fid) const;
  static UniqueFd folderOf(int file, const Root& mount);
  static std::vector<std::pair<fsf_fid, std::string>> wayThrough(const Root& mount,
                                                                 const fsf_fid& fid);
  Whereabouts whereaboutsIn(const Root& mount, const fsf_fid& fid, const fsf_fid& root) const;
  Whereabouts climb(UniqueFd folder, const fsf_fid& root) const;

  std::vector<Root> roots_;
  std::vector<fsf_fid> leaveOut_;
  std::string stubAttribute_;
  dev_t device_ = 0;
  MountChanges mountChanges_;
  bool isSure_ = false;       // of the mounts, until forget()
  bool knowsMounts_ = false;  // as of the last change of theirs
  std::vector<CoveredPlace> covered_;

  Folder folder_;
};

}  // namespace kddc
