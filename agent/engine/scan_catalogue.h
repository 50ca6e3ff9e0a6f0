// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The catalogue class with what a scan needs besides. Nobody reads the databases of a scan before
// they are whole, and whatever goes wrong, they are thrown away; between beginBuild and endBuild
// they are
//
//   not journaled and not forced to the disk     there is nothing to go back to
//   one transaction                              a page is written once, when it is full
//   without placeholders                         a row takes three statements instead of five
//   without their indexes                        to sort all rows in the end costs a third
//   with small caches                            rows only ever go to the end of a table
//
// Threads: as the base; only endBuild has a thread of its own, so that each database makes its
// index at the same time.
#pragma once

#include <functional>
#include <string>

#include "catalogue/db_access.h"

namespace kddc {

class ScanCatalogue : public DCSqliteDBSortedInsert {
 public:
  using DCSqliteDBSortedInsert::DCSqliteDBSortedInsert;

  void beginBuild();
  // Writes what is still pending and the indexes. Not called for databases to be thrown away.
  void endBuild();

  // Inserts the row and answers its inode.
  unsigned long long insertRow(StatFidName_s& entry, unsigned long long parentInode, int fileType);

  // `tick` is called every few milliseconds of SQLite's work, on the thread that inserts; false
  // ends the work with a failure of SQLite's code 9 (interrupted).
  void setTick(std::function<bool()> tick);

 private:
  std::function<bool()> tick_;
  std::string filesIndex_, fidsIndex_;  // the text that creates each
};

}  // namespace kddc
