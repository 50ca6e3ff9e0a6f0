// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What an operation that must fail threw.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "platform/exceptions.h"

namespace kddc::test {

inline UDCException failureOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const UDCException& e) {
    return e;
  }
  ADD_FAILURE() << "nothing was thrown";
  return {"", 0, "", 0};
}

}  // namespace kddc::test
