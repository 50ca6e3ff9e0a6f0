// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A mounted volume and its catalogue, which the two make differ before they are compared.
#pragma once

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/flr_driver.h"
#include "tests/support/catalogue.h"
#include "tests/support/log_capture.h"
#include "tests/support/loop_mount.h"

namespace kddc::test {

struct VerifiedVolume : testing::Test {
  using Lines = std::vector<std::string>;

  // Access times are compared while a file lies in /tmp, so that is one of our own.
  static std::string whyNotWith(const std::string& fsType) {
    std::string why = LoopMount::whyNot(fsType);
    static bool private_ = false;
    if (!why.empty() || private_) return why;
    ::setenv("TMPDIR", inMemory() == "/dev/shm" ? "/dev/shm" : "/var/tmp", 1);
    private_ = ::mount("none", "/tmp", "tmpfs", 0, nullptr) == 0;
    return private_ ? "" : "/tmp cannot be hidden";
  }

  void begin(const std::string& fsType) {
    if (const std::string why = whyNotWith(fsType); !why.empty()) GTEST_SKIP() << why;
    volume = std::make_unique<LoopMount>(fsType);
    temp = std::make_unique<TempFolder>();
    db = std::make_unique<OpenCatalogue>(*temp / "catalogue");
    db->CreateDb();
    ASSERT_TRUE(db->OpenHandle(false, false));
    EXPECT_EQ(insert("", 0), 1U);  // the root, by the volume's path
  }

  // The path of an entry; of the volume itself for an empty name.
  std::string path(const std::string& name) const {
    return name.empty() ? volume->path() : *volume / name;
  }
  struct stat status(const std::string& name) const {
    struct stat st {};
    EXPECT_EQ(::lstat(path(name).c_str(), &st), 0) << path(name);
    return st;
  }
  // Writes the rows that a scan would write for what is on the disk; its inode.
  unsigned long long insert(const std::string& name, unsigned long long parent) {
    const std::size_t slash = name.rfind('/');
    StatFidName_s entry{status(name), FlrDriver().getFID(path(name), false),
                        name.empty() ? path("") : name.substr(slash + 1)};
    db->Insert(&entry, parent, 7);
    return db->filesDb->LastInsertRowId();
  }
  unsigned long long folder(const std::string& name, unsigned long long parent = 1) {
    std::filesystem::create_directory(path(name));
    return insert(name, parent);
  }
  void write(const std::string& name, const std::string& text = "text") const {
    std::ofstream(path(name), std::ios::binary) << text;
  }
  unsigned long long file(const std::string& name, unsigned long long parent = 1) {
    write(name);
    return insert(name, parent);
  }
  // A second name of a file, with rows of its own; both rows get the link count 2.
  unsigned long long link(const std::string& from, const std::string& to,
                          unsigned long long fromInode, unsigned long long parent = 1) {
    std::filesystem::create_hard_link(path(from), path(to));
    struct stat st = status(from);
    db->Update(fromInode, &st, 5);
    return insert(to, parent);
  }

  // SQL on either database, on the catalogue's own connections.
  void files(const std::string& sql) { db->filesDb->exec_query(sql.c_str()); }
  void fids(const std::string& sql) { db->fidDb->exec_query(sql.c_str()); }
  static Lines cells(UDC_DBMS& of, const std::string& sql) {
    of.exec_query_get_table(sql.c_str());
    Lines cells;
    for (const char* cell : of.table) cells.emplace_back(cell ? cell : "NULL");
    if (of.rowCount > 0) cells.erase(cells.begin(), cells.begin() + of.columnCount);
    return cells;
  }
  Lines gids() { return cells(*db->filesDb, "SELECT GID FROM FILES ORDER BY INODE"); }
  Lines rescans() { return cells(*db->fidDb, "SELECT RESCAN FROM FIDS ORDER BY FIDS_ROWID"); }

  // Lines with "V" for the volume's path.
  Lines shortened(Lines lines) const {
    for (std::string& line : lines)
      for (std::size_t at; (at = line.find(path(""))) != std::string::npos;)
        line.replace(at, path("").size(), "V");
    return lines;
  }
  // What is said while `operation` runs.
  template <class Operation>
  Lines said(Operation&& operation) {
    const LogCapture log(9);
    operation();
    return shortened(log.lines());
  }
  Lines verify() {
    return said([&] { db->Verify(path("")); });
  }
  // Without the banners and the blank lines.
  Lines differences() {
    Lines lines = verify();
    std::erase_if(lines, [](const std::string& line) {
      return line.starts_with("debug 1 DCSqliteDB :: Verify: ");
    });
    return lines;
  }
  Lines verifyFile(const std::string& name, unsigned long long parent = 1) {
    return said([&] {
      const std::string shortName = name.substr(name.rfind('/') + 1);
      db->VerifyFile(path(name), parent, shortName.c_str(), status(name));
    });
  }
  // Also the answer and the inode.
  Lines verifyFolder(const std::string& name, unsigned long long parent = 1) {
    bool found = false;
    unsigned long long inode = 77;
    Lines lines = said([&] {
      const std::string shortName = name.substr(name.rfind('/') + 1);
      found = db->VerifyFolder(path(name), parent, shortName.c_str(), inode, status(name));
    });
    lines.push_back((found ? "true " : "false ") + std::to_string(inode));
    return lines;
  }

  std::unique_ptr<LoopMount> volume;
  std::unique_ptr<TempFolder> temp;
  std::unique_ptr<OpenCatalogue> db;
};

}  // namespace kddc::test
