// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The kernel's queue of fanotify events, and its rule for merging them: a new event goes into the
// newest one still queued that is equal in process, in the ONDIR and RENAME bits, in names and in
// file; their bits are joined at the old one's place. A RENAME joins only an equal RENAME.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "records/fsf_fid.h"
#include "tests/support/kernel_events.h"

namespace kddc::test {

class KernelQueue {
 public:
  void add(KernelEvent event) {
    const auto equal =
        std::find_if(events_.rbegin(), events_.rend(),
                     [&](const KernelEvent& queued) { return joins(queued, event); });
    if (equal != events_.rend())
      equal->mask |= event.mask;
    else
      events_.push_back(std::move(event));
  }
  // Takes the first `most` events off.
  std::vector<KernelEvent> read(std::size_t most) {
    const auto end = events_.begin() + static_cast<std::ptrdiff_t>(std::min(most, events_.size()));
    std::vector<KernelEvent> events(events_.begin(), end);
    events_.erase(events_.begin(), end);
    return events;
  }
  std::size_t size() const { return events_.size(); }

 private:
  static bool joins(const KernelEvent& a, const KernelEvent& b) {
    constexpr std::uint64_t kApart = FAN_ONDIR | FAN_RENAME;
    return (a.mask & kApart) == (b.mask & kApart) && a.pid == b.pid && same(a.entry, b.entry) &&
           same(a.newEntry, b.newEntry) && a.object == b.object;
  }
  static bool same(const std::optional<EntryName>& a, const std::optional<EntryName>& b) {
    if (!a || !b) return !a && !b;
    return a->name == b->name && a->folder == b->folder;
  }

  std::deque<KernelEvent> events_;
};

}  // namespace kddc::test
