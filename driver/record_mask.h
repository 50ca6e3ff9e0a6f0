// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the driver tells in a record's mask, which the codec carries and the library ignores.
//
//   bits 0-13   the link count of the object that the record speaks of; 16383 stands for that many
//               or more, and a record with the full count follows
//   bit 14      listed: found by listing a folder; what lies below a listed folder is listed too
#pragma once

#include <algorithm>

namespace kddc {

class RecordMask {
 public:
  static constexpr unsigned kManyLinks = 0x3fff, kListed = 0x4000;

  constexpr explicit RecordMask(unsigned mask) : mask_(mask) {}
  static constexpr RecordMask of(unsigned long long links, bool listed) {
    return RecordMask(static_cast<unsigned>(std::min<unsigned long long>(links, kManyLinks)) |
                      (listed ? kListed : 0));
  }

  constexpr unsigned value() const { return mask_; }
  constexpr unsigned links() const { return mask_ & kManyLinks; }
  constexpr bool hasManyLinks() const { return links() == kManyLinks; }
  constexpr bool listed() const { return (mask_ & kListed) != 0; }

 private:
  unsigned mask_;
};

}  // namespace kddc
