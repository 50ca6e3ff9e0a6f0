// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A small file system in memory that raises the kernel's events: for each operation the ones that
// fanotify raises on ext4, in the kernel's order, merged by the kernel's rule (kernel_queue.h).
// Written without any code of the driver, so that it can judge it.
//
//   FakeVolume volume;
//   volume.mkdir("docs");
//   volume.create("docs/a");
//   volume.rename("docs/a", "docs/b");
//   volume.read();                     // the events, which are then off the queue
//
// Paths are relative to the root, which is "". Identifiers have type 1 and 8 bytes, as on ext4.
// Each operation takes one second of the volume's own clock. Operations that a kernel would refuse
// throw std::logic_error: a test asked for nonsense.
#pragma once

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/kernel_events.h"
#include "tests/support/kernel_queue.h"

namespace kddc::test {

class FakeVolume {
 public:
  using Id = std::uint64_t;
  static constexpr Id kRoot = 2;

  struct Node {
    struct stat st {};
    std::string linkText;
    bool isStub = false;
    std::map<std::string, Id> names;  // of a folder
  };

  int pid = 1000;  // who does what follows

  FakeVolume() {
    struct stat& st = nodes_[kRoot].st;
    st.st_ino = kRoot;
    st.st_mode = S_IFDIR | 0755;
    st.st_nlink = 2;
    st.st_atim.tv_sec = st.st_mtim.tv_sec = st.st_ctim.tv_sec = clock_;
  }

  // Operations. ---------------------------------------------------------------------------------

  // These return the identifier of what they make. `mode` also says what kind of file it is.
  fsf_fid create(const std::string& path, mode_t mode = S_IFREG | 0644, dev_t device = 0) {
    return add(path, mode, device);
  }
  fsf_fid mkdir(const std::string& path) { return add(path, S_IFDIR | 0755); }
  fsf_fid symlink(const std::string& text, const std::string& path) {
    return add(path, S_IFLNK | 0777, 0, text);
  }
  // A further name of a file.
  void link(const std::string& existing, const std::string& path) {
    linkNode(idAt(existing), place(path));
  }
  void unlink(const std::string& path) {
    const Place at = place(path);
    const Id id = idAt(path);
    if (isFolder(id)) throw std::logic_error("unlink of the folder " + path);
    nodes_.at(at.folder).names.erase(at.name);
    stampNames(at.folder);
    loseLink(id, at);
    raise(FAN_DELETE, entryOf(at), fidOf(id));
    eraseIfGone(id);
  }
  void rmdir(const std::string& path) {
    const Place at = place(path);
    const Id id = idAt(path);
    if (!isFolder(id) || !nodes_.at(id).names.empty()) throw std::logic_error("rmdir of " + path);
    nodes_.at(at.folder).names.erase(at.name);
    stampNames(at.folder);
    loseFolder(id, at, 0);
    raise(FAN_DELETE | FAN_ONDIR, entryOf(at), fidOf(id));
    eraseIfGone(id);
  }
  // Replaces what is at `to`. Renaming a link over another one of its file does nothing.
  void rename(const std::string& from, const std::string& to) {
    const Place source = place(from), target = place(to);
    const Id id = idAt(from), replaced = find(target);
    if (id == replaced) return;
    if (replaced != 0 && isFolder(replaced) && !nodes_.at(replaced).names.empty())
      throw std::logic_error("rename over " + to);
    nodes_.at(source.folder).names.erase(source.name);
    nodes_.at(target.folder).names[target.name] = id;
    stampNames(source.folder);
    stampNames(target.folder);
    raiseRename(id, source, target);
    if (replaced != 0 && isFolder(replaced)) loseFolder(replaced, target, FAN_ATTRIB);
    if (replaced != 0 && !isFolder(replaced)) loseLink(replaced, target);
    moved(id, source, target);
    if (replaced != 0) eraseIfGone(replaced);
  }
  void exchange(const std::string& one, const std::string& other) {
    const Place first = place(one), second = place(other);
    const Id a = idAt(one), b = idAt(other);
    nodes_.at(first.folder).names[first.name] = b;
    nodes_.at(second.folder).names[second.name] = a;
    stampNames(first.folder);
    stampNames(second.folder);
    raiseRename(a, first, second);
    moved(a, first, second);
    raiseRename(b, second, first);
    moved(b, second, first);
  }
  // A rename that leaves a character device 0:0 at the old name, without an event for it.
  void renameWithWhiteout(const std::string& from, const std::string& to) {
    const Place source = place(from);
    const bool same = idAt(from) == find(place(to));  // two names of one file: nothing happens
    rename(from, to);
    if (same) return;
    nodes_.at(source.folder).names[source.name] = makeNode(S_IFCHR, 1);
  }

  void chmod(const std::string& path, mode_t permissions) {
    struct stat& st = stamp(idAt(path)).st;
    st.st_mode = (st.st_mode & S_IFMT) | permissions;
    raiseOnSelf(FAN_ATTRIB, idAt(path), place(path));
  }
  // Sets or removes the extended attribute that makes a stub.
  void setStub(const std::string& path, bool isStub) {
    stamp(idAt(path)).isStub = isStub;
    raiseOnSelf(FAN_ATTRIB, idAt(path), place(path));
  }
  // Opens, writes and closes.
  void write(const std::string& path, off_t size) {
    const int file = open(path);
    writeTo(file, size);
    close(file);
  }

