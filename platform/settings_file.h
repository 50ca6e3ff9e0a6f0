// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One reading of a settings file. Private to platform_info.
#pragma once

#include <map>
#include <string>
#include <utility>

namespace kddc {

struct Setting {
  std::string value;
  int line = 0;  // in the file; 0: a default
};

using SectionAndKey = std::pair<std::string, std::string>;
using Settings = std::map<SectionAndKey, Setting>;

// Reads the file whole; one that does not exist is empty. KdException, naming the file, the line
// and `wanted` (for whose sake it is read), when it cannot be read or parsed, or when others than
// root and this user could have written it.
Settings readSettings(const std::string& path, const SectionAndKey& wanted);

}  // namespace kddc
