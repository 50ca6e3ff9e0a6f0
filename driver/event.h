// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the kernel tells of one change, taken from the bytes of a read on a fanotify group that
// reports folders, names and targets (FAN_REPORT_DFID_NAME_TARGET). Pure.
//
//   24 bytes      event_len, vers, reserved, metadata_len, mask, fd, pid
//   one or more   info records: type, pad, length, then for
//                   1 FID, 2 DFID_NAME, 3 DFID, 10 OLD_DFID_NAME, 12 NEW_DFID_NAME
//                     8 bytes of file system, a handle (length, type, bytes), a name and its NUL
//                   5 ERROR   an errno and how often
// Integers are in the host's byte order. Other types are skipped.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/file_id.h"

namespace kddc {

struct Event {
  std::uint64_t mask = 0;  // FAN_CREATE and so on, merged
  int pid = 0;             // who did it

  // The name, and for FAN_RENAME the new one. Only of CREATE, DELETE and RENAME it is a name that
  // existed. Without NUL, never empty where it is there.
  bool hasName = false;
  fsf_fid folder{};
  std::string name;
  bool hasNewName = false;
  fsf_fid newFolder{};
  std::string newName;

  // The file. The kernel names a folder that changed itself by "." in it; here it is the object.
  bool hasObject = false;
  fsf_fid object{};

  int error = 0;  // an errno, for FAN_FS_ERROR
};

// Appends the events at `bytes`. False when some of the bytes are no events that we understand:
// lengths that lie, handles that no identifier holds, another version. Such an event is left out,
// and when its own length cannot be trusted, so is what follows it. Reads nothing outside of
// `bytes`.
bool parseEvents(std::span<const unsigned char> bytes, std::vector<Event>& events);

}  // namespace kddc
