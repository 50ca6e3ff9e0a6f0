// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Where things lie: a volume's real path, the folder of its catalogue, the state folder, the
// sockets by which a process that watches is asked.
//
//   --catalogue DIR            the folder of the catalogue, else
//   the registry's word        the same, of a volume that is registered (see kddc volumes), else
//   <state>/catalogues/<name>  the same
//   <state>/sockets/<name>     the socket of the process that watches the volume
//
// The state folder is --state DIR, else the key "StateDir" of section "DataClassification", else
// /var/lib/kddc for root and $XDG_STATE_HOME/kddc or ~/.local/state/kddc for others.
//
// All paths given back are absolute and without links (see own_folder.h), but for what lies below
// the state folder, which may not be links. Failures: Failure; KdException for settings that cannot
// be read.
#pragma once

#include <string>

#include "agent/commands/commands.h"

namespace kddc {

// The real path of a volume, which must be a folder.
std::string realVolumePath(const std::string& volume);

// The name, in the state folder, of what belongs to a volume, given by its real path: the last part
// of the path, for people, and 16 digits, a hash of all of it, so that no two volumes meet.
std::string placeName(const std::string& volumePath);

std::string stateFolder(const Options& options);

// The folder of all catalogues that lie in the state folder, and that of a volume that nothing else
// is said about, given by its real path. Need not exist.
std::string cataloguesFolder(const Options& options);
std::string defaultCatalogueFolder(const Options& options, const std::string& volumePath);

// The catalogue folder of a volume, given by its real path. Need not exist.
std::string catalogueFolder(const Options& options, const std::string& volumePath);

// The folder of all sockets, and the socket of one volume, given by its real path. Need not exist.
std::string socketsFolder(const Options& options);
std::string controlSocket(const Options& options, const std::string& volumePath);

}  // namespace kddc
