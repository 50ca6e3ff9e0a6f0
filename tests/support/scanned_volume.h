// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A folder as a volume, with its catalogue beside it, and both told in the same words, so that they
// can be laid side by side. How the disk is comes from lstat and name_to_handle_at, path by path.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "agent/engine/full_scan.h"
#include "agent/engine/new_catalogue.h"
#include "agent/live/quiet_rescan.h"
#include "platform/file_handle.h"
#include "tests/support/database_view.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

class ScannedVolume {
 public:
  // What can be compared of an entry: "type|mode|uid|gid|nlink|size|mtime|ctime|identifier".
  using Entries = std::map<std::string, std::string>;

  explicit ScannedVolume(std::string volume = {}) : volume_(std::move(volume)) {
    if (!volume_.empty()) return;
    volume_ = temp_ / "volume";
    std::filesystem::create_directory(volume_);
  }

  const std::string& path() const { return volume_; }
  std::string catalogue() const { return temp_ / "catalogue"; }
  std::string operator/(const std::string& name) const { return volume_ + "/" + name; }
  WalkOptions options{.stubAttribute = "user.stub", .leaveOut = {}};

  void folder(const std::string& name) const {
    std::filesystem::create_directories(volume_ + "/" + name);
  }
  void file(const std::string& name, const std::string& text = "") const {
    std::ofstream(volume_ + "/" + name, std::ios::binary | std::ios::trunc) << text;
  }
  void rename(const std::string& from, const std::string& to) const {
    std::filesystem::rename(volume_ + "/" + from, volume_ + "/" + to);
  }
  void remove(const std::string& name) const { std::filesystem::remove_all(volume_ + "/" + name); }
  void link(const std::string& from, const std::string& to) const {
    std::filesystem::create_hard_link(volume_ + "/" + from, volume_ + "/" + to);
  }

