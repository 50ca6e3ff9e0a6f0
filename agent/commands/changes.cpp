// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc changes VOLUME --since WHEN: the entries whose change stamp is that or later.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cstdio>

#include "agent/catalogue_place.h"
#include "agent/commands/answer.h"
#include "agent/control/client.h"
#include "agent/errors.h"

namespace kddc {
namespace {

// An answer that may be old is not given unless it was asked for.
void flushFirst(const Options& options, const std::string& volumePath) {
  try {
    flushWatched(options, volumePath);
  } catch (const Failure& e) {
    throw Failure(std::string(e.what()) + "; to see what is there all the same, add --no-flush");
  }
}

}  // namespace

int runChanges(const Options& options, const std::string& volume, const ChangesOptions& changes) {
  const auto note = [&](const CatalogueReader& reader) {
    if (options.quiet || reader.isKept()) return;
    fmt::print(stderr,
               "kddc: nobody keeps this catalogue current; the answer is as of the scan that ended "
               "{:%Y-%m-%d %H:%M:%S}\n",
               fmt::localtime(reader.scanned()));
  };
  if (changes.flush) flushFirst(options, realVolumePath(volume));
  answer(
      options, volume, changes.form,
      [&](CatalogueReader& reader, const RowSink& sink) { reader.readSince(changes.since, sink); },
      note);
  return kExitDone;
}

}  // namespace kddc
