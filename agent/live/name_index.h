// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Which entry of a folder bears a name: the answer for the folders that are being worked on.
//
// The catalogue finds a name by looking through all rows of its folder, and for each name that is
// made in a folder of 200,000 somebody has to ask whether it is free. So the names of a folder are
// learnt once and then kept up to date by the only one who changes them.
//
// Names are kept as hashes: the caller compares the name of what he is given. Memory: about 60
// bytes for each name; beyond kMostNames the folders that were asked for longest ago are forgotten,
// but never the one that is being asked for.
//
// Threads: one.
#pragma once

#include <cstddef>
#include <list>
#include <string_view>
#include <unordered_map>

#include "platform/file_id.h"

namespace kddc {

class NameIndex {
 public:
  // Who bears a name: the inode of its row, or, as long as there is none, its identifier.
  struct Bearer {
    unsigned long long inode = 0;
    fsf_fid fid{};
  };

  // Whether the names of the folder are known. The folder counts as asked for now.
  bool knows(unsigned long long folder);
  // From now on the folder is known; it has no names yet.
  void learn(unsigned long long folder);
  void forget(unsigned long long folder);
  void clear();

  // These do nothing for folders that are not known.
  void add(unsigned long long folder, std::string_view name, const Bearer& bearer);
  void remove(unsigned long long folder, std::string_view name, unsigned long long inode,
              const fsf_fid& fid);

  // The bearer that `isIt`, called with a Bearer& of the same hash, says is the right one; or null.
  template <class IsIt>
  Bearer* find(unsigned long long folder, std::string_view name, IsIt&& isIt) {
    const auto known = folders_.find(folder);
    if (known == folders_.end()) return nullptr;
    const auto [begin, end] = known->second.names.equal_range(hash(name));
    for (auto at = begin; at != end; ++at)
      if (isIt(at->second)) return &at->second;
    return nullptr;
  }

 private:
  struct Folder {
    std::unordered_multimap<std::size_t, Bearer> names;
    std::list<unsigned long long>::iterator use;
  };
  using Folders = std::unordered_map<unsigned long long, Folder>;

  static std::size_t hash(std::string_view name) { return std::hash<std::string_view>()(name); }
  void makeRoom();
  void forget(Folders::iterator folder);

  static constexpr std::size_t kMostNames = 200'000;

  Folders folders_;
  std::list<unsigned long long> uses_;  // the folder asked for last is in front
  std::size_t names_ = 0;
};

}  // namespace kddc
