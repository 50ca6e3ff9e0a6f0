// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Databases as files: integrity, repair and removal. The narrow part of volumes/ that the catalogue
// itself needs; callers include volumes/DCHelper.h.
//
// Threads: all functions may be called from any thread; they hold no state.
#pragma once

#include <list>
#include <string>

#include "platform/export.h"
#include "platform/udc_dbms.h"

// True when the database at `path` passes SQLite's integrity check, at once or after a vacuum,
// which writes its pages anew. Waits up to 120 seconds for a lock. Never throws:
// whatever fails is logged and counts as false.
KDDC_API bool VerifyDBIntegrity(const char* path);

// True when the integrity check of an open connection answers "ok". Never throws.
KDDC_API bool CheckDBIntegrity(UDC_DBMS* db);

// Deletes a catalogue's two databases with their lock files and the side files that SQLite keeps,
// and then the folder. Ignores every failure, so a folder that holds anything else stays. Call it
// only while nobody has the catalogue open.
KDDC_API void RemoveDCDb(std::string folder);

// Deletes the plain files of a folder and then the folder; sub-folders are not entered and keep it
// in place. Returns rmdir's result, 0 or -1. Throws UDCException type 0 when it cannot be opened.
KDDC_API int RmDir(const char* path);

// True when `value` occurs in `list`.
KDDC_API bool FindInList(const std::list<unsigned long long>* list, unsigned long long value);
