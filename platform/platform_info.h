// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The configuration store: "settings.ini" in the registry folder ("/etc/KeldaraRegistry", or
// $KELDARA_REGISTRY_ROOT, which a set-user-id process ignores).
//
//   # Comments begin with "#" or ";", at the start of a line or behind a blank.
//   [DataClassification]
//   SqlitePageSize = 4096
//   dRawBufferDir  = /var/lib/kddc/buffer
//
// Names are case-sensitive; ":" does the same as "="; the last assignment of a key wins, also when
// its section occurs again. Values are taken without the blanks around them and may be empty. A
// line holds at most 199 bytes, the name of a section at most 49.
//
// The file is read afresh by every call, so an object sees the settings of the moment it asks. A
// missing file means that every key is absent. It must be root's or this user's, and writable for
// its owner alone: settings name folders that are written in.
//
// Threads: every call may come from any thread. Failures: KdException, when the file is there but
// cannot be read, or could be changed by others; when any of its lines cannot be parsed (whichever
// key was asked for, because the line may be the one that was meant); and when a number is wanted
// of a value that is no whole number. The message names the file, the line, the key and what stands
// there.
#pragma once

#include <string>

#include "platform/export.h"

class KDDC_API KDPlatformInfo {
 public:
  // Non-zero: the key is present and `*out` is its value, a decimal whole number with an optional
  // sign that fits into 64 bits. 0: absent, and `*out` is left as it was.
  static int getNumber(const char* section, const char* key, long long* out);
  static int getString(const char* section, const char* key, std::string* out);

  // Supplies a value, for this process, that holds where the file does not set the key. Replaces
  // the default given before.
  static void setDefault(const std::string& section, const std::string& key,
                         const std::string& value);
};

struct KDDC_API KDPI_Base {
  // The installation directory: "/opt/zenthar", or $ZENTHAR_DIRECTORY where that is set and not
  // empty (never in a set-user-id process).
  static std::string getZentharDirectory();
};
