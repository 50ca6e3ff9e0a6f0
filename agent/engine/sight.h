// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A look at a path of a volume, such that two equal looks prove that nothing happened to it in
// between: what it is, and where the way to it leads.
//
// A name that comes, goes or changes hands gives its folder new times, taken from the kernel's
// coarse clock; so a folder that was touched within the present tick proves nothing yet.
//
// Threads: any. Failures: none; see isKnown.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "agent/engine/walk.h"

namespace kddc {

// Whether an errno says that a path leads nowhere (any more).
bool leadsNowhere(int error);

class Sight {
 public:
  // Of `path`, relative to the volume and "" for its root. What is mounted below the root, and the
  // folders in `leftOut` with all below them, do not belong to the volume: they count as absent.
  Sight(const std::string& volume, const std::string& path, const std::vector<FileKey>& leftOut);

  // Whether it could be told what is there: not where a path is too long or may not be followed.
  bool isKnown() const { return isKnown_; }
  bool isPresent() const { return isPresent_; }
  // Of what is present.
  const struct stat& status() const { return st_; }
  // Whether `later` shows that nothing happened since this look.
  bool isStill(const Sight& later) const { return isQuiet_ && trace_ == later.trace_; }

 private:
  bool step(const std::string& path, const std::vector<FileKey>& leftOut);
  void noteTarget();
  void note(const struct timespec& time);

  bool isKnown_ = true;
  bool isPresent_ = false;
  bool isQuiet_ = true;
  struct stat st_ {};
  dev_t device_ = 0;
  std::vector<long long> trace_;
};

}  // namespace kddc
