// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A file system in memory that is changed at random, and a catalogue that follows it as the program
// does: events are merged as the kernel merges them, read late and in parts, and the records that
// come of them are applied later still, while the file system goes on changing.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "driver/record_stream.h"
#include "driver/translator.h"
#include "tests/support/fake_disk.h"
#include "tests/support/fake_volume.h"
#include "tests/support/live_fixture.h"

namespace kddc::test {

// The driver's requests, served when the test says so.
struct ServedRequests : DiskQuestions {
  std::deque<fsf_fid> lists;
  std::deque<std::pair<fsf_fid, std::string>> looks;
  void list(const fsf_fid& folder) override { lists.push_back(folder); }
  void look(const fsf_fid& folder, const std::string& name) override {
    looks.emplace_back(folder, name);
  }
  void lookAt(const fsf_fid& file) override { looks.emplace_back(file, ""); }
};

inline std::string numbersOf(const fsf_fid& fid) {
  unsigned long long columns[4];
  unsigned long long* out = columns;
  GetIntForBlob(&fid, &out);
  std::string text;
  for (const unsigned long long column : columns) text += std::to_string(column) + "|";
  return text;
}

// Both tables as they stand in the files.
struct SettledTables {
  struct Row {
    std::string parentText, name, stat, fidRow;
    long long parent = 0;
  };
  std::map<std::string, Row> files;         // by inode
  std::map<std::string, std::string> fids;  // by row id: the inode, and the identifier

  explicit SettledTables(DCSqliteDB& db) {
    std::string filesPath, fidsPath;
    db.GetDbPaths(&filesPath, &fidsPath);
    const auto cells = [](const std::string& row) {
      std::vector<std::string> out(1);
      for (const char c : row)
        if (c == '|')
          out.emplace_back();
        else
          out.back() += c;
      return out;
    };
    for (const std::string& line : DatabaseView(filesPath).rows(
             "SELECT INODE,PINODE,FID_ROWID,MODE||' '||NLINK||' '||SIZE||' '||MTIME,FILE_TYPE,NAME "
             "FROM FILES")) {
      const auto c = cells(line);
      files[c[0]] = {c[1], c[5], c[3], c[2], std::stoll(c[1])};
      EXPECT_EQ(GetFileType(static_cast<unsigned>(std::stoul(c[3]))), std::stoi(c[4])) << line;
    }
    for (const std::string& line : DatabaseView(fidsPath).rows(
             "SELECT FIDS_ROWID,FILES_ROWID,FID1||'|'||FID2||'|'||FID3||'|'||FID4||'|' FROM "
             "FIDS")) {
      const auto c = cells(line);
      fids[c[0]] = c[1] + " " + c[2] + "|" + c[3] + "|" + c[4] + "|" + c[5] + "|";
    }
    EXPECT_EQ(files.size(), fids.size());
  }

  // The identifier, when the two rows speak of each other.
  std::string fidOf(const Row& row) const {
    const auto at = fids.find(row.fidRow);
    if (at == fids.end()) return "none";
    const std::size_t space = at->second.find(' ');
    const auto owner = files.find(at->second.substr(0, space));
    return owner != files.end() && &owner->second == &row ? at->second.substr(space + 1) : "wrong";
  }
  bool pathOf(const std::string& inode, std::string& path) const {
    const auto at = files.find(inode);
    if (at == files.end() || path.size() > 10'000) return false;
    if (at->second.parent == 0) return true;
    path = path.empty() ? at->second.name : at->second.name + "/" + path;
    return pathOf(at->second.parentText, path);
  }
};

struct Habits {
  bool leavesVolume;  // things are moved out of the volume and into it
  bool links;         // files get further names
};

class SettleModel {
 public:
  // Each decision is one call of `random`, which gives a number of that range.
  using Random = std::function<int(int from, int to)>;

  SettleModel(Random random, const std::string& folder, Habits habits)
      : random_(std::move(random)), habits_(habits), db_(folder) {
    db_.CreateDb();
    EXPECT_TRUE(db_.OpenHandle(false, false));
    volume_.mkdir("in");
    volume_.mkdir("out");
    volume_.read();
    disk_.root = volume_.fid("in");
    insertRoot();
  }

