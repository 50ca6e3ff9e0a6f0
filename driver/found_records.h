// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Journal records of what was found on the disk: their header tells the time of the object's last
// change and, in the mask, its links. Strings are those given; devt and seq_num are 0.
#pragma once

#include <sys/stat.h>

#include "platform/file_id.h"
#include "records/journal_record.h"

namespace kddc {

struct FoundFile {
  const fsf_fid& fid;
  const struct stat& st;
  const char* linkText = "";  // of a symbolic link, where it is known: no row holds it
};

// The name stands for the file: MKDIR, SYMLINK or CREATE.
FlrJrnCommandRaw presentRecord(const fsf_fid& folder, const char* name, const FoundFile& file);
// SETATTR with everything.
FlrJrnCommandRaw attributesRecord(const FoundFile& file);
// STUB or UNSTUB.
FlrJrnCommandRaw stubRecord(const FoundFile& file, bool isStub);
// The number of links, where the mask cannot tell it.
FlrJrnCommandRaw linkCountRecord(const FoundFile& file);
// The name stands for nothing; what went is not known.
FlrJrnCommandRaw absentRecord(const fsf_fid& folder, const char* name);

}  // namespace kddc
