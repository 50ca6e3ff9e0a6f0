// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A catalogue under the settling of records, and the driver's records in few words.
//
// Identifiers are letters; 'R' is the volume's root, row 1.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "agent/live/settle.h"
#include "tests/support/catalogue.h"

namespace kddc::test {

// Answers nothing and remembers what was asked.
struct AskedQuestions : DiskQuestions {
  std::vector<std::string> asked;
  void list(const fsf_fid& folder) override {
    asked.push_back(std::string("list ") + static_cast<char>(folder.data[0]));
  }
  void look(const fsf_fid& folder, const std::string& name) override {
    asked.push_back(std::string("look ") + static_cast<char>(folder.data[0]) + "/" + name);
  }
  void lookAt(const fsf_fid& file) override {
    asked.push_back(std::string("look at ") + static_cast<char>(file.data[0]));
  }
};

struct OpenLiveCatalogue : LiveCatalogue {
  using LiveCatalogue::fidDb;
  using LiveCatalogue::filesDb;
  using LiveCatalogue::LiveCatalogue;
  using LiveCatalogue::openTime;
};

struct SettleTest : CatalogueTest {
  OpenLiveCatalogue db{folder};
  AskedQuestions disk;
  Settle settle{db, disk};
  using Result = Settle::Result;

  SettleTest() {
    db.CreateDb();
    EXPECT_TRUE(db.OpenHandle(false, false));
    db.openTime = 0;
    StatFidName_s root = entry("/volume", 'R', kDirectory);
    root.st.st_nlink = 2;
    db.Insert(&root, 0, 7);
  }

  struct Seen {
    unsigned mode = kRegular;
    unsigned links = 1;
    long size = 10, mtime = 2000, ctime = 3000;
    bool listed = false;
    unsigned uid = 501, gid = 20;
    long atime = 1000, blocks = 8;
  };

  FlrJrnCommandRaw headed(unsigned cmd, const Seen& seen) {
    FlrJrnCommandRaw record{};
    record.cmd = cmd;
    record.timestamp = static_cast<unsigned>(seen.ctime);
    record.seq_num = ++number_;
    record.devt = 7;
    record.mask = RecordMask::of(seen.links, seen.listed).value();
    return record;
  }

  // The name stands for the file, with its attributes.
  Result present(char folderFid, const char* name, char file, const Seen& seen) {
    const Result named = name_(folderFid, name, file, seen);
    const Result attributes = attributesOf(file, seen);
    return attributes == Result::kFailed || named == Result::kNothing ? attributes : named;
  }
  Result present(char folderFid, const char* name, char file) {
    return present(folderFid, name, file, Seen());
  }
  Result folderPresent(char folderFid, const char* name, char file, bool listed = false) {
    return present(folderFid, name, file,
                   {.mode = kDirectory, .links = 2, .size = 4096, .listed = listed});
  }
  Result attributesOf(char file, const Seen& seen) {
    FlrJrnCommandRaw record = headed(FLR_JRN_SETATTR, seen);
    record.mask &= ~RecordMask::kListed;
    FlrJrnSetAttrRaw& r = record.u.setattr;
    r.fid = fidOf(file);
    r.mode_valid = r.uid_valid = r.gid_valid = r.atime_valid = 1;
    r.mtime_valid = r.ctime_valid = r.size_valid = r.blocks_valid = 1;
    r.mode = seen.mode;
    r.uid = seen.uid;
    r.gid = seen.gid;
    r.atime = {seen.atime, 0};
    r.mtime = {seen.mtime, 0};
    r.ctime = {seen.ctime, 0};
    r.size = static_cast<unsigned long long>(seen.size);
    r.blocks = static_cast<unsigned long long>(seen.blocks);
    return settle.take(record);
  }
  Result absent(char folderFid, const char* name, char file, unsigned links = 0) {
    FlrJrnCommandRaw record = headed(FLR_JRN_REMOVE, {.links = links});
    record.u.remove = {fidOf(folderFid), name, file ? fidOf(file) : fsf_fid{}, links};
    return settle.take(record);
  }
  Result folderAbsent(char folderFid, const char* name, char file, unsigned links = 0) {
    FlrJrnCommandRaw record = headed(FLR_JRN_RMDIR, {.links = links});
    record.u.rmdir = {fidOf(file), fidOf(folderFid), name};
    return settle.take(record);
  }
  Result renamed(char file, char from, const char* name, char to, const char* newName,
                 unsigned links = 1) {
    FlrJrnCommandRaw record = headed(FLR_JRN_RENAME, {.links = links});
    record.u.rename = {fidOf(file), fidOf(from), name, 0, {}, fidOf(to), newName};
    return settle.take(record);
  }
  // No links are left; or, with some, none of them in the volume.
  Result gone(char file, unsigned linksOutside = 0) {
    FlrJrnCommandRaw record = headed(FLR_JRN_REMOVE, {.links = linksOutside});
    record.u.remove = {{}, "", fidOf(file), 0};
    return settle.take(record);
  }

  // Everything written and committed, a row "INODE|PINODE|NAME|...".
  Rows written(const std::string& columns = "INODE,PINODE,NAME") {
    db.FlushAllJournals();
    settle.writeHeldBack();
    db.Commit();
    return files(columns);
  }
  // FIDS has one row for each row of FILES, and the two speak of each other.
  void expectPaired() {
    db.FlushAllJournals();
    settle.writeHeldBack();
    db.Commit();
    std::multiset<std::string> names, identifiers;
    for (const std::string& row : files("FID_ROWID||' '||INODE")) names.insert(row);
    for (const std::string& row : fids("FIDS_ROWID||' '||FILES_ROWID")) identifiers.insert(row);
    EXPECT_EQ(names, identifiers);
  }

 private:
  Result name_(char folderFid, const char* name, char file, const Seen& seen) {
    if (S_ISDIR(seen.mode)) {
      FlrJrnCommandRaw record = headed(FLR_JRN_MKDIR, seen);
      record.u.mkdir = {fidOf(folderFid), fidOf(file),     name,           seen.mode, seen.uid,
                        seen.gid,         {seen.atime, 0}, {seen.mtime, 0}};
      return settle.take(record);
    }
    if (S_ISLNK(seen.mode)) {
      FlrJrnCommandRaw record = headed(FLR_JRN_SYMLINK, seen);
      const std::string text(static_cast<std::size_t>(seen.size), 'x');
      record.u.symlink = {text.c_str(), fidOf(folderFid), name, fidOf(file), seen.uid, seen.gid};
      return settle.take(record);
    }
    FlrJrnCommandRaw record = headed(FLR_JRN_CREATE, seen);
    record.u.create = {fidOf(folderFid), fidOf(file),     name, seen.mode, seen.uid, seen.gid,
                       {seen.atime, 0},  {seen.mtime, 0}, 0};
    return settle.take(record);
  }

  unsigned long long number_ = 0;
};

}  // namespace kddc::test
