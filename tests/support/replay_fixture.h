// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Recorded changes of a small volume, and kddc replay upon its catalogue.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/catalogue.h"
#include "tests/support/program.h"
#include "tests/support/record_files.h"

namespace kddc::test {

inline FlrJrnCommandRaw makeFolder(char parent, char fid, const char* name) {
  FlrJrnCommandRaw r = record(FLR_JRN_MKDIR);
  r.u.mkdir = {.par_fid = fidOf(parent),
               .fid = fidOf(fid),
               .short_name = name,
               .mode = 040755,
               .uid = 501,
               .gid = 20,
               .atime = {1, 0},
               .mtime = {2, 0}};
  return r;
}

inline FlrJrnCommandRaw makeFile(char parent, char fid, const char* name) {
  FlrJrnCommandRaw r = record(FLR_JRN_CREATE);
  r.u.create = {.par_fid = fidOf(parent),
                .fid = fidOf(fid),
                .short_name = name,
                .mode = 0100644,
                .uid = 501,
                .gid = 20,
                .atime = {1, 0},
                .mtime = {2, 0},
                .rdev = 0};
  return r;
}

inline FlrJrnCommandRaw rename(char parent, char fid, const char* from, const char* to) {
  FlrJrnCommandRaw r = record(FLR_JRN_RENAME);
  r.u.rename = {fidOf(fid), fidOf(parent), from, 0, fidOf('z'), fidOf(parent), to};
  return r;
}

inline FlrJrnCommandRaw link(char parent, char fid, const char* name) {
  FlrJrnCommandRaw r = record(FLR_JRN_LINK);
  r.u.link = {fidOf(fid), fidOf(parent), name};
  return r;
}

inline FlrJrnCommandRaw removeFile(char parent, char fid, const char* name, unsigned int nlink) {
  FlrJrnCommandRaw r = record(FLR_JRN_REMOVE);
  r.u.remove = {fidOf(parent), name, fidOf(fid), nlink};
  return r;
}

inline constexpr char kHead[] = "command                  applied   ignored   refused    failed\n";

// A complete catalogue with its root (identifier 'r').
struct ReplayTest : CatalogueTest {
  ReplayTest() {
    OpenCatalogue db(folder);
    db.CreateDb();
    EXPECT_TRUE(db.OpenHandle(false, false));
    StatFidName_s root = entry("/photos", 'r', kDirectory);
    db.Insert(&root, 0, 7);
    db.UpdateTimesForFullScan();
    db.CloseHandle(5000, false);
  }

  std::string file(const std::string& bytes) const { return temp.write("file", bytes); }
  Outcome replay(const std::string& bytes, const Words& more = {}) const {
    Words words = {"replay", file(bytes), "--catalogue", folder};
    words.insert(words.end(), more.begin(), more.end());
    return Program::run(words);
  }
  std::string complaint(const std::string& what) const {
    return "kddc: " + temp / "file" + ": " + what + "\n";
  }
  void expectRefusal(const Outcome& outcome, const std::string& sentence) const {
    EXPECT_EQ(outcome.exitCode, 3) << outcome;
    EXPECT_EQ(outcome.err, "kddc: " + sentence + "\n");
    EXPECT_EQ(outcome.out, "");
  }
  Rows names() { return files("INODE,PINODE,FILE_TYPE,NAME"); }
  void change(const std::string& sql) const { DatabaseView(filesPath).rows(sql); }

  const Rows kUntouched = {"1|0|1|/photos"};
};

}  // namespace kddc::test
