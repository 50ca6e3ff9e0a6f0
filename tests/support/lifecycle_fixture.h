// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue that is made, opened, closed and checked as a whole.
#pragma once

#include <unistd.h>

#include <string>

#include "tests/support/catalogue.h"

namespace kddc::test {

struct Lifecycle : CatalogueTest {
  FlrDriver driver;
  bool inside = false;
  fsf_fid dbFid{}, fidFid{};

  bool isGood(const std::string& volume = "/data") {
    return DCSqliteDB::IsDbGood(folder, volume, &driver, inside, dbFid, fidFid);
  }
  std::string timeRow(const std::string& column) {
    return DatabaseView(filesPath).cell("SELECT " + column + " FROM TIME");
  }
  static bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }
};

}  // namespace kddc::test
