// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Answers on standard output: a large buffer, and one row in one of the three forms.
#pragma once

#include <fmt/format.h>

#include "agent/commands/commands.h"
#include "agent/engine/catalogue_reader.h"

namespace kddc {

// Leaves the work when nobody reads the answer any more. No failure.
struct ReaderGone {};

// Prints rows. Threads: one. Failures: Failure when writing fails, ReaderGone when the other end of
// a pipe was closed.
class RowPrinter {
 public:
  explicit RowPrinter(Form form) : form_(form) {}

  void print(const CatalogueRow& row);
  // Writes what is left in the buffer. An answer that was not flushed is not complete.
  void flush();

 private:
  void printJson(const CatalogueRow& row);

  Form form_;
  fmt::memory_buffer buffer_;
};

}  // namespace kddc
