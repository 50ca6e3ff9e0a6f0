// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The two exception types that leave the library.
//
// UDCException is the library's own: where it failed, what kind of failure it was, the number that
// the failing call gave, and a message. KdException comes from the platform layer (settings,
// identifiers, text) and is no std::exception, so a catch-all needs both.
#pragma once

#include <exception>
#include <string>
#include <vector>

#include "platform/export.h"

// Type codes:
//   0  a system call, an allocation or an open failed; the number is errno
//   1  misuse or an inconsistency; the number is 0
//   3  SQLite refused; the number is SQLite's result code
//   4  a thread call failed; the number is its result
//   5  a KdException, wrapped
class KDDC_API UDCException : public std::exception {
 public:
  UDCException(std::string function, int type, std::string message, int number);
  UDCException(std::string function, int type, int number, std::string message);
  // `errorText` explains `number` (as strerror does), `message` says what it happened to.
  UDCException(std::string function, int type, int number, std::string errorText,
               std::string message);

  int GetType() const noexcept { return type_; }
  int GetErrorNumber() const noexcept { return number_; }
  // The message alone.
  std::string GetMessage() const { return message_; }
  // Functions (innermost first), type, number and message, on one line.
  std::string GetErrorMsg() const { return text_; }
  // The text of GetErrorMsg; valid until the next AddFunction.
  const char* what() const noexcept override { return text_.c_str(); }

  // Notes that the exception passes through `function`. The innermost one is known from the start;
  // the name that was noted last is not noted twice.
  void AddFunction(std::string function);
  // Logs GetErrorMsg as an error under the innermost function's tag.
  void LogErrors() const;

 private:
  void compose();

  std::vector<std::string> functions_;
  int type_;
  int number_;
  std::string errorText_;
  std::string message_;
  std::string text_;
};

class KDDC_API KdException {
 public:
  // `file` and `line` name the source line that failed, `code` is -1 or an errno.
  KdException(std::string function, std::string message, std::string file, int line, int code);

  std::string getMessage() const { return message_; }
  int getCode() const noexcept { return code_; }
  const std::string& getFunction() const noexcept { return function_; }
  const std::string& getFile() const noexcept { return file_; }
  int getLine() const noexcept { return line_; }

 private:
  std::string function_;
  std::string message_;
  std::string file_;
  int line_;
  int code_;
};
