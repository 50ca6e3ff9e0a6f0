// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The kernel's queue of what changes on one file system.
//
// From its construction on every change raises an event, until unmark(). Events that are queued by
// then can still be read. The group holds no descriptor on the file system, so it does not keep it
// from being unmounted; the events then just end.
//
// A group outlives its process when somebody else holds its descriptor, too. The kernel goes on
// queueing meanwhile, and the next process may take it over.
#pragma once

#include <cstddef>
#include <span>
#include <stdexcept>
#include <string>

#include "platform/unique_fd.h"

namespace kddc {

// A volume that cannot be followed live. The text is one line: what, why, and what works instead.
class CannotWatch : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class EventQueue {
  kUnlimited,
  kLimited,  // overflows at fs.fanotify.max_queued_events
};

// Threads: one at a time; hasMark() any. Failures: CannotWatch of the constructor,
// std::system_error of the rest.
class FanotifyGroup {
 public:
  // Whether the file system at `path` can be followed is found out first: file handles, that fit
  // into an identifier and open again; events that name a file system; the rights; the mark.
  // `kept` is the descriptor of a group to go on with, one that whyNotKept finds nothing against.
  explicit FanotifyGroup(const std::string& path, EventQueue queue = EventQueue::kUnlimited,
                         UniqueFd kept = {});

  // Why a descriptor that came from elsewhere is no group like ours that follows the file system at
  // `path` and nothing else; empty when it is. One that is not is of no use afterwards.
  static std::string whyNotKept(int fd, const std::string& path, EventQueue queue);

  // To be polled for POLLIN.
  int fd() const { return fd_.get(); }
  // Fills `buffer` with whole events and returns their length; 0 when there are none.
  std::size_t read(std::span<unsigned char> buffer);
  // How many events are queued now.
  std::size_t queued() const;
  // Whether the mark is still set. It ends without a word when the file system is unmounted for
  // good, which is when its last mount has gone and nothing holds it open; mounted again, it has
  // none. So as long as there is a mark, no change was missed, whatever happened to mounts.
  bool hasMark() const;
  // No events from now on.
  void unmark();

 private:
  UniqueFd fd_;
};

}  // namespace kddc
