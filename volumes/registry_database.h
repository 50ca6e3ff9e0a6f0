// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The two databases of the volume registry, below "DataClassification" in the registry folder, and
// the texts that are run on them. Private.
//
//   volume_db.kd   VOLUME   one row for each volume known
//                  FILTER   the volumes that are not to be monitored
//                  MONITOR  the volumes that are
//   fstype_db.kd   FSTYPE   the types of file systems that can be monitored
//
// Failures: UDCException.
#pragma once

#include <list>
#include <memory>
#include <string>

#include "platform/udc_dbms.h"

namespace kddc {

// Opens the registry for writing, and makes it when it is missing. Waits up to 120 seconds for
// another writer. A registry that has lost one of its other tables but not VOLUME stays as it is:
// to take FILTER or MONITOR for empty could cost the user every catalogue.
std::unique_ptr<UDC_DBMS> openRegistry();

// The same for the types of file systems. A new one lists those that are tested: ext4, xfs, btrfs
// and tmpfs.
std::unique_ptr<UDC_DBMS> openFsTypes();

// `text` as a literal of SQL, quotes included.
std::string sqlLiteral(const std::string& text);

// The first column of the last query, from the top; a NULL is an empty text.
std::list<std::string> firstColumn(const UDC_DBMS& db);

struct NewVolume {
  std::string mountPoint, device, fsType;
  char driverSupport;  // '\0' for none
  int number;          // its ROWID
  std::string dbFolder;
  int local;
};

// The statement of create_volume_insert_query, of any length.
std::string volumeInsertQuery(const NewVolume& volume);

// Logs as a debug line why the exception that is being handled was thrown, for the messages that
// do not tell.
void logReason(const char* tag);

}  // namespace kddc
