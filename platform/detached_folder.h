// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A folder held open without holding up its unmounting. Private.
//
// A descriptor on a mount keeps it busy. So the folder is opened in a mount of its own, that nobody
// sees and that stands nowhere: what a user unmounts is another one, and goes at once.
//
// The file system itself stays until the last descriptor is closed, and only then is all of it on
// its device, and the device free. To who unmounts it that is not told. So such a folder is for the
// time of some work, and the work ends when covered() says that the visible mount has gone.
//
// Such a mount has nothing mounted below it: what is hidden by a mount in the visible tree comes to
// light in it. covered() names these places. Whoever is to find what a user finds at a path passes
// them over.
//
// Where such a mount cannot be made (Linux before 5.2, no CAP_SYS_ADMIN, a mount that may not be
// copied) the folder is opened as ever: then it does keep the mount busy, and nothing is covered,
// because a name leads to what is mounted there.
//
// Threads: one at a time.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_id.h"
#include "platform/unique_fd.h"

namespace kddc {

// A name that, in the visible tree, leads to what is mounted there.
struct CoveredPlace {
  fsf_fid folder;
  std::string name;
  fsf_fid fid;  // of the file or folder that is hidden
};

class DetachedFolder {
 public:
  // Opens it for reading. Throws std::system_error.
  explicit DetachedFolder(const std::string& path);

  // Not O_PATH: files can be opened by their identifiers through it.
  int fd() const { return fd_.get(); }
  // The same once more, with a place of its own in the list of names; none, and errno, on failure.
  UniqueFd open() const;

  // The places below the folder as the mount table tells them now. None when the mount that was
  // visible at the folder's path has gone or is hidden by another. KdException when the table
  // cannot be read.
  std::optional<std::vector<CoveredPlace>> covered() const;

 private:
  // The mount. Through one that nothing holds but files, each look locks all mounts of the host.
  UniqueFd tree_;
  UniqueFd fd_;
  std::string path_;  // without symbolic links
  int mount_ = 0;     // the id of the visible mount
};

// The place of `name` in `folder`, or null when nothing is mounted there.
const CoveredPlace* findCovered(const std::vector<CoveredPlace>& places, const fsf_fid& folder,
                                std::string_view name);

}  // namespace kddc
