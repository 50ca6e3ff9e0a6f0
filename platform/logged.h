// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Log-and-rethrow, written once: every operation of the library logs what leaves it under its own
// tag. The few that may absorb a failure say so with `absorbed`, so that they can be found.
#pragma once

#include <exception>
#include <type_traits>
#include <utility>

#include "platform/ev_debug.h"
#include "platform/exceptions.h"

namespace kddc {

// Runs `operation`; a standard exception that leaves it is logged under `tag` and goes on. Other
// exceptions pass unseen.
template <class Operation>
decltype(auto) logged(const char* tag, Operation&& operation) {
  try {
    return std::forward<Operation>(operation)();
  } catch (UDCException& e) {
    e.AddFunction(tag);
    dbg.Error(tag, "eRRoR -- %s", e.what());
    throw;
  } catch (const std::exception& e) {
    dbg.Error(tag, "eRRoR -- %s", e.what());
    throw;
  }
}

// The same, and a KdException that leaves it is logged too.
template <class Operation>
decltype(auto) loggedWithKd(const char* tag, Operation&& operation) {
  try {
    return logged(tag, std::forward<Operation>(operation));
  } catch (const KdException& e) {
    dbg.Error(tag, "eRRoR -- %s", e.getMessage().c_str());
    throw;
  }
}

// Runs `operation`; whatever leaves it is logged under `tag` and ends here, with `onFailure` as the
// result. `prefix` is "eRRoR -- ", or "Mitigated eRRoR -- " where nothing is wrong yet.
template <class Operation, class Result>
Result absorbed(const char* tag, Operation&& operation, Result onFailure,
                const char* prefix = "eRRoR -- ") {
  try {
    return std::forward<Operation>(operation)();
  } catch (const std::exception& e) {
    dbg.Error(tag, "%s%s", prefix, e.what());
  } catch (const KdException& e) {
    dbg.Error(tag, "%s%s", prefix, e.getMessage().c_str());
  } catch (...) {
    dbg.Error(tag, "%sUnHandled Exception ", prefix);
  }
  return onFailure;
}

}  // namespace kddc