  void run(int operations) {
    for (int i = 0; i < operations; ++i) {
      change();
      if (chance(8)) readEvents(random(1, 20));
      if (chance(10)) applySome(random(1, 30));
      if (chance(40)) serve();
      if (chance(100)) checkpoint();
      if (i == operations / 2) {
        checkpoint();
        rowsBefore_ = rowsOf();
      }
    }
    finish();
  }

  // path, type, mode, links, size, mtime and identifier of each entry.
  std::set<std::string> tree() {
    std::set<std::string> entries;
    collect(volume_.node("in"), "", entries);
    entries.insert(describe("", volume_.node("in"), disk_.root));
    return entries;
  }
  std::set<std::string> catalogue() {
    const SettledTables tables(db_);
    std::set<std::string> entries;
    for (const auto& [inode, row] : tables.files) {
      std::string path;
      if (row.parent != 0 && !tables.pathOf(inode, path)) path = "lost:" + row.name;
      entries.insert(path + " " + row.stat + " " + tables.fidOf(row));
    }
    return entries;
  }
  // The rows that files have had since the middle of the run and lost since.
  std::vector<std::string> rowsChanged() {
    std::vector<std::string> changed;
    const auto now = rowsOf();
    for (const auto& [fid, inode] : rowsBefore_)
      if (const auto at = now.find(fid); at != now.end() && at->second != inode)
        changed.push_back(inode + " became " + at->second);
    return changed;
  }
  std::uint64_t failed() const { return settle_.counts().failed; }
  // How often there was something to ask still when all had been answered.
  int roundsOfQuestions() const { return rounds_; }

 private:
  void insertRoot() {
    StatFidName_s root{};
    root.st = volume_.node("in").st;
    root.fid = disk_.root;
    root.name = "/in";
    db_.Insert(&root, 0, 7);
  }

  int random(int from, int to) { return random_(from, to); }
  bool chance(int oneIn) { return random(1, oneIn) == 1; }

  // All paths of one kind, below both folders.
  void paths(const std::string& path, bool folders, std::vector<std::string>& out) {
    for (const auto& [name, id] : volume_.node(path).names) {
      const std::string child = path.empty() ? name : path + "/" + name;
      const bool isFolder = S_ISDIR(volume_.node(child).st.st_mode);
      if (isFolder == folders && !(path.empty())) out.push_back(child);
      if (isFolder) paths(child, folders, out);
    }
  }
  std::string pick(bool folders) {
    std::vector<std::string> all;
    paths("", folders, all);
    return all.empty() ? "" : all[static_cast<std::size_t>(random(0, int(all.size()) - 1))];
  }
  std::string parentFor() {
    const std::string folder = pick(true);
    if (folder.empty() || chance(4)) return habits_.leavesVolume && chance(5) ? "out" : "in";
    return folder;
  }
  // Few names, so that they meet.
  std::string newPath() { return parentFor() + "/n" + std::to_string(random(1, 6)); }

  void change() {
    volume_.pid = 1000 + random(0, 1);
    try {
      changeOnce();
    } catch (const std::logic_error&) {  // a kernel would refuse it, too
    }
  }
  void changeOnce() {
    switch (random(1, 16)) {
      case 1:
      case 2:
      case 3:
        volume_.create(newPath());
        return;
      case 4:
        volume_.mkdir(newPath());
        return;
      case 5:
        volume_.symlink("text" + std::to_string(random(1, 99)), newPath());
        return;
      case 6:
        if (const auto file = pick(false); !file.empty() && habits_.links)
          volume_.link(file, newPath());
        return;
      case 7:
      case 8:
        if (const auto file = pick(false); !file.empty()) volume_.unlink(file);
        return;
      case 9:
        if (const auto folder = pick(true); !folder.empty()) volume_.rmdir(folder);
        return;
      case 10:
      case 11:
        if (const auto file = pick(false); !file.empty()) volume_.rename(file, newPath());
        return;
      case 12: {
        const std::string folder = pick(true), to = newPath();
        if (!folder.empty() && !(to + "/").starts_with(folder + "/")) volume_.rename(folder, to);
        return;
      }
      case 13: {
        const std::string a = pick(chance(2)), b = pick(chance(2));
        const bool apart = !(a + "/").starts_with(b + "/") && !(b + "/").starts_with(a + "/");
        if (!a.empty() && !b.empty() && apart) volume_.exchange(a, b);
        return;
      }
      case 14:
        if (const auto file = pick(false); !file.empty()) volume_.write(file, random(0, 9999));
        return;
      case 15:
        if (const auto file = pick(chance(2)); !file.empty())
          volume_.chmod(file, chance(2) ? 0600 : 0755);
        return;
      default:
        if (const auto file = pick(false); !file.empty() && chance(3))
          volume_.renameWithWhiteout(file, newPath());
        else if (chance(2))
          volume_.create(newPath(), S_IFIFO | 0600);
        return;
    }
  }

