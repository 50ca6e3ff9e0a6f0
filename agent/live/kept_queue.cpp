// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/kept_queue.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>

#include "agent/errors.h"

namespace kddc {
namespace {

// By device, as there is one queue for each file system; a path may hold what the manager takes for
// the end of a name.
std::string nameFor(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) throw systemFailure("cannot use the volume " + path, errno);
  return fmt::format("kddc-{}", st.st_dev);
}

}  // namespace

KeptQueue::KeptQueue(ServiceManager& manager, const std::string& path, EventQueue queue)
    : manager_(manager), path_(path), queue_(queue), name_(nameFor(path)) {}

// Looked at before it is believed: a queue of another file system in the place of ours would be a
// gap that nobody notices.
UniqueFd KeptQueue::take() {
  UniqueFd kept = manager_.taken(name_);
  if (!kept) return kept;
  isKept_ = true;
  const std::string why = FanotifyGroup::whyNotKept(kept.get(), path_, queue_);
  if (why.empty()) {
    manager_.note(path_ + ": what changed since the crash is queued, and is taken up");
    return kept;
  }
  manager_.note(fmt::format("{}: what the service manager kept is not used: {}", path_, why));
  forget();
  return {};
}

void KeptQueue::keep(int group) {
  if (!isKept_) manager_.keep(name_, group);
  isKept_ = true;
}

void KeptQueue::forget() {
  if (isKept_) manager_.forget(name_);
  isKept_ = false;
}

}  // namespace kddc
