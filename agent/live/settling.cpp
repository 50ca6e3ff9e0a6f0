// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/settling.h"

#include <algorithm>

#include "catalogue/file_type.h"

namespace kddc {

const Name* parkedAmong(const std::vector<Name>& names) {
  const auto at = std::ranges::find_if(names, &Name::parked);
  return at == names.end() ? nullptr : &*at;
}

void Settling::apply(const FlrJrnCommandRaw& record) {
  if (rows.apply(record))
    noteApplied();
  else
    result = SettleResult::kFailed;
}

void Settling::noteApplied() {
  if (!hasFailed()) result = SettleResult::kApplied;
}

void Settling::giveIdentifier(Name& row, const fsf_fid& fid) {
  rows.readopt(row, fid);
  noteApplied();
  if (row.type == kFolder) askForContents(row);
}

void Settling::askForContents(const Name& folder) {
  rows.FlushAllJournals();
  for (const Name& child : rows.childrenOf(folder.inode)) disk.look(folder.fid, child.name);
  disk.list(folder.fid);
}

void Settling::noteAdded(const fsf_fid& fid, unsigned long long folder, const std::string& name,
                         const FlrJrnCommandRaw& record) {
  ++counts.added;
  added_ = fid;
  addedBy_ = record.seq_num;
  tell(CatalogueChange::Kind::kAdded, folder, name);
}

void Settling::noteChanged(const fsf_fid& fid, std::uint64_t number) {
  if (added_ == fid && number - addedBy_ <= 2) return;
  ++counts.changed;
  tellOf(fid, CatalogueChange::Kind::kChanged);
}

void Settling::tell(CatalogueChange::Kind kind, unsigned long long folder,
                    const std::string& name) {
  if (observer) observer({kind, folder, name});
}

void Settling::tellOf(const fsf_fid& fid, CatalogueChange::Kind kind) {
  if (!observer) return;
  for (const Name& name : rows.namesOf(fid)) tell(kind, name.parent, name.name);
}

}  // namespace kddc