  void readEvents(int most) {
    std::vector<Event> events;
    for (const KernelEvent& event : volume_.read(static_cast<std::size_t>(most)))
      EXPECT_TRUE(parseEvents(kernelBytes(event), events));
    if (!events.empty()) translator_.translate(events);
  }

  void serve() {
    while (!requests_.looks.empty()) {
      const auto& [fid, name] = requests_.looks.front();
      name.empty() ? translator_.lookAt(fid) : translator_.look(fid, name);
      requests_.looks.pop_front();
    }
    while (!requests_.lists.empty()) {
      translator_.list(requests_.lists.front());
      requests_.lists.pop_front();
    }
    translator_.listSome(static_cast<std::size_t>(random(1, 50)));
  }

  void applySome(int most) {
    for (; most > 0 && !queue_.empty(); --most) {
      std::vector<unsigned char> bytes = std::move(queue_.front());
      queue_.pop_front();
      FlrJrnCommandRaw record;
      ASSERT_TRUE(isWellFormedRecord(bytes.data(), bytes.size()));
      decodeRawCmd(bytes.data(), &record);
      settle_.take(record);
    }
  }

  void checkpoint() {
    db_.FlushAllJournals();
    settle_.writeHeldBack();
    db_.Commit();
  }

  void finish() {
    for (bool busy = true; busy;) {
      while (volume_.queued() > 0) readEvents(1000);
      while (!requests_.lists.empty() || !requests_.looks.empty() || translator_.listSome(100))
        serve();
      applySome(1'000'000);
      checkpoint();
      const auto parked = db_.parkedRows();  // their names may come with a listing
      for (const Name& row : parked) translator_.resolve(row.fid);
      busy = !parked.empty() || volume_.queued() > 0 || !requests_.lists.empty() ||
             !requests_.looks.empty() || !queue_.empty();
      rounds_ += busy;
    }
    db_.CloseHandle(0, false);
  }

  // The catalogue number of each identifier.
  std::map<std::string, std::string> rowsOf() {
    std::map<std::string, std::string> rows;
    const SettledTables tables(db_);
    for (const auto& [inode, row] : tables.files) rows[tables.fidOf(row)] = inode;
    return rows;
  }

  static std::string describe(const std::string& path, const FakeVolume::Node& node,
                              const fsf_fid& fid) {
    return path + " " + std::to_string(node.st.st_mode) + " " + std::to_string(node.st.st_nlink) +
           " " + std::to_string(node.st.st_size) + " " + std::to_string(node.st.st_mtime) + " " +
           numbersOf(fid);
  }
  void collect(const FakeVolume::Node& folder, const std::string& prefix,
               std::set<std::string>& entries) {
    for (const auto& [name, id] : folder.names) {
      const std::string path = prefix.empty() ? name : prefix + "/" + name;
      const auto& node = volume_.node("in/" + path);
      entries.insert(describe(path, node, volume_.fid("in/" + path)));
      if (S_ISDIR(node.st.st_mode)) collect(node, path, entries);
    }
  }

  Random random_;
  Habits habits_;
  FakeVolume volume_;
  FakeDisk disk_{volume_};
  std::deque<std::vector<unsigned char>> queue_;
  RecordStream stream_{7, 1, [this](std::span<unsigned char> bytes) {
                         queue_.emplace_back(bytes.begin(), bytes.end());
                       }};
  Translator translator_{disk_,
                         {42, {}, [] { return 777U; }},
                         {[this](const FlrJrnCommandRaw& record) { stream_.write(record); },
                          [](int error) { ADD_FAILURE() << "a look failed: " << error; }}};
  OpenLiveCatalogue db_;
  ServedRequests requests_;
  Settle settle_{db_, requests_};
  std::map<std::string, std::string> rowsBefore_;
  int rounds_ = 0;
};

}  // namespace kddc::test
