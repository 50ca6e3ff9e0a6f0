// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The scan of volumes over a mount table that the test writes, and what it logs.
#pragma once

#include <list>
#include <string>

#include "tests/support/registry_fixture.h"

namespace kddc::test {

struct VolumeScan : RegistryFixture {
  static inline const std::string kTag = "scan_and_update_volumes: ";

  // Lets a scan make the registry, so that a test can write into it first.
  void makeRegistry() const {
    mounted({});
    scan();
  }
  // What the scan alone logs, each line behind its level.
  Rows logOf(bool filterMode = true, const std::string& logs = "", const std::string& buffer = "",
             const std::list<std::string>& snapMounts = {}) const {
    const LogCapture log(2);
    scan(filterMode, logs, buffer, snapMounts);
    Rows lines;
    for (const std::string& line : log.lines())
      if (const auto at = line.find(kTag); at != std::string::npos)
        lines.push_back(line.substr(0, at) + line.substr(at + kTag.size()));
    return lines;
  }
  // The update of a volume's row.
  static std::string updateOf(const std::string& mountPoint, const std::string& device,
                              const std::string& local = "1") {
    return "debug 2 Exec query: UPDATE VOLUME SET DEVTYPE=" + deviceOf(mountPoint) +
           " , BLOCKSIZE = " + blockSizeOf(mountPoint) + " , DEVLABEL = '" + device +
           "' , FSTYPE = 'ext4' , LOCAL = " + local + "   WHERE MOUNT_POINT = '" + mountPoint + "'";
  }
  // Every change of VOLUME that matches `when` fails with "refused".
  void refuse(const std::string& change, const std::string& when) const {
    registry("CREATE TRIGGER T BEFORE " + change + " ON VOLUME WHEN " + when +
             " BEGIN SELECT RAISE(ABORT,'refused'); END");
  }

  const std::string a = place("a"), b = place("b"), c = place("c");
};

}  // namespace kddc::test
