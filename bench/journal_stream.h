// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A volume as its catalogue shows it after a scan, and the records that it sends.
//
// Every hundred rows are ten folders and ninety files: one folder in the root, nine in that one,
// nine files in each. Numbers of rows begin at 0, inodes at 1; row 0 is the root, and the first of
// its folders at the same time. Identifiers look as ext4 makes them: neighbours are neighbours.
//
// Near records come upon files in the order of their folders, far ones in no order at all.
#pragma once

#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "records/journal_record.h"

namespace kddc::bench {

enum class Order { kNear, kFar };

constexpr unsigned kLastScan = 1700000000;  // seconds; the volume's times lie after it

// The identifier of the inode with that number; a generation stands behind the number.
inline fsf_fid fidOf(unsigned number) {
  fsf_fid fid{};
  fid.data[0] = 1;
  fid.data[1] = 8;
  const unsigned handle[2] = {number + 12, number * 2654435761U};
  std::memcpy(fid.data + 4, handle, sizeof handle);
  return fid;
}

struct Tree {
  unsigned rows;

  unsigned files() const { return rows / 100 * 90; }
  unsigned folders() const { return rows / 100 * 10; }
  unsigned subFolders() const { return rows / 100 * 9; }

  // Rows by their number among those of a kind.
  static unsigned file(unsigned i) { return i / 90 * 100 + 10 + i % 90; }
  static unsigned folder(unsigned i) { return i / 10 * 100 + i % 10; }
  static unsigned subFolder(unsigned i) { return i / 9 * 100 + 1 + i % 9; }

  static bool isFolder(unsigned row) { return row % 100 < 10; }
  static unsigned parent(unsigned row) {
    const unsigned top = row / 100 * 100, place = row % 100;
    if (place == 0) return 0;
    return place < 10 ? top : top + (place - 10) / 9;
  }
  static std::string name(unsigned row) {
    return (isFolder(row) ? "folder-" : "document-") + std::to_string(row);
  }
};

// Encoded records, one behind the other.
class Stream {
 public:
  void add(const FlrJrnCommandRaw& record) {
    const std::size_t at = bytes_.size();
    bytes_.resize(at + getRawCmdSize(&record));
    encodeRawCmd(&record, bytes_.data() + at);
    ++count_;
  }
  std::size_t count() const { return count_; }

  template <class Apply>
  void forEach(Apply&& apply) const {
    FlrJrnCommandRaw record;
    for (const unsigned char* at = bytes_.data(); at < bytes_.data() + bytes_.size();) {
      FlrJrnHdrRaw header;
      decodeRawHdr(at, &header);
      decodeRawCmd(at, &record);
      apply(record);
      at += header.length;
    }
  }

 private:
  std::vector<unsigned char> bytes_;
  std::size_t count_ = 0;
};

// What happens on the volume, written down as records. Entries are named by their rows in the tree;
// `file`, `folder` and `subFolder` hand out the next one in the order of the volume.
class Volume {
 public:
  Volume(unsigned rows, Order order)
      : tree_{rows},
        order_(order),
        files_(inOrder(tree_.files())),
        folders_(inOrder(tree_.folders())),
        subFolders_(inOrder(tree_.subFolders())),
        numbers_(rows) {
    std::iota(numbers_.begin(), numbers_.end(), 0U);
  }

  const Stream& stream() const { return stream_; }
  unsigned file() { return Tree::file(files_[nextFile_++ % files_.size()]); }
  unsigned folder() { return Tree::folder(folders_[nextFolder_++ / 9 % folders_.size()]); }
  unsigned subFolder() { return Tree::subFolder(subFolders_[nextFolder_++ % subFolders_.size()]); }
  // Where a file moves to.
  unsigned target(unsigned row) { return order_ == Order::kNear ? Tree::parent(row) : folder(); }
  // The number of an inode that is not in use.
  unsigned newNumber() {
    const unsigned n = next_++;
    return tree_.rows + (order_ == Order::kNear ? n : n * 2654435761U % (1U << 24));
  }
  unsigned numberOf(unsigned row) const { return numbers_[row]; }

