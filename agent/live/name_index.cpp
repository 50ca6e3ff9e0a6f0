// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/name_index.h"

#include "records/fsf_fid.h"

namespace kddc {

bool NameIndex::knows(unsigned long long folder) {
  const auto known = folders_.find(folder);
  if (known == folders_.end()) return false;
  uses_.splice(uses_.begin(), uses_, known->second.use);
  return true;
}

void NameIndex::learn(unsigned long long folder) {
  forget(folder);
  makeRoom();
  uses_.push_front(folder);
  folders_[folder].use = uses_.begin();
}

void NameIndex::makeRoom() {
  while (names_ > kMostNames && uses_.size() > 1) forget(folders_.find(uses_.back()));
}

void NameIndex::forget(unsigned long long folder) {
  const auto known = folders_.find(folder);
  if (known != folders_.end()) forget(known);
}

void NameIndex::forget(Folders::iterator folder) {
  names_ -= folder->second.names.size();
  uses_.erase(folder->second.use);
  folders_.erase(folder);
}

void NameIndex::clear() {
  folders_.clear();
  uses_.clear();
  names_ = 0;
}

void NameIndex::add(unsigned long long folder, std::string_view name, const Bearer& bearer) {
  if (!knows(folder)) return;
  folders_[folder].names.emplace(hash(name), bearer);
  ++names_;
  makeRoom();
}

void NameIndex::remove(unsigned long long folder, std::string_view name, unsigned long long inode,
                       const fsf_fid& fid) {
  const auto known = folders_.find(folder);
  if (known == folders_.end()) return;
  auto& names = known->second.names;
  const auto [begin, end] = names.equal_range(hash(name));
  for (auto at = begin; at != end; ++at) {
    const Bearer& bearer = at->second;
    if (bearer.inode != 0 ? bearer.inode != inode : bearer.fid != fid) continue;
    names.erase(at);
    --names_;
    return;
  }
}

}  // namespace kddc
