// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Asks the process that watches a volume.
//
// Threads: any. Failures: Failure, also with the sentence of an answer that says why not.
#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "agent/commands/commands.h"
#include "agent/control/protocol.h"

namespace kddc {

// Sends a request to whoever listens on the socket and waits that long for the answer. Returns the
// members of a good one; none when nobody listens.
std::optional<nlohmann::json> askSocket(const std::string& socket, const ControlRequest& request,
                                        std::chrono::milliseconds timeout);

// The same, of the process that watches the volume named in the request (its real path); none when
// nobody watches it.
std::optional<nlohmann::json> ask(const Options& options, const ControlRequest& request,
                                  std::chrono::milliseconds timeout);

// Waits until everything that happened on the volume before the call is in its catalogue. False
// when nobody watches it.
bool flushWatched(const Options& options, const std::string& volumePath);

}  // namespace kddc