  void setAttr(unsigned number) {
    FlrJrnCommandRaw r = record(FLR_JRN_SETATTR);
    FlrJrnSetAttrRaw& u = r.u.setattr;
    u.fid = fidOf(number);
    u.mtime_valid = u.ctime_valid = u.size_valid = u.blocks_valid = 1;
    u.mtime = u.ctime = {r.timestamp, 0};
    u.size = stream_.count();
    u.blocks = 8;
    stream_.add(r);
  }
  void create(unsigned parent, const std::string& name, unsigned number) {
    FlrJrnCommandRaw r = record(FLR_JRN_CREATE);
    r.u.create = {.par_fid = fidOf(numbers_[parent]),
                  .fid = fidOf(number),
                  .short_name = name.c_str(),
                  .mode = 0100644,
                  .uid = 501,
                  .gid = 20,
                  .atime = {r.timestamp, 0},
                  .mtime = {r.timestamp, 0},
                  .rdev = 0};
    stream_.add(r);
  }
  void mkDir(unsigned parent, const std::string& name, unsigned number) {
    FlrJrnCommandRaw r = record(FLR_JRN_MKDIR);
    r.u.mkdir = {.par_fid = fidOf(numbers_[parent]),
                 .fid = fidOf(number),
                 .short_name = name.c_str(),
                 .mode = 040755,
                 .uid = 501,
                 .gid = 20,
                 .atime = {r.timestamp, 0},
                 .mtime = {r.timestamp, 0}};
    stream_.add(r);
  }
  void remove(unsigned parent, const std::string& name, unsigned number, unsigned left = 0) {
    FlrJrnCommandRaw r = record(FLR_JRN_REMOVE);
    r.u.remove = {fidOf(numbers_[parent]), name.c_str(), fidOf(number), left};
    stream_.add(r);
  }
  void rmDir(unsigned parent, const std::string& name, unsigned number) {
    FlrJrnCommandRaw r = record(FLR_JRN_RMDIR);
    r.u.rmdir = {fidOf(number), fidOf(numbers_[parent]), name.c_str()};
    stream_.add(r);
  }
  void link(unsigned number, unsigned parent, const std::string& name) {
    FlrJrnCommandRaw r = record(FLR_JRN_LINK);
    r.u.link = {fidOf(number), fidOf(numbers_[parent]), name.c_str()};
    stream_.add(r);
  }
  void symLink(unsigned parent, const std::string& name, unsigned number) {
    FlrJrnCommandRaw r = record(FLR_JRN_SYMLINK);
    r.u.symlink = {
        "../document-1.txt", fidOf(numbers_[parent]), name.c_str(), fidOf(number), 501, 20};
    stream_.add(r);
  }
  void rename(unsigned number, unsigned from, const std::string& name, unsigned to,
              const std::string& newName) {
    FlrJrnCommandRaw r = record(FLR_JRN_RENAME);
    r.u.rename = {fidOf(number),       fidOf(numbers_[from]), name.c_str(), 0, {},
                  fidOf(numbers_[to]), newName.c_str()};
    stream_.add(r);
  }
  // The entry with that number takes the place of a file, which is gone.
  void renameOver(unsigned number, const std::string& name, unsigned row) {
    const fsf_fid parent = fidOf(numbers_[Tree::parent(row)]);
    const std::string newName = Tree::name(row);
    FlrJrnCommandRaw r = record(FLR_JRN_RENAME);
    r.u.rename = {fidOf(number),        parent, name.c_str(),   1,
                  fidOf(numbers_[row]), parent, newName.c_str()};
    stream_.add(r);
    numbers_[row] = number;
  }
  void setAcl(unsigned number) {
    FlrJrnCommandRaw r = record(FLR_JRN_SET_ACL);
    r.u.set_acl = {fidOf(number), 0, nullptr};
    stream_.add(r);
  }
  void stub(unsigned number) {
    FlrJrnCommandRaw r = record(FLR_JRN_STUB);
    r.u.stub = {fidOf(number), "tape 7"};
    stream_.add(r);
  }
  void unStub(unsigned number) {
    FlrJrnCommandRaw r = record(FLR_JRN_UNSTUB);
    r.u.unstub = {fidOf(number)};
    stream_.add(r);
  }

 private:
  std::vector<unsigned> inOrder(unsigned count) const {
    std::vector<unsigned> all(count);
    std::iota(all.begin(), all.end(), 0U);
    std::mt19937 random(1);
    if (order_ == Order::kFar) std::shuffle(all.begin(), all.end(), random);
    return all;
  }

  FlrJrnCommandRaw record(unsigned cmd) const {
    FlrJrnCommandRaw r{};
    r.cmd = cmd;
    r.timestamp = kLastScan + 1 + static_cast<unsigned>(stream_.count() / 100);
    r.seq_num = stream_.count();
    r.devt = 7;
    return r;
  }

  Tree tree_;
  Order order_;
  std::vector<unsigned> files_, folders_, subFolders_;  // numbers among those of a kind
  std::vector<unsigned> numbers_;                       // of the inode that each row has by now
  std::size_t nextFile_ = 0, nextFolder_ = 0;
  unsigned next_ = 0;
  Stream stream_;
};

}  // namespace kddc::bench
