// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// consumer FOLDER: what a caller does who knows nothing but the installed library.
#include <cstdio>

#include "catalogue/db_access.h"
#include "platform/exceptions.h"
#include "records/journal_record.h"
#include "volumes/DCHelper.h"

int main(int, char** argv) {
  FlrJrnCommandRaw record{};
  unsigned char bytes[64];
  encodeRawCmd(&record, bytes);
  if (!kddc::isWellFormedRecord(bytes, getRawCmdSize(&record))) return 1;

  DCSqliteDB catalogue(argv[1]);
  catalogue.CreateDb();
  if (!catalogue.OpenHandle(false, false)) return 1;
  StatFid_s entry{};
  catalogue.Insert("name", &entry, 0);
  try {
    catalogue.CheckDBToSeeIfThisIsAFolder(2, nullptr);
    return 1;
  } catch (const UDCException& e) {
    std::printf("%s\n", e.GetMessage().c_str());
  }
  catalogue.CloseHandle(0, false);
  RemoveDCDb(argv[1]);
  return 0;
}
