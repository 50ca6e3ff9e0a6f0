// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// ten_lines FOLDER: the shortest use of the library, a catalogue of one entry.
#include <catalogue/db_access.h>

int main(int, char** argv) {
  DCSqliteDB catalogue(argv[1]);
  catalogue.CreateDb();
  if (!catalogue.OpenHandle(false, false)) return 1;
  StatFid_s entry{};
  catalogue.Insert("name", &entry, 0);
  catalogue.CloseHandle(0, false);
  return 0;
}
