// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/settle.h"

#include <algorithm>
#include <iterator>

#include "catalogue/file_type.h"
#include "platform/logged.h"

namespace kddc {

Settle::Result Settle::take(const FlrJrnCommandRaw& record) {
  return guarded([&] { settle(record); });
}

Settle::Result Settle::guarded(const std::function<void()>& work) {
  work_.result = Result::kNothing;
  const auto done = [&] {
    work();
    return true;
  };
  if (!absorbed("Settle :: take", done, false)) work_.result = Result::kFailed;
  if (work_.result == Result::kFailed) ++work_.counts.failed;
  return work_.result;
}

// The root's row is the volume's whatever identifier it has; any other row takes one only when it
// has none, and nobody else has this one.
Settle::Result Settle::identify(unsigned long long inode, const fsf_fid& folder) {
  return guarded([&] {
    auto row = work_.rows.rowAt(inode);
    if (!row) return;
    const bool isRoot = row->parent == 0 && !(row->fid == folder);
    const bool isLost = row->parent != 0 && !row->hasFid() && work_.rows.namesOf(folder, 1).empty();
    if (isRoot || isLost) work_.giveIdentifier(*row, folder);
  });
}

void Settle::askForContents(unsigned long long inode) {
  guarded([&] {
    const auto row = work_.rows.rowAt(inode);
    if (row && row->type == kFolder && row->hasFid()) work_.askForContents(*row);
  });
}

Settle::Result Settle::unname(unsigned long long inode) {
  return guarded([&] {
    const auto row = work_.rows.rowAt(inode);
    if (row && !row->parked()) going_.takeNameFrom(*row);
  });
}

void Settle::dropParked() {
  guarded([&] {
    for (const Name& row : work_.rows.parkedRows()) {
      if (row.type == kFolder) {
        work_.counts.removed += work_.rows.dropTree(row);
      } else {
        work_.rows.drop(row);
        ++work_.counts.removed;
      }
    }
  });
}

bool Settle::dropLost(const std::vector<Name>& parked) {
  std::vector<Name> lost;
  guarded([&] {
    std::ranges::copy_if(parked, std::back_inserter(lost), [&](const Name& row) {
      return !row.hasFid() ||
             std::ranges::none_of(work_.rows.namesOf(row.fid),
                                  [&](const Name& known) { return known.inode == row.inode; });
    });
    for (const Name& row : lost) going_.drop(row);
    if (!lost.empty()) work_.noteApplied();
  });
  return !lost.empty() && work_.result == Result::kApplied;
}

// What each record says of a name or a file, in the terms of the header. A REMOVE without a name is
// the driver's way to tell a link count.
void Settle::settle(const FlrJrnCommandRaw& record) {
  const RecordMask mask(record.mask);
  switch (record.cmd) {
    case FLR_JRN_CREATE: {
      const auto& r = record.u.create;
      return coming_.present({r.par_fid, r.short_name, r.fid, GetFileType(r.mode), mask}, record);
    }
    case FLR_JRN_MKDIR: {
      const auto& r = record.u.mkdir;
      return coming_.present({r.par_fid, r.short_name, r.fid, kFolder, mask}, record);
    }
    case FLR_JRN_SYMLINK: {
      const auto& r = record.u.symlink;
      return coming_.present(
          {r.dst_par_fid, r.dst_short_name, r.dst_fid, GetFileType(S_IFLNK), mask}, record);
    }
    case FLR_JRN_REMOVE: {
      const auto& r = record.u.remove;
      if (r.short_name[0] == 0) return going_.linkCount(record);
      return going_.absent(r.par_fid, r.short_name, r.file_fid, r.nlink, record);
    }
    case FLR_JRN_RMDIR: {
      const auto& r = record.u.rmdir;
      return going_.absent(r.par_fid, r.short_name, r.dir_fid, mask.links(), record);
    }
    case FLR_JRN_RENAME:
      return coming_.rename(record);
    case FLR_JRN_SETATTR:
      return attributes_.attributes(record);
    case FLR_JRN_STUB:
    case FLR_JRN_UNSTUB:
      return attributes_.stub(record);
    default:
      return work_.apply(record);
  }
}

}  // namespace kddc
