// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the driver may ask of the disk. An event is history, the disk is the present: each answer is
// how things are at the moment of the call, and "gone" is an everyday one.
//
// An answer is never a guess. What could not be found out is unknown and says so, and is never
// passed off as absent.
//
// Threads: one thread at a time.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/file_id.h"

namespace kddc {

enum class Sight {
  kThere,
  kAbsent,   // the file is gone, or the name is, or its folder; or it is one that is left out
  kUnknown,  // the question could not be answered, see `error`
};

// What stands at a name or behind an identifier. Everything but `sight` and `error` holds only for
// kThere, and was taken from one file at one time.
struct Look {
  Sight sight = Sight::kAbsent;
  int error = 0;  // an errno, for kUnknown
  fsf_fid fid{};
  struct stat st {};     // st_nlink may be 0: open, but without a name
  std::string linkText;  // of a symbolic link
  bool isStub = false;   // only regular files are
};

enum class Whereabouts { kGone, kInside, kOutside, kUnknown };

// A folder being read. Names that come or go meanwhile may be among those read or not.
class Listing {
 public:
  virtual ~Listing() = default;
  // Puts some more names into `names`, which is emptied first; "." and ".." are none. 0 with none
  // when there are no more, or when the folder is gone; a negative errno when it cannot be read.
  virtual int read(std::vector<std::string>& names) = 0;
};

// LEFT OUT, that is absent, are what another file system is mounted on, what lies on another
// device, and the folders that an implementation is told to leave out.
class Disk {
 public:
  virtual ~Disk() = default;

  // What `name` in `folder` stands for. A folder that is gone has no names.
  virtual Look lookUp(const fsf_fid& folder, const std::string& name) = 0;
  // The file of an identifier, wherever it is; also one that has lost its last name and is open.
  // Bytes that lead to a file but are not its identifier are nobody's: absent.
  virtual Look lookAt(const fsf_fid& fid) = 0;
  // Reads a folder; one that is gone, or is none, has no names.
  virtual std::unique_ptr<Listing> list(const fsf_fid& folder) = 0;
  // Whether a file lies below that root of a volume, or below any of them when none is named (a
  // root lies inside of itself). Of a file with several names, any of them may decide. What lies in
  // a folder that is left out is outside.
  virtual Whereabouts whereabouts(const fsf_fid& fid, const fsf_fid* root) = 0;
  Whereabouts whereabouts(const fsf_fid& fid) { return whereabouts(fid, nullptr); }
  // The names that lead from that root, or any, to a file that lies inside, each with its folder,
  // from the top down; none when they cannot be told. They may be others by now.
  virtual std::vector<std::pair<fsf_fid, std::string>> wayTo(const fsf_fid& fid,
                                                             const fsf_fid* root) = 0;

  // Nothing of what was asked so far will be asked again soon: gives up what was kept for it.
  virtual void forget() {}
};

}  // namespace kddc
