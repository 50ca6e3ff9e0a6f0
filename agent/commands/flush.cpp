// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// kddc flush VOLUME: returns when everything that happened before the call is in the catalogue.
#include <fmt/format.h>

#include "agent/catalogue_place.h"
#include "agent/commands/commands.h"
#include "agent/control/client.h"
#include "agent/errors.h"

namespace kddc {

int runFlush(const Options& options, const std::string& volume) {
  const std::string path = realVolumePath(volume);
  if (!flushWatched(options, path))
    throw Failure(fmt::format("{0} is not watched; start: kddc watch {0}", path));
  return kExitDone;
}

}  // namespace kddc
