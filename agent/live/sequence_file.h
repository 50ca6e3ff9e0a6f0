// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The numbers of records over restarts: each driver numbers its own, which rise by one from record
// to record, also from one run to the next. A line of text for each file system,
// "<devt> <next> <expected>":
//
//   next       the number that the driver gives the next record
//   expected   the number of the first record that has not been applied; lower than `next` when
//              records were saved with the queue
//
// While a run lasts the file holds numbers far ahead, so that after a crash no number that may have
// been given comes again; the jump is noticed, and the volumes are compared with the disk anyway.
//
// Failures: Failure. A line that cannot be understood counts as one that is not there.
#pragma once

#include <map>
#include <set>
#include <string>

namespace kddc {

struct RecordNumbers {
  unsigned long long next = 1, expected = 1;
};
using NumbersByDevt = std::map<unsigned long long, RecordNumbers>;

// The numbers with which a run begins that follows those file systems; leaves the numbers for a
// crash in the file, durably. What the file knows of other file systems is forgotten.
NumbersByDevt beginNumbering(const std::string& file, const std::set<unsigned long long>& devts);
// When more file systems are followed: those with which their drivers began.
void keepFarAhead(const std::string& file, const NumbersByDevt& all);
// At the end of a run.
void keepNumbers(const std::string& file, const NumbersByDevt& all);

}  // namespace kddc
