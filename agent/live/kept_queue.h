// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The kernel's queue of one file system in the hands of the service manager, so that it outlives a
// crash of this process: what changes until the next one runs is then queued there.
//
// What the process had read and not applied is lost with it, so the volumes are compared with the
// disk all the same. An end in good order leaves nothing with the manager.
//
// Threads: one.
#pragma once

#include <sys/types.h>

#include <string>

#include "agent/service/service_manager.h"
#include "driver/fanotify_group.h"
#include "platform/unique_fd.h"

namespace kddc {

class KeptQueue {
 public:
  // `path`: any folder on the file system.
  KeptQueue(ServiceManager& manager, const std::string& path, EventQueue queue);
  ~KeptQueue() { forget(); }
  KeptQueue(const KeptQueue&) = delete;
  KeptQueue& operator=(const KeptQueue&) = delete;

  // What the process before has left; none when it left nothing that is of use, which is noted.
  UniqueFd take();
  // Has the manager keep the group that is in use, unless it does.
  void keep(int group);
  // The queue is not needed any more.
  void forget();

 private:
  ServiceManager& manager_;
  std::string path_;
  EventQueue queue_;
  std::string name_;
  bool isKept_ = false;
};

}  // namespace kddc
