// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Where things lie: a volume's real path, the folder of its catalogue, the state folder.
//
//   --catalogue DIR                                          that folder
//   <state>/catalogues/<last part of the path>-<16 digits>   otherwise; the digits are a hash of
//   the
//                                                            real path, so that no two volumes meet
//
// The state folder is --state DIR, else the key "StateDir" of section "DataClassification", else
// /var/lib/kddc for root and $XDG_STATE_HOME/kddc or ~/.local/state/kddc for others.
//
// All paths given back are absolute. Failures: Failure; KdException for settings that cannot be
// read.
#pragma once

#include <string>

#include "agent/commands/commands.h"

namespace kddc {

// The real path of a volume, which must be a folder.
std::string realVolumePath(const std::string& volume);

std::string stateFolder(const Options& options);

// The catalogue folder of a volume, given by its real path. Need not exist.
std::string catalogueFolder(const Options& options, const std::string& volumePath);

// Makes a folder and those above it that are missing, for this user alone (0700).
void makeFolders(const std::string& path);

}  // namespace kddc
