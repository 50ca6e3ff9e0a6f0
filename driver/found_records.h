// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Journal records of what was found on the disk, for the driver, which follows events, and for
// comparisons. devt and seq_num are 0; strings are those given.
//
// Records of a file that is there have a complete header: the time of its last change and, in the
// mask, its links. Of one that is not, only the caller knows what to tell.
#pragma once

#include <sys/stat.h>

#include "driver/record_mask.h"
#include "platform/file_id.h"
#include "records/journal_record.h"

namespace kddc {

struct FoundFile {
  const fsf_fid& fid;
  const struct stat& st;
  const char* linkText = "";  // of a symbolic link, where it is known: no row holds it
};

struct FoundName {
  const fsf_fid& folder;
  const char* name;
};

// The name stands for the file: MKDIR, SYMLINK or CREATE.
FlrJrnCommandRaw presentRecord(const FoundName& name, const FoundFile& file, bool listed = false);
// The file bears the one name and the other no longer; what it replaced is not told.
FlrJrnCommandRaw renameRecord(const FoundFile& file, const FoundName& from, const FoundName& to);
// SETATTR with everything.
FlrJrnCommandRaw attributesRecord(const FoundFile& file);
// STUB or UNSTUB.
FlrJrnCommandRaw stubRecord(const FoundFile& file, bool isStub);
// The number of links, where the mask cannot tell it: REMOVE in no folder and without a name.
FlrJrnCommandRaw linkCountRecord(const FoundFile& file);

// The header of these is empty.

// The same of a file that has no links left, or none that matter.
FlrJrnCommandRaw noLinksRecord(const fsf_fid& file);
// The name stands for nothing: REMOVE, or RMDIR. What went and the links that it has left are zero
// when they are not known.
FlrJrnCommandRaw absentRecord(const FoundName& name, const fsf_fid& lost = {}, unsigned links = 0);
FlrJrnCommandRaw absentFolderRecord(const FoundName& name, const fsf_fid& lost);

}  // namespace kddc
