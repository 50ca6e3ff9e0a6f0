// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Most hosts run in a UTF-8 locale, where a name passes through unchanged; the rest goes to iconv.
#include "platform/text.h"

#include <iconv.h>
#include <langinfo.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>

namespace {

// The conversion from one encoding to UTF-8. An iconv_t has state, so each thread has its own.
class Converter {
 public:
  explicit Converter(std::string_view codeset)
      : codeset_(codeset), handle_(::iconv_open("UTF-8", codeset_.c_str())) {}
  ~Converter() {
    if (known()) ::iconv_close(handle_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  const std::string& codeset() const { return codeset_; }

  // Empty when the text is not valid in the encoding or would not survive the conversion.
  std::optional<std::string> convert(std::string_view text) {
    if (!known()) return std::nullopt;
    // The name before may have ended in the middle of a character.
    ::iconv(handle_, nullptr, nullptr, nullptr, nullptr);
    std::string converted;
    char* in = const_cast<char*>(text.data());
    std::size_t left = text.size();
    // The second call writes what the encoding still holds back.
    if (!feed(&in, &left, converted) || !feed(nullptr, nullptr, converted)) return std::nullopt;
    return converted;
  }

 private:
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the value that iconv_open fails with.
  bool known() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

  bool feed(char** in, std::size_t* left, std::string& converted) {
    for (;;) {
      char block[512];
      char* out = block;
      std::size_t room = sizeof block;
      const std::size_t replaced = ::iconv(handle_, in, left, &out, &room);
      const int error = errno;  // append may change it
      converted.append(block, out);
      // A character without a counterpart could not be told from others afterwards.
      if (replaced != static_cast<std::size_t>(-1)) return replaced == 0;
      if (error != E2BIG) return false;
    }
  }

  std::string codeset_;
  iconv_t handle_;
};

}  // namespace

std::string mbeToUtf(const char* name) {
  const std::string_view codeset = ::nl_langinfo(CODESET);
  // The second is ASCII, the encoding of who has set no locale: the name may be in any other, and
  // most likely is UTF-8.
  if (codeset == "UTF-8" || codeset == "ANSI_X3.4-1968") return name;
  // Opening a conversion costs far more than using it; the locale hardly ever changes.
  thread_local std::optional<Converter> converter;
  if (!converter || converter->codeset() != codeset) converter.emplace(codeset);
  return converter->convert(name).value_or(name);
}

std::string AppendSingleQuote(const std::string& text) {
  std::string doubled;
  doubled.reserve(text.size() + static_cast<std::size_t>(std::ranges::count(text, '\'')));
  for (const char c : text) {
    if (c == '\'') doubled += c;
    doubled += c;
  }
  return doubled;
}
