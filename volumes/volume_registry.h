// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The registry of volumes: which volumes of this host are known, which of them are monitored, and
// where the catalogue of each lies. Two SQLite databases in the folder "DataClassification" of the
// registry folder hold it; docs/schema.md describes their tables. They are made when they are
// missing.
//
// Settings, section "DataClassification": "DB_FOLDER", where new catalogue folders go, "NULL" (the
// default) for the volume itself; "nEnableMonitoringForRoot" (0), whether "/" may be monitored;
// "nRetainUnMountedVolumes" (0), whether an unmounted volume is kept.
//
// Texts from outside (mount points, devices, names of types) may hold any byte but NUL.
//
// Threads: any, and any process: each call opens what it needs, waits up to 120 seconds for another
// writer, and closes it again. Failures: only create_volume_insert_query throws; the others log
// what went wrong.
#pragma once

#include <list>
#include <string>

#include "platform/export.h"

// Brings the registry in step with the mount table: adds the volumes that can be monitored,
// refreshes the rows of those that are mounted and deletes (or keeps) those of the others.
//   volListFile      the shared volumes, for ReadVolListFromFile
//   filterMode       true: all volumes but those in FILTER; false: only those in MONITOR, and every
//                    other volume is stopped and its catalogue removed
//   stopCallback     handed on to StopAndFilter
//   logFolder, rawBufferFolder, snapMounts
//                    mount points that never become volumes: where the logs are, where the queue of
//                    records is, and those of snapshots
// A failure ends the scan of one mount point and the next one follows; a failure to read the mount
// table, the settings or a table ends the whole scan, before anything is deleted for lack of what
// could not be read. A null text counts as an empty one.
KDDC_API void scan_and_update_volumes(const char* volListFile, bool filterMode,
                                      bool (*stopCallback)(const char*), const char* logFolder,
                                      const char* rawBufferFolder,
                                      const std::list<std::string>& snapMounts);

// Deletes the row of a volume and then, when the row named a catalogue, the catalogue. Call it only
// while nobody has the catalogue open. The function is not called.
KDDC_API void StopAndFilter(const char* mountPoint, bool (*stopCallback)(const char*));

// Whether the table of types lists `fsType`. Then `*driverSupport` is the character that stands
// beside it ('\0' when there is none), else it is left alone.
KDDC_API bool supported_fs_type(const char* fsType, char* driverSupport);

// Writes the statement that inserts a volume to `out`, with its terminating NUL. `out` must hold
// 1024 bytes, twice the length of every text given (the mount point twice), and where the volume is
// shared also twice that of the catalogue to reuse. `volNumber` goes into the name of the catalogue
// folder, which lies in `dbFolder`, or in the volume when that is "NULL"; `local` is 0 for a shared
// volume, whose catalogue is reused where the settings name one (see GetFailOverDbPath). Throws
// UDCException of type 0 when the mount point cannot be examined, and KdException when the settings
// cannot be read.
KDDC_API void create_volume_insert_query(char* out, const char* mountPoint, const char* devLabel,
                                         const char* fsType, char driverSupport, int volNumber,
                                         const char* dbFolder, int local);

// Whether `mountPoint` occurs in `list`.
KDDC_API bool VolShared(const std::string& mountPoint, const std::list<std::string>& list);

// Whether changes can be followed live on this host (see RQHSMServiceHelper).
KDDC_API bool isRQHSMInstalled();
