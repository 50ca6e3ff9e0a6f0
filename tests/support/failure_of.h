// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The sentence of the Failure that some work ends with.
#pragma once

#include <string>
#include <utility>

#include "agent/errors.h"

namespace kddc::test {

template <class Work>
std::string failureOf(Work&& work) {
  try {
    std::forward<Work>(work)();
    return "no failure";
  } catch (const Failure& e) {
    return e.what();
  }
}

}  // namespace kddc::test
