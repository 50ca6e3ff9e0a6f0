// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "platform/exceptions.h"

#include <utility>

#include "platform/ev_debug.h"

UDCException::UDCException(std::string function, int type, int number, std::string errorText,
                           std::string message)
    : functions_{std::move(function)},
      type_(type),
      number_(number),
      errorText_(std::move(errorText)),
      message_(std::move(message)) {
  compose();
}

UDCException::UDCException(std::string function, int type, int number, std::string message)
    : UDCException(std::move(function), type, number, std::string(), std::move(message)) {}

UDCException::UDCException(std::string function, int type, std::string message, int number)
    : UDCException(std::move(function), type, number, std::string(), std::move(message)) {}

// An operation that calls itself is named once.
void UDCException::AddFunction(std::string function) {
  if (functions_.back() == function) return;
  functions_.push_back(std::move(function));
  compose();
}

void UDCException::LogErrors() const {
  dbg.Error(functions_.front().c_str(), "%s", what());
}

// Anew with each function, because what() hands out a pointer and may not fail.
void UDCException::compose() {
  text_ = "Function[";
  for (std::size_t i = 0; i < functions_.size(); ++i) {
    if (i > 0) text_ += " <- ";
    text_ += functions_[i];
  }
  text_ += "] Type[" + std::to_string(type_) + "] Error[" + std::to_string(number_);
  if (!errorText_.empty()) text_ += ": " + errorText_;
  text_ += "] " + message_;
}

KdException::KdException(std::string function, std::string message, std::string file, int line,
                         int code)
    : function_(std::move(function)),
      message_(std::move(message)),
      file_(std::move(file)),
      line_(line),
      code_(code) {}