  UniqueFd open() const {
    return UniqueFd(::open(volume_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  // As if the scan had been long ago: every row gets the stamp 1000, and all on the disk an old
  // modification time, so that a change in this very second shows.
  void scan() {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(volume_))
      age(entry.path());
    age(volume_);
    NewCatalogue fresh(catalogue(), volume_);
    fullScan(open(), volume_, options, fresh.rows(), [](std::uint64_t) {});
    fresh.publish(std::time(nullptr));
    change("UPDATE FILES SET TIME=1000");
  }
  RescanCounts rescan() {
    return rescanQuietly(open(), volume_, options, catalogue(), std::time(nullptr), {});
  }

  // SQL on either database; the rows.
  std::vector<std::string> change(const std::string& sql) const {
    return DatabaseView(catalogue() + "/.db.kd").rows(sql);
  }
  std::vector<std::string> changeFids(const std::string& sql) const {
    return DatabaseView(catalogue() + "/.fid.kd").rows(sql);
  }
  long long number(const std::string& column, const std::string& where) const {
    return std::stoll(DatabaseView(catalogue() + "/.db.kd")
                          .cell("SELECT " + column + " FROM FILES WHERE " + where));
  }
  long long inodeOf(const std::string& name) const {
    return number("INODE", "NAME='" + name + "'");
  }
  long long stampOf(const std::string& name) const { return number("TIME", "NAME='" + name + "'"); }

  // Both databases, every column of every row.
  std::vector<std::string> dump() const {
    auto all = change("SELECT * FROM FILES ORDER BY INODE");
    for (std::string& row : changeFids("SELECT * FROM FIDS ORDER BY FIDS_ROWID"))
      all.push_back(row);
    return all;
  }

  Entries onDisk() const {
    Entries entries;
    add(entries, volume_, ".");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(volume_))
      add(entries, entry.path().string(), entry.path().string().substr(volume_.size() + 1));
    return entries;
  }
  Entries inCatalogue() const {
    const auto rows = rowsByInode();
    Entries entries;
    for (const auto& [inode, row] : rows)
      if (!entries.emplace(pathOf(rows, inode), row.text).second)
        ADD_FAILURE() << "twice in the catalogue: " << pathOf(rows, inode);
    return entries;
  }
  std::map<std::string, long long> inodes() const {
    const auto rows = rowsByInode();
    std::map<std::string, long long> inodes;
    for (const auto& [inode, row] : rows) inodes[pathOf(rows, inode)] = inode;
    return inodes;
  }
  void expectSame() const {
    EXPECT_EQ(inCatalogue(), onDisk());
    EXPECT_EQ(change("SELECT COUNT(*) FROM FILES"), changeFids("SELECT COUNT(*) FROM FIDS"));
  }

 private:
  struct Row {
    long long parent = 0;
    std::string name, text;
  };
  using Rows = std::map<long long, Row>;

  static void age(const std::string& path) {
    const timespec times[2] = {{0, UTIME_OMIT}, {1'000'000'000, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  }
  static std::string nameIn(const std::string& hex) {
    std::string name;
    for (std::size_t i = 0; i < hex.size(); i += 2)
      name += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return name;
  }
  Rows rowsByInode() const {
    DatabaseView view(catalogue() + "/.db.kd");
    view.rows("ATTACH '" + catalogue() + "/.fid.kd' AS ids");
    Rows rows;
    for (const std::string& line : view.rows(
             "SELECT INODE,PINODE,hex(NAME),FILE_TYPE,MODE,UID&4294967295,GID&4294967295,NLINK,"
             "SIZE,MTIME,CTIME,"
             "FID1||' '||FID2||' '||FID3||' '||FID4 FROM FILES LEFT JOIN ids.FIDS ON "
             "FID_ROWID=FIDS_ROWID AND INODE=FILES_ROWID")) {
      const auto first = line.find('|'), second = line.find('|', first + 1),
                 third = line.find('|', second + 1);
      rows[std::stoll(line)] = {std::stoll(line.substr(first + 1)),
                                nameIn(line.substr(second + 1, third - second - 1)),
                                line.substr(third + 1)};
    }
    return rows;
  }
  static std::string pathOf(const Rows& rows, long long inode) {
    std::string path;
    for (int steps = 0; steps < 1000; ++steps) {
      const auto row = rows.find(inode);
      if (row == rows.end()) return "no way up: " + path;
      if (row->second.parent == 0) return path.empty() ? "." : path;
      path = row->second.name + (path.empty() ? "" : "/") + path;
      inode = row->second.parent;
    }
    return "a circle: " + path;
  }

  static fsf_fid fidOf(const std::string& path, const struct stat& st) {
    fsf_fid fid{};
    const int result = identify(AT_FDCWD, path.c_str(), fid);
    if (result == 0) return fid;
    if (result != -EOPNOTSUPP && result != -EOVERFLOW) ADD_FAILURE() << path << ": " << result;
    fid = {};
    fid.data[0] = 0xff;
    fid.data[1] = 8;
    std::memcpy(fid.data + 4, &st.st_ino, 8);
    return fid;
  }
  static int typeOf(const struct stat& st) {
    switch (st.st_mode & S_IFMT) {
      case S_IFREG:
        return 0;
      case S_IFDIR:
        return 1;
      case S_IFLNK:
        return 2;
      case S_IFCHR:
        return 3;
      case S_IFBLK:
        return 4;
      case S_IFIFO:
        return 5;
      default:
        return 6;
    }
  }
  static void add(Entries& entries, const std::string& path, const std::string& relative) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return;
    const fsf_fid fid = fidOf(path, st);
    std::string text;
    for (const long long number :
         {static_cast<long long>(typeOf(st)), static_cast<long long>(st.st_mode),
          static_cast<long long>(st.st_uid), static_cast<long long>(st.st_gid),
          static_cast<long long>(st.st_nlink), static_cast<long long>(st.st_size),
          static_cast<long long>(st.st_mtime), static_cast<long long>(st.st_ctime)})
      text += std::to_string(number) + "|";
    for (std::size_t piece = 0; piece < 4; ++piece) {
      unsigned long long number = 0;
      std::memcpy(&number, fid.data + 6 * piece, 6);  // little-endian, like the columns
      text += (piece ? " " : "") + std::to_string(number);
    }
    entries[relative] = text;
  }

  TempFolder temp_;
  std::string volume_;
};

}  // namespace kddc::test
