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
  explicit Failure(const std::string& sentence, int error = 0)
      : std::runtime_error(sentence), error_(error) {}
  // The errno behind it; 0 when there is none.
  int error() const { return error_; }

 private:
  int error_;
};

// "<what>: <text of errno>".
[[nodiscard]] Failure systemFailure(const std::string& what, int error);

// The sentence for the exception being handled, of whatever type.
std::string describeCurrentException();

// The errno behind it; 0 when there is none.
int errnoOfCurrentException();

// Runs `work`; an exception that is not yet a sentence becomes "<doing>: <why>[; <what to do>]".
template <class Work>
decltype(auto) during(const std::string& doing, Work&& work) {
  try {
    return std::forward<Work>(work)();
  } catch (const Failure&) {
    throw;
  } catch (...) {
    throw Failure(doing + ": " + describeCurrentException(), errnoOfCurrentException());
  }
}

// Writes "kddc: <sentence>" as one line to standard error, control bytes escaped.
void complain(const std::string& sentence);

}  // namespace kddc
