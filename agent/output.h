// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Answers on standard output: a large buffer, one row in one of the three forms, and what JSON
// Lines are made of.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

#include "agent/commands/commands.h"
#include "agent/engine/catalogue_reader.h"

namespace kddc {

// Leaves the work when nobody reads the answer any more. No failure.
struct ReaderGone {};

// Collects an answer and writes it in large pieces. An answer that was not flushed is not complete.
// Threads: one. Failures: Failure when writing fails, ReaderGone when the other end of a pipe was
// closed.
class Output {
 public:
  // What is appended to the buffer itself stays there until the next endPiece or flush.
  fmt::memory_buffer& buffer() { return buffer_; }
  // Writes the buffer when it has become large.
  void endPiece();
  void flush();

 private:
  fmt::memory_buffer buffer_;
};

// Writes a short answer at once. One that nobody reads to its end is no failure.
void printAnswer(std::string_view text);

// The word for a FILE_TYPE; "other" for a number that is none.
const char* typeName(int type);

// A member of a JSON object: "<name>":"<text>", or "<name>_base64":"<digits>" when the text is not
// UTF-8.
std::string jsonMember(std::string_view name, std::string_view text);
// "<name>_base64":"<digits>"
std::string base64Member(std::string_view name, std::string_view bytes);

// Whether standard output is a terminal, where names are shown harmless.
bool isTerminal();

// Prints rows; paths byte for byte, but on a terminal harmless. Threads and failures as Output.
class RowPrinter {
 public:
  explicit RowPrinter(Form form) : form_(form), harmless_(isTerminal()) {}

  void print(const CatalogueRow& row);
  void flush() { output_.flush(); }

 private:
  void printJson(const CatalogueRow& row);

  Form form_;
  bool harmless_;
  Output output_;
};

}  // namespace kddc
