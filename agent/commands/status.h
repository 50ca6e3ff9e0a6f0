// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// How one volume is doing, for the commands that tell it.
//
// Threads: any. Failures: Failure.
#pragma once

#include <optional>
#include <string>

#include "agent/commands/commands.h"
#include "agent/control/volume_status.h"

namespace kddc {

// What the process that watches the volume says, given its real path; none when nobody does.
std::optional<VolumeStatus> watchedStatus(const Options& options, const std::string& volumePath);

// The same, or what the catalogue itself tells when nobody watches the volume.
VolumeStatus statusOf(const Options& options, const std::string& volumePath);

// "live", "stale since 2026-11-21 15:33:09: …"; may hold any byte.
std::string stateText(const VolumeStatus& status);

}  // namespace kddc
