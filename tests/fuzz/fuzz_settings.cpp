// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// settings.ini with any bytes in it. Each key has the value that a reader written here finds, or is
// absent; a line that this reader does not understand is refused by its number, and so is a value
// that should be a number and is none, by a message that names file, line and key.
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>

#include "platform/exceptions.h"
#include "platform/platform_info.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/temp_folder.h"

using kddc::fuzz::require;

namespace {

constexpr char kBlanks[] = " \t\r\v\f";
constexpr char kByteOrderMark[] = "\xef\xbb\xbf";

struct Assigned {
  std::string value;
  int line;
};
struct Expected {
  std::map<std::pair<std::string, std::string>, Assigned> settings;
  int badLine = 0;
};

std::string trimmed(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

std::string withoutComment(const std::string& line) {
  for (std::size_t i = 0; i < line.size(); ++i) {
    const bool begins = i == 0 || (line[i - 1] != '\0' && std::strchr(kBlanks, line[i - 1]));
    if (begins && (line[i] == '#' || line[i] == ';')) return line.substr(0, i);
  }
  return line;
}

// False for a line that makes no sense.
bool readLine(const std::string& line, int number, std::string& section, Expected& expected) {
  if (line.empty()) return true;
  if (line.size() > 199 || line.find('\0') != std::string::npos) return false;
  if (line.starts_with(kByteOrderMark)) return false;
  if (line[0] == '[') {
    const std::size_t end = line.find(']');
    if (end == std::string::npos || end > 50) return false;
    section = line.substr(1, end - 1);
    return true;
  }
  const std::size_t sign = line.find_first_of("=:");
  if (sign == std::string::npos || sign == 0) return false;
  const std::string key = trimmed(line.substr(0, sign));
  expected.settings[{section, key}] = {trimmed(line.substr(sign + 1)), number};
  return true;
}

Expected read(std::string text) {
  Expected expected;
  if (text.starts_with(kByteOrderMark)) text.erase(0, 3);
  std::string section;
  int number = 0;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string line = trimmed(withoutComment(text.substr(0, end)));
    text.erase(0, end == std::string::npos ? end : end + 1);
    ++number;
    if (!readLine(line, number, section, expected) && expected.badLine == 0)
      expected.badLine = number;
  }
  return expected;
}

std::optional<long long> wholeNumber(std::string text) {
  if (text.size() > 1 && text[0] == '+' && std::isdigit(static_cast<unsigned char>(text[1])))
    text.erase(0, 1);
  const std::size_t digits = text.starts_with('-') ? 1 : 0;
  if (text.size() == digits || text.find_first_not_of("0123456789", digits) != std::string::npos)
    return std::nullopt;
  errno = 0;
  const long long number = std::strtoll(text.c_str(), nullptr, 10);
  return errno == 0 ? std::optional(number) : std::nullopt;
}

// What is thrown names the line and the key.
template <class Ask>
std::optional<int> asked(Ask&& ask, int line, const std::string& key) {
  static const std::string file =
      std::getenv("KELDARA_REGISTRY_ROOT") + std::string("/settings.ini:");
  try {
    return ask();
  } catch (const KdException& e) {
    const std::string message = e.getMessage();
    require(message.find(file + std::to_string(line) + ":") != std::string::npos);
    require(message.find("\"" + key + "\"") != std::string::npos);
    return std::nullopt;
  }
}

// The key as a text and as a number; `assigned`: what it should be, if anything.
void check(const std::string& section, const std::string& key, const Assigned* assigned, int bad) {
  const auto number = assigned && bad == 0 ? wholeNumber(assigned->value) : std::nullopt;
  std::string text = "as it was";
  long long value = -77;
  const auto asText = asked(
      [&] { return KDPlatformInfo::getString(section.c_str(), key.c_str(), &text); }, bad, key);
  const auto asNumber =
      asked([&] { return KDPlatformInfo::getNumber(section.c_str(), key.c_str(), &value); },
            bad != 0   ? bad
            : assigned ? assigned->line
                       : 0,
            key);
  require(asText.has_value() == (bad == 0));
  require(asNumber.has_value() == (bad == 0 && (!assigned || number)));
  require(text == (assigned && bad == 0 ? assigned->value : "as it was"));
  require(value == number.value_or(-77));
  if (bad == 0) require((*asText != 0) == (assigned != nullptr));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const kddc::test::TempFolder folder(kddc::test::inMemory());
  ::setenv("KELDARA_REGISTRY_ROOT", folder.path().c_str(), 1);
  const std::string text = kddc::fuzz::textOf(data, size);
  folder.write("settings.ini", text);
  const Expected expected = read(text);
  check("DataClassification", "never assigned", nullptr, expected.badLine);
  int most = 8;  // each reads the file anew
  for (const auto& [name, assigned] : expected.settings)
    if (most-- > 0) check(name.first, name.second, &assigned, expected.badLine);
  return 0;
}
