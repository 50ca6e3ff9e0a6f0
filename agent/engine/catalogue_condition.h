// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Whether a catalogue that an earlier run has left can be gone on with.
//
// One that was not closed properly can: its databases hold everything up to some commit, and a
// comparison with the disk finds the rest. So files keep their numbers and change stamps over a
// crash. One that is damaged, or of another version, is set aside for people to look at, and a new
// one is made.
//
// Threads: any. Nobody may have the catalogue open for writing.
#pragma once

#include <string>

namespace kddc {

struct CatalogueCondition {
  enum class Kind {
    kNone,     // there is none, or its first scan never finished: make one
    kUsable,   // as good as a comparison with the disk makes it
    kDamaged,  // set it aside and make one
  };
  Kind kind = Kind::kNone;
  std::string why;  // what is wrong with a damaged one
};

// Looks at all of it: the header, and every page of both databases. Damage that the building anew
// of indexes mends is mended. Failure when something stands in the way that is no damage: no
// rights, no memory.
CatalogueCondition examineCatalogue(const std::string& folder, const std::string& volumePath);

// Whether all pages of a database are in order, after a vacuum where that helps. To fail the check
// it must have been read: an exception where there is no room, or no memory, for that.
bool passesCheck(const std::string& database);

// Renames the folder to "<folder>.corrupt-<seconds since 1970>" and returns that name. Of those
// that were set aside before, the two newest stay. Failure when it cannot be renamed.
std::string setAside(const std::string& folder);

}  // namespace kddc
