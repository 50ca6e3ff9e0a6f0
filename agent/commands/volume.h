// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What scan and rescan have in common: a volume that is walked.
#pragma once

#include <string>
#include <vector>

#include "agent/engine/walk.h"
#include "platform/unique_fd.h"

namespace kddc {

// Opens the volume with that real path for reading. Failure.
UniqueFd openVolume(const std::string& path);

// As the settings have it, without these folders of ours; those that do not exist count for
// nothing.
WalkOptions walkOptions(const std::vector<std::string>& leftOut);

// On standard error, also when quiet: what was found may have a hole. `work` is "scan" or the like.
void complainAboutLostFolders(const WalkCounts& counts, const char* work);

}  // namespace kddc
