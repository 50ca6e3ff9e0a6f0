// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What nobody handles: an exception, for want of memory most of all, and then in any thread and at
// any place, the handling of another failure among them; or memory that is a file whose disk fails
// it, as that of SQLite's log may be on a full Btrfs, which moves what is written again.
#pragma once

namespace kddc {

// From now on either ends the process with one line on standard error, as any other
// failure does, and exit status 3. No allocation is needed for that, and nothing is brought in
// order: the next start finds it as after a crash.
void sayLastWords();

}  // namespace kddc
