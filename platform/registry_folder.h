// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Where the host keeps the settings and the databases of this system. Private.
#pragma once

#include <string>

namespace kddc {

// "/etc/KeldaraRegistry", or $KELDARA_REGISTRY_ROOT where that is set and not empty. A process that
// runs with another user's rights ignores the variable: its caller must not choose its settings.
std::string registryFolder();

}  // namespace kddc
