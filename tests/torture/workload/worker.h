// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One process of the workload: its chance, the places that it finds, the files that it holds open.
//
// Places come from what the folders hold at the moment or from a small pool of names, so that
// processes collide. They may be gone again before they are used; a folder that could not be opened
// is a descriptor of -1. The operation on them then fails as it may, which is a part of the work.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/unique_fd.h"
#include "tests/torture/workload/random.h"

namespace kddc::torture {

struct Options {
  std::string root;
  std::string outside;    // a folder outside the volume that things move to and from; or none
  std::string survivors;  // where to write the identifiers of what lives throughout; or nowhere
  std::uint64_t seed = 1;
  long operations = 1000;  // of all processes together
  int processes = 1;
  unsigned pause = 0;  // microseconds between two operations of a process
  bool holdOpen = false;
  bool noDevices = false;
  bool manyLinks = false;
};

// What lives throughout is below the folder "keep" of the root and bears a name that begins so.
inline constexpr char kKept[] = "keep";
inline bool isKept(std::string_view name) {
  return name.starts_with(kKept);
}

// Holds one file under thousands of names; nobody else works there, for listing it takes long.
inline constexpr char kManyLinks[] = "keep-links";

struct Place {
  UniqueFd folder;
  std::string name;
};

enum class Kind { kAny, kFolder, kOther };
// Whether a pick may fall on what lives throughout.
enum class Kept { kNever, kToo };

struct Entry {
  std::string name;
  bool isFolder;
};
// In the order of their names, for the kernel's order tells of the disk's history.
std::vector<Entry> entriesOf(int folder);

UniqueFd openFolder(int folder, const std::string& name);
// The path by which the kernel finds what a descriptor stands for.
std::string pathOf(int fd);

class Worker {
 public:
  Worker(const Options& options, int index);

  Random random;

  const Options& options() const { return options_; }
  UniqueFd root() const { return openFolder(root_.get(), "."); }
  // Any folder, and now and then one at the bottom of the tree.
  UniqueFd folder();
  std::string name();
  // Any name in any folder; it may stand for something or not.
  Place place() { return {folder(), name()}; }
  // An entry that existed a moment ago; now and then, or where none is found, any name.
  Place existing(Kind kind = Kind::kAny, Kept kept = Kept::kNever);

  // A folder that lives throughout, and an entry in one whose name begins with `prefix`.
  UniqueFd keptFolder();
  Place keptEntry(std::string_view prefix);

  // Closes the file, or holds it open for a while.
  void release(UniqueFd file);
  // One of those held open; -1 when there is none.
  int held();
  void closeOne();

 private:
  UniqueFd start();

  const Options& options_;
  UniqueFd root_, outside_;
  std::vector<UniqueFd> held_;
};

}  // namespace kddc::torture
