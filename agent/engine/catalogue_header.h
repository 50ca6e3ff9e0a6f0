// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What a catalogue says of itself: the one row of the table TIME, and the name of the root's row.
#pragma once

#include <ctime>
#include <string>

#include "agent/engine/sqlite_query.h"

namespace kddc {

inline constexpr const char* kCatalogueVersion = "10.1";

struct CatalogueHeader {
  bool fullScan = false;    // a full scan has finished
  bool graceful = false;    // nobody has it open for writing, nor has anybody died over it
  std::time_t scanned = 0;  // when the last full scan ended
  std::string version;      // empty: the catalogue does not say
  std::string volume;       // the path of the volume; empty when there is no root
};

// UDCException of type 3 when the database cannot be read or is no catalogue.
CatalogueHeader readHeader(const ReadConnection& files);

}  // namespace kddc
