// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A folder held open without holding up its unmounting. Private.
//
// A descriptor on a mount keeps it busy. So the folder is opened in a mount of its own, that nobody
// sees and that stands nowhere: what a user unmounts is another one, and goes at once. The file
// system itself stays until the last descriptor is closed; its device is free only then.
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

  // The places below the folder, as of the last reading of the mount table.
  const std::vector<CoveredPlace>& covered() const { return covered_; }
  // Reads the mount table again. Once the visible mount has gone nothing more is learnt: all stays
  // as it was. Fails never; a table that cannot be read is that of before.
  void readCovered();

 private:
  // The mount. Through one that nothing holds but files, each look locks all mounts of the host.
  UniqueFd tree_;
  UniqueFd fd_;
  std::string path_;  // without symbolic links
  int mount_ = 0;     // the id of the visible mount
  std::vector<CoveredPlace> covered_;
};

// The place of `name` in `folder`, or null when nothing is mounted there.
const CoveredPlace* findCovered(const std::vector<CoveredPlace>& places, const fsf_fid& folder,
                                std::string_view name);

}  // namespace kddc
