// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Writes an SQL text of fixed words and numbers into a buffer that somebody else owns, and never
// beyond its end. Names have no place in it: they are bound. Private.
#pragma once

#include <algorithm>
#include <charconv>
#include <span>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace kddc {

class SqlText {
 public:
  explicit SqlText(std::span<char> buffer)
      : begin_(buffer.data()), at_(buffer.data()), end_(buffer.data() + buffer.size() - 1) {}

  // Appends words and unsigned numbers. Throws std::length_error when the buffer is full.
  template <class... Parts>
  SqlText& add(const Parts&... parts) {
    (put(parts), ...);
    *at_ = '\0';
    return *this;
  }
  // The text so far, with a NUL behind it once anything was added.
  const char* text() const { return begin_; }
  std::size_t size() const { return static_cast<std::size_t>(at_ - begin_); }
  // Back to the first `size` characters, so that one beginning serves several texts.
  void cut(std::size_t size) { at_ = begin_ + size; }

 private:
  void put(std::string_view words) {
    if (words.size() > static_cast<std::size_t>(end_ - at_)) full();
    at_ = std::copy(words.begin(), words.end(), at_);
  }
  void put(unsigned long long number) {
    const auto [next, failure] = std::to_chars(at_, end_, number);
    if (failure != std::errc()) full();
    at_ = next;
  }
  [[noreturn]] static void full() { throw std::length_error("SQL text is longer than its buffer"); }

  char* begin_;
  char* at_;
  char* end_;  // where the NUL fits at the latest
};

}  // namespace kddc
