// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/engine/full_scan.h"

#include <string_view>
#include <utility>

#include "agent/engine/walk_thread.h"
#include "agent/errors.h"
#include "agent/interrupt.h"
#include "catalogue/file_type.h"

namespace kddc {
namespace {

// The inserting side.
class Consumer {
 public:
  Consumer(ScanCatalogue& catalogue, const ScanProgress& progress)
      : catalogue_(catalogue), progress_(progress) {}

  void insert(const Batch& batch) {
    std::size_t begin = 0;
    for (const Batch::Entry& entry : batch.entries) {
      insert(entry, std::string_view(batch.names).substr(begin, entry.nameEnd - begin));
      begin = entry.nameEnd;
    }
    progress_(entries_ += batch.entries.size());
  }

 private:
  void insert(const Batch::Entry& entry, std::string_view name) {
    row_.st = entry.st;
    row_.fid = entry.fid;
    row_.name = name;
    const unsigned long long inode =
        catalogue_.insertRow(row_, inodes_[entry.parent], entry.isStub ? kStub : kDeriveFromMode);
    if (S_ISDIR(entry.st.st_mode)) inodes_.push_back(inode);
  }

  ScanCatalogue& catalogue_;
  const ScanProgress& progress_;
  StatFidName_s row_{};
  std::vector<unsigned long long> inodes_ = {0};  // by the walk's numbers; 0 is above the root
  std::uint64_t entries_ = 0;
};

}  // namespace

Failure scanInterrupted(const std::string& volumePath) {
  return Failure("the scan of " + volumePath + " was interrupted; nothing was changed");
}

WalkCounts fullScan(UniqueFd volume, const std::string& volumePath, const WalkOptions& options,
                    ScanCatalogue& catalogue, const ScanProgress& progress) {
  WalkOptions helped = options;
  helped.helped = true;  // inserting takes less than walking: there is time left
  WalkThread walk(std::move(volume), volumePath, helped, {.check = [&] {
                    if (interrupted()) throw scanInterrupted(volumePath);
                  }});
  Consumer consumer(catalogue, progress);
  while (const auto batch = walk.next()) consumer.insert(*batch);
  return walk.finish();
}

}  // namespace kddc
