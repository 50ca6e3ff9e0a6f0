// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// SIGINT and SIGTERM as a question that long work asks from time to time.
#pragma once

namespace kddc {

// From now on the two signals are noted instead of ending the process.
void noteInterrupts();

// Whether one came. Cheap; from any thread.
bool interrupted();

}  // namespace kddc
