// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An open catalogue for sorted inserts, which shows what is pending.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/platform_info.h"
#include "tests/support/catalogue.h"

namespace kddc::test {

// The placeholder for a row id that is not yet known.
inline constexpr char kPending[] = "9223372036854775807";

class OpenSortedCatalogue : public DCSqliteDBSortedInsert {
 public:
  using DCSqliteDBSortedInsert::DCSqliteDBSortedInsert;
  using DCSqliteDBSortedInsert::fidDb;
  using DCSqliteDBSortedInsert::filesDb;
  using DCSqliteDBSortedInsert::mapLimit;
  using DCSqliteDBSortedInsert::openTime;
  using DCSqliteDBSortedInsert::sortMap;

  // What is pending, in the order of the map: "A1 B7" for identifiers as fidOf makes them.
  std::string pending() const {
    std::string text;
    for (const auto& [fid, inode] : sortMap) {
      if (!text.empty()) text += ' ';
      text += static_cast<char>(fid.data[0]) + std::to_string(inode);
    }
    return text;
  }
};

// What the settings say until the end of the test.
class MapSizeSetting {
 public:
  explicit MapSizeSetting(const char* size) {
    KDPlatformInfo::setDefault("DataClassification", "SortedInsertMapSize", size);
  }
  ~MapSizeSetting() {
    KDPlatformInfo::setDefault("DataClassification", "SortedInsertMapSize", "1000000");
  }
  MapSizeSetting(const MapSizeSetting&) = delete;
  MapSizeSetting& operator=(const MapSizeSetting&) = delete;
};

struct SortedInsertTest : OpenedCatalogueTest<OpenSortedCatalogue> {
  void filesSql(const std::string& sql) { db.filesDb->exec_query(sql.c_str()); }
  void fidsSql(const std::string& sql) { db.fidDb->exec_query(sql.c_str()); }
};

}  // namespace kddc::test
