// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A registry folder and a mount table of the test's own. Mount points are plain folders unless the
// test mounts something there.
#pragma once

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <list>
#include <string>
#include <vector>

#include "platform/mount_table.h"
#include "tests/support/database_view.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_folder.h"
#include "volumes/DCHelper.h"

namespace kddc::test {

struct RegistryFixture : testing::Test {
  using Rows = std::vector<std::string>;

  RegistryFixture() {
    ::setenv("KELDARA_REGISTRY_ROOT", (folder / "etc").c_str(), 1);
    mounted({});
  }
  ~RegistryFixture() override {
    ::unsetenv("KELDARA_REGISTRY_ROOT");
    KdMntTab::SetSource("");
  }

  // Makes the folder of a mount point.
  std::string place(const std::string& name) const {
    std::filesystem::create_directories(folder / name);
    return folder / name;
  }
  // From now on these are mounted, in this order.
  void mounted(const std::vector<KdMntEntry>& entries) const {
    std::string table;
    for (const KdMntEntry& entry : entries)
      table += escaped(entry.device) + " " + escaped(entry.mountPoint) + " " +
               escaped(entry.fsType) + " rw 0 0\n";
    KdMntTab::SetSource(folder.write("mounts", table));
  }
  void settings(const std::string& lines) const {
    std::filesystem::create_directories(folder / "etc");
    (void)folder.write("etc/settings.ini", "[DataClassification]\n" + lines);
  }

  void scan(bool filterMode = true) const { scan(filterMode, "", "", {}); }
  void scan(bool filterMode, const std::string& logs, const std::string& buffer,
            const std::list<std::string>& snapMounts) const {
    scan_and_update_volumes((folder / "shared").c_str(), filterMode, nullptr, logs.c_str(),
                            buffer.c_str(), snapMounts);
  }

  std::string registryPath() const { return folder / "etc/DataClassification/volume_db.kd"; }
  std::string typesPath() const { return folder / "etc/DataClassification/fstype_db.kd"; }
  // Runs SQL on the registry.
  Rows registry(const std::string& sql) const { return DatabaseView(registryPath()).rows(sql); }
  Rows types(const std::string& sql) const { return DatabaseView(typesPath()).rows(sql); }
  Rows volumes() const { return registry("SELECT MOUNT_POINT FROM VOLUME ORDER BY ROWID"); }

  static struct stat statOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st;
  }
  static std::string deviceOf(const std::string& path) {
    return std::to_string(statOf(path).st_dev);
  }
  static std::string blockSizeOf(const std::string& path) {
    return std::to_string(statOf(path).st_blksize);
  }

  TempFolder folder{inMemory()};

 private:
  // As the kernel writes a text of the table.
  static std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
      if (c == ' ')
        out += "\\040";
      else if (c == '\t')
        out += "\\011";
      else if (c == '\n')
        out += "\\012";
      else if (c == '\\')
        out += "\\134";
      else
        out += c;
    }
    return out;
  }
};

}  // namespace kddc::test
