// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Points in time as people and scripts write them.
#pragma once

#include <string_view>

namespace kddc {

// Seconds since 1970 of
//
//   1700000000, @1700000000                seconds since 1970
//   2024-03-01                             midnight, local time
//   2024-03-01T12:30, 2024-03-01 12:30:15  local time
//   2024-03-01T12:30:15Z, ...+02:00        universal time, or so far ahead of it
//   90s, 15m, 2h, 3d, 1w                   so long before `now`
//
// Fractions of a second are ignored. Throws std::invalid_argument with a sentence for anything
// else.
long long parseWhen(std::string_view text, long long now);

}  // namespace kddc
