// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc changes VOLUME --since WHEN: the entries whose change stamp is that or later.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cstdio>

#include "agent/commands/answer.h"

namespace kddc {

int runChanges(const Options& options, const std::string& volume, long long since, Form form) {
  const auto note = [&](const CatalogueReader& reader) {
    if (options.quiet || reader.isKept()) return;
    fmt::print(stderr,
               "kddc: nobody keeps this catalogue current; the answer is as of the scan that ended "
               "{:%Y-%m-%d %H:%M:%S}\n",
               fmt::localtime(reader.scanned()));
  };
  answer(
      options, volume, form,
      [&](CatalogueReader& reader, const RowSink& sink) { reader.readSince(since, sink); }, note);
  return kExitDone;
}

}  // namespace kddc
