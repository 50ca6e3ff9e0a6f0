// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Brings the registry in step with what is mounted, and the catalogues with the file systems they
// are of.
#pragma once

#include <vector>

#include "agent/commands/commands.h"
#include "agent/registry/registered_volumes.h"

namespace kddc {

struct RegistryChange {
  std::vector<RegisteredVolume> before, after;
  bool isWhole = true;  // everything was done; what was not has been complained about
};

// Failure when nothing could be done. One process at a time.
RegistryChange refreshRegistry(const Options& options);

}  // namespace kddc