  // Opens for writing; returns what the next three take.
  int open(const std::string& path) { return addOpen(idAt(path), place(path), false); }
  // O_TMPFILE: a file without a name, whose events name it "#" and its number.
  int openUnnamed(const std::string& folder) {
    const Id id = makeNode(S_IFREG | 0600, 0);
    return addOpen(id, {idAt(folder), "#" + std::to_string(id)}, true);
  }
  void writeTo(int file, off_t size) {
    const Open& open = opens_.at(file);
    Node& node = stamp(open.id);
    node.st.st_size = size;
    node.st.st_mtim = node.st.st_ctim;
    raise(FAN_MODIFY, entryOf(open.at), fidOf(open.id));
  }
  void linkOpen(int file, const std::string& path) { linkNode(opens_.at(file).id, place(path)); }
  void close(int file) {
    const Open open = opens_.at(file);
    opens_.erase(file);
    if (!isFolder(open.id)) raise(FAN_CLOSE_WRITE, entryOf(open.at), fidOf(open.id));
    const bool last = !isOpen(open.id, open.at, open.isDead);
    if (open.isDead && last && nodes_.at(open.id).st.st_nlink == 0) raiseDeleteSelf(open.id, 0);
    eraseIfGone(open.id);
  }

  // Events. -------------------------------------------------------------------------------------

  // Takes the first `most` events off the queue.
  std::vector<KernelEvent> read(std::size_t most = static_cast<std::size_t>(-1)) {
    return queue_.read(most);
  }
  std::size_t queued() const { return queue_.size(); }

  // The disk as it is. --------------------------------------------------------------------------

  fsf_fid fid(const std::string& path) const { return fidOf(path.empty() ? kRoot : idAt(path)); }
  // The file of an identifier; null when it is gone.
  const Node* node(const fsf_fid& fid) const {
    const auto found = nodes_.find(idOf(fid));
    return found == nodes_.end() ? nullptr : &found->second;
  }
  const Node& node(const std::string& path) const {
    return nodes_.at(path.empty() ? kRoot : idAt(path));
  }
  // What a name stands for; none when the name, or its folder, is gone.
  std::optional<fsf_fid> lookUp(const fsf_fid& folder, const std::string& name) const {
    if (node(folder) == nullptr) return std::nullopt;
    const Id id = find({idOf(folder), name});
    if (id == 0) return std::nullopt;
    return fidOf(id);
  }
  // The names that a file has now, in no order that matters.
  std::vector<EntryName> namesOf(const fsf_fid& fid) const {
    std::vector<EntryName> names;
    for (const auto& [id, folder] : nodes_)
      for (const auto& [name, child] : folder.names)
        if (child == idOf(fid)) names.push_back({fidOf(id), name});
    return names;
  }
  // Whether a file is `folder` or has a name somewhere below it.
  bool isBelow(const fsf_fid& fid, const fsf_fid& folder) const {
    if (idOf(fid) == idOf(folder)) return true;
    for (const EntryName& name : namesOf(fid))
      if (isBelow(name.folder, folder)) return true;
    return false;
  }

 private:
  struct Place {
    Id folder;
    std::string name;
    bool operator==(const Place&) const = default;
  };
  struct Open {
    Id id;
    Place at;     // the name it was opened by, which its events go on to tell
    bool isDead;  // that name is gone
  };

  static fsf_fid fidOf(Id id) {
    fsf_fid fid{};
    fid.data[0] = 1;
    fid.data[1] = sizeof id;
    std::memcpy(fid.data + 4, &id, sizeof id);
    return fid;
  }
  static Id idOf(const fsf_fid& fid) {
    Id id = 0;
    std::memcpy(&id, fid.data + 4, sizeof id);
    return id;
  }
  static EntryName entryOf(const Place& at) { return {fidOf(at.folder), at.name}; }

  Id find(const Place& at) const {
    const auto& names = nodes_.at(at.folder).names;
    const auto found = names.find(at.name);
    return found == names.end() ? 0 : found->second;
  }
  Place place(const std::string& path) const {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {kRoot, path};
    return {idAt(path.substr(0, slash)), path.substr(slash + 1)};
  }
  Id idAt(const std::string& path) const {
    if (path.empty()) return kRoot;
    const Id id = find(place(path));
    if (id == 0) throw std::logic_error("there is no " + path);
    return id;
  }
  bool isFolder(Id id) const { return S_ISDIR(nodes_.at(id).st.st_mode); }

  // A change of the file's own; the clock goes on with each.
  Node& stamp(Id id) {
    Node& node = nodes_.at(id);
    node.st.st_ctim.tv_sec = ++clock_;
    return node;
  }
  // A change of a folder's names.
  void stampNames(Id folder) {
    struct stat& st = stamp(folder).st;
    st.st_mtim = st.st_ctim;
  }

