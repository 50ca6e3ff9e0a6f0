// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/volume_rows.h"

#include "agent/engine/catalogue_folder.h"
#include "agent/errors.h"

namespace kddc {

VolumeRows::VolumeRows(const std::string& folder, unsigned long long devt, DriverQuestions& driver)
    : rows_(folder), settle_(rows_, driver), driver_(driver), devt_(devt) {
  rows_.SetDevt(devt);
  during("cannot open the catalogue in " + folder, [&] {
    if (rows_.OpenHandle(false, false)) return;
    refuseWhileInUse(folder);
    throw Failure("the catalogue in " + folder + " cannot be opened, -v says why");
  });
}

void VolumeRows::observe(
    std::function<void(CatalogueChange::Kind, const std::string& path)> observer) {
  settle_.observe([this, observer = std::move(observer)](const CatalogueChange& change) {
    observer(change.kind, rows_.pathOf(change.folder, change.name));
  });
}

Settle::Result VolumeRows::take(const FlrJrnCommandRaw& record) {
  if (hasChores_) doChores();
  const Settle::Result result = settle_.take(record);
  dirty_ = dirty_ || result != Settle::Result::kNothing;
  return result;
}

void VolumeRows::doLater(std::function<void(LiveCatalogue&, Settle&)> chore) {
  const std::lock_guard lock(mutex_);
  chores_.push_back(std::move(chore));
  hasChores_ = true;
}

// Taken out first: a chore may take long, and others may be added meanwhile.
void VolumeRows::doChores() {
  decltype(chores_) chores;
  {
    const std::lock_guard lock(mutex_);
    chores.swap(chores_);
    hasChores_ = false;
  }
  for (const auto& chore : chores) chore(rows_, settle_);
  dirty_ = dirty_ || !chores.empty();
}

// What a coalescing catalogue holds back is written first; only then is it known which rows are
// parked.
void VolumeRows::checkpoint() {
  doChores();
  if (dirty_ || !asked_.empty()) {
    rows_.FlushAllJournals();
    settle_.writeHeldBack();
    askAboutParked();
    rows_.Commit();
    dirty_ = false;
  }
  publish();
}

// Whatever has a name on the volume gets it back by a record that is on its way; the driver sees to
// it that the answer comes behind that. A file that is parked still, or again, is asked after
// again.
void VolumeRows::askAboutParked() {
  std::vector<Name> parked = rows_.parkedRows();
  while (settle_.dropLost(parked)) parked = rows_.parkedRows();
  std::map<fsf_fid, std::uint64_t> asked;
  for (const Name& row : parked) {
    const auto before = asked_.find(row.fid);
    const bool waits = before != asked_.end() && !driver_.isAnswered(before->second);
    asked[row.fid] = waits ? before->second : driver_.resolve(row.fid);
  }
  asked_ = std::move(asked);
}

void VolumeRows::close(std::time_t referenceTime) {
  rows_.FlushAllJournals();
  settle_.writeHeldBack();
  rows_.CloseHandle(static_cast<unsigned long>(referenceTime), false);
  publish();
}

// A copy for those who ask how it goes: the rows are of the database thread alone.
void VolumeRows::publish() {
  const std::lock_guard lock(mutex_);
  report_ = {settle_.counts(), std::time(nullptr)};
}

VolumeRows::Report VolumeRows::report() const {
  const std::lock_guard lock(mutex_);
  return report_;
}

}  // namespace kddc
