// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/catalogue_header.h"

namespace kddc {

CatalogueHeader readHeader(const ReadConnection& files) {
  CatalogueHeader header;
  Query time(files, "SELECT FULL_SCAN,GRACEFUL_SHUTDOWN,DB_CREATION_TIME,VERSION FROM TIME");
  if (time.step()) {
    header.fullScan = time.integer(0) == 1;
    header.graceful = time.integer(1) == 1;
    header.scanned = static_cast<std::time_t>(time.word(2));
    header.version = time.text(3);
  }
  Query root(files, "SELECT NAME FROM FILES WHERE PINODE=0 LIMIT 1");
  if (root.step()) header.volume = root.text(0);
  return header;
}

}  // namespace kddc
