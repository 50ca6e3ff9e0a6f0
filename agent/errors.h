// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the program says when work cannot be done: one line that names what failed, on what, why,
// and what to do. Here, and only here, the library's exceptions become sentences.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace kddc {

// A sentence for the user, without "kddc: " and without a full stop. The work was not done.
class Failure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "<what>: <text of errno>".
[[nodiscard]] Failure systemFailure(const std::string& what, int error);

// The sentence for the exception being handled, of whatever type.
std::string describeCurrentException();

// Runs `work`; an exception that is not yet a sentence becomes "<doing>: <why>[; <what to do>]".
template <class Work>
decltype(auto) during(const std::string& doing, Work&& work) {
  try {
    return std::forward<Work>(work)();
  } catch (const Failure&) {
    throw;
  } catch (...) {
    throw Failure(doing + ": " + describeCurrentException());
  }
}

// Writes "kddc: <sentence>" as one line to standard error, control bytes escaped.
void complain(const std::string& sentence);

}  // namespace kddc