  Id makeNode(mode_t mode, nlink_t links) {
    const Id id = next_++;
    struct stat& st = nodes_[id].st;
    st.st_ino = id;
    st.st_mode = mode;
    st.st_nlink = links;
    st.st_atim.tv_sec = st.st_mtim.tv_sec = st.st_ctim.tv_sec = ++clock_;
    return id;
  }
  fsf_fid add(const std::string& path, mode_t mode, dev_t device = 0,
              const std::string& text = "") {
    const Place at = place(path);
    if (find(at) != 0) throw std::logic_error("there is already " + path);
    const bool folder = S_ISDIR(mode);
    const Id id = makeNode(mode, folder ? 2 : 1);
    Node& node = nodes_.at(id);
    node.st.st_rdev = device;
    node.linkText = text;
    nodes_.at(at.folder).names[at.name] = id;
    if (folder) ++nodes_.at(at.folder).st.st_nlink;
    stampNames(at.folder);
    raise(FAN_CREATE | (folder ? FAN_ONDIR : 0), entryOf(at), fidOf(id));
    return fidOf(id);
  }
  void linkNode(Id id, const Place& at) {
    if (find(at) != 0) throw std::logic_error("there is already " + at.name);
    ++stamp(id).st.st_nlink;
    nodes_.at(at.folder).names[at.name] = id;
    stampNames(at.folder);
    raise(FAN_ATTRIB, std::nullopt, fidOf(id));
    raise(FAN_CREATE, entryOf(at), fidOf(id));
  }

  // The name `at` of a file is gone. The file tells so at once, unless that very name keeps it
  // open.
  void loseLink(Id id, const Place& at) {
    const nlink_t left = --stamp(id).st.st_nlink;
    raise(FAN_ATTRIB, std::nullopt, fidOf(id));
    const bool open = isOpen(id, at, false);
    for (auto& [file, other] : opens_)
      if (other.id == id && other.at == at) other.isDead = true;
    if (left == 0 && !open) raiseDeleteSelf(id, 0);
  }
  void loseFolder(Id id, const Place& at, std::uint64_t mask) {
    nodes_.at(id).st.st_nlink = 0;
    --nodes_.at(at.folder).st.st_nlink;
    const bool open = isOpen(id, at, false);
    for (auto& [file, other] : opens_)
      if (other.id == id) other.isDead = true;
    if (mask != 0) raiseOnSelf(mask, id, at);
    if (!open) raiseDeleteSelf(id, 0);
  }
  void moved(Id id, const Place& from, const Place& to) {
    stamp(id);
    for (auto& [file, open] : opens_)
      if (open.id == id && open.at == from && !open.isDead) open.at = to;
    if (isFolder(id)) {
      --nodes_.at(from.folder).st.st_nlink;
      ++nodes_.at(to.folder).st.st_nlink;
      raiseOnSelf(FAN_MOVE_SELF, id, to);
    } else {
      raise(FAN_MOVE_SELF, std::nullopt, fidOf(id));
    }
  }

  int addOpen(Id id, const Place& at, bool isDead) {
    opens_[nextOpen_] = {id, at, isDead};
    return nextOpen_++;
  }
  bool isOpen(Id id, const Place& at, bool isDead) const {
    return std::any_of(opens_.begin(), opens_.end(), [&](const auto& entry) {
      const Open& open = entry.second;
      return open.id == id && open.at == at && open.isDead == isDead;
    });
  }
  void eraseIfGone(Id id) {
    const bool open = std::any_of(opens_.begin(), opens_.end(),
                                  [&](const auto& entry) { return entry.second.id == id; });
    if (!open && nodes_.at(id).st.st_nlink == 0) nodes_.erase(id);
  }

  // A folder's own events name it by "." in it, a file's by a name and its identifier.
  void raiseOnSelf(std::uint64_t mask, Id id, const Place& at) {
    if (isFolder(id))
      raise(mask | FAN_ONDIR, EntryName{fidOf(id), "."}, std::nullopt);
    else
      raise(mask, entryOf(at), fidOf(id));
  }
  void raiseDeleteSelf(Id id, std::uint64_t mask) {
    if (isFolder(id))
      raise(mask | FAN_DELETE_SELF | FAN_ONDIR, EntryName{fidOf(id), "."}, std::nullopt);
    else
      raise(mask | FAN_DELETE_SELF, std::nullopt, fidOf(id));
  }
  void raiseRename(Id id, const Place& from, const Place& to) {
    raise(FAN_RENAME | (isFolder(id) ? FAN_ONDIR : 0), entryOf(from), fidOf(id), entryOf(to));
  }
  void raise(std::uint64_t mask, std::optional<EntryName> entry, std::optional<fsf_fid> object,
             std::optional<EntryName> newEntry = std::nullopt) {
    queue_.add({mask, pid, std::move(entry), std::move(newEntry), object});
  }

  std::map<Id, Node> nodes_;
  Id next_ = kRoot + 1;
  std::int64_t clock_ = 1000;
  std::map<int, Open> opens_;
  int nextOpen_ = 1;
  KernelQueue queue_;
};

}  // namespace kddc::test
