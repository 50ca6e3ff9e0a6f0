// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// An exception that nobody handles: what failed is memory, most of all, and then in any thread and
// at any place, the handling of another failure among them.
#pragma once

namespace kddc {

// From now on such an exception ends the process with one line on standard error, as any other
// failure does, and exit status 3. No allocation is needed for that, and nothing is brought in
// order: the next start finds it as after a crash.
void sayLastWords();

}  // namespace kddc
