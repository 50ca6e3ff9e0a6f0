// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Brings the driver's records into agreement with what the catalogue holds, and applies them.
//
// The driver says what it found at a name or of a file when it looked; it does not know what the
// catalogue knows. Only here can be told whether a file is new, bears a further name or has moved,
// and which row the name replaced:
//
//   record          settled into
//   "(D,n) is L"    nothing, when the row says so; else, after the row of whoever bore the name has
//                   been taken out of the way: L unknown: the record itself. L a folder, a parked
//                   row, or the only name of a file with one link: a RENAME. Else a LINK
//   "(D,n) is gone" whoever bears the name loses it: one of several names is dropped, a file that
//                   is gone is removed, any other row is parked
//   RENAME          as "(D2,n2) is F", with the row of (D,n) as the one that moves
//   SETATTR         nothing, when the row says so; a SETXATTR when only the change time moved
//   link count      0 removes the rows of the file: it is gone, whatever names it is thought to
//                   have
//
// Why that converges: the looks at one name come in the order in which they were made, and each
// change of a name is followed by a look. So the last record of a name says what is on the disk,
// and every record leaves the name as it says. Applying a record twice changes nothing.
//
// A record whose folder the catalogue does not know is about something outside the volume, or about
// a folder that has still to be listed: when the catalogue learns of a folder that the driver has
// not listed by itself, it asks for a list, and everything in it is looked at after that.
//
// The parts: names that come, names that go, and how files are; `Settling` is what they share.
//
// Threads: one. Failures: an operation that fails is logged, counted, and makes `take` answer
// kFailed; the row is then in doubt until the volume is compared with the disk.
#pragma once

#include <functional>
#include <utility>

#include "agent/live/settle_attributes.h"
#include "agent/live/settle_coming.h"
#include "agent/live/settle_going.h"
#include "agent/live/settling.h"

namespace kddc {

class Settle {
 public:
  using Result = SettleResult;
  using Observer = std::function<void(const CatalogueChange&)>;

  // Both must outlive the object.
  Settle(LiveCatalogue& rows, DiskQuestions& disk) : work_(rows, disk) {}
  Settle(const Settle&) = delete;
  Settle& operator=(const Settle&) = delete;

  // The record's strings must live during the call.
  Result take(const FlrJrnCommandRaw& record);
  // Writes the link counts and stub marks that are held back.
  void writeHeldBack() { attributes_.writeHeldBack(); }

  // The row of a folder, perhaps of the root, is that of this one, unless it is another's by now.
  Result identify(unsigned long long inode, const fsf_fid& folder);
  // Asks for all that a folder holds and held.
  void askForContents(unsigned long long inode);
  // A row that no record can speak of loses its name, as if that were absent.
  Result unname(unsigned long long inode);
  // Removes every row that has no name, a folder with what still lies below it: whoever lives has a
  // name again by now.
  void dropParked();
  // Removes those of these parked rows that have lost their identifier in a crash, or are not found
  // by it: no answer can reach them. Whether there was one; what lay below it is parked then.
  bool dropLost(const std::vector<Name>& parked);

  const SettleCounts& counts() const { return work_.counts; }
  void observe(Observer observer) { work_.observer = std::move(observer); }

 private:
  Result guarded(const std::function<void()>& work);
  void settle(const FlrJrnCommandRaw& record);

  Settling work_;
  SettleAttributes attributes_{work_};
  SettleGoing going_{work_, attributes_};
  SettleComing coming_{work_, attributes_, going_};
};

}  // namespace kddc
