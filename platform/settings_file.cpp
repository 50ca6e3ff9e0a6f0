// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Lines are handed to inih one by one by a reader of our own, because as installed it cuts long
// lines, does not tell its handler the line, and takes an indented line for the value above going
// on. A line that it must not see is shown to it as a lone "[", which it reports with its number.
#include "platform/settings_file.h"

#include <fcntl.h>
#include <ini.h>
#include <sys/stat.h>

#include <cerrno>
#include <string_view>
#include <vector>

#include "platform/failure.h"
#include "platform/unique_fd.h"

namespace kddc {
namespace {

constexpr std::string_view kBlanks = " \t\r\v\f";
constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::size_t kLineLimit = 199;    // what inih takes of a line
constexpr std::size_t kSectionLimit = 49;  // what it keeps of a section's name
constexpr std::size_t kShown = 60;         // bytes of a bad line that a message repeats

[[noreturn]] void fail(const std::string& path, const SectionAndKey& wanted,
                       const std::string& reason, int code) {
  failKd("KDPlatformInfo",
         "cannot look up \"" + wanted.second + "\" of section [" + wanted.first + "]: " + path +
             reason,
         code);
}

// Settings name folders that are written in, mostly as root: who else could change the file would
// choose them. Why it is not believed and what to do, or nothing.
std::string distrustOf(const std::string& path, const struct stat& file) {
  if (file.st_uid != 0 && file.st_uid != ::geteuid())
    return " belongs to another user, who could change it; take it over with: chown " +
           std::to_string(::geteuid()) + " " + path;
  if ((file.st_mode & (S_IWGRP | S_IWOTH)) != 0)
    return " can be changed by others; close it with: chmod go-w " + path;
  return {};
}

// The bytes of the file; or an errno, and perhaps in `distrust` a reason that says more.
int readWhole(const std::string& path, std::string& text, std::string& distrust) {
  // Without O_NONBLOCK a FIFO of that name would hold the caller for ever.
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return errno == ENOENT ? 0 : errno;
  struct stat st {};
  if (::fstat(file.get(), &st) != 0) return errno;
  if (S_ISDIR(st.st_mode)) return EISDIR;
  if (!S_ISREG(st.st_mode)) return EINVAL;
  distrust = distrustOf(path, st);
  if (!distrust.empty()) return EPERM;
  char block[8192];
  for (;;) {
    const ssize_t got = ::read(file.get(), block, sizeof block);
    if (got == 0) return 0;
    if (got > 0)
      text.append(block, static_cast<std::size_t>(got));
    else if (errno != EINTR)
      return errno;
  }
}

bool isBlank(char c) {
  return kBlanks.find(c) != std::string_view::npos;
}

// Cuts the comment, at the start or behind a blank, and the blanks around the rest.
std::string_view tidy(std::string_view line) {
  for (std::size_t i = 0; i < line.size(); ++i)
    if ((line[i] == '#' || line[i] == ';') && (i == 0 || isBlank(line[i - 1])))
      line = line.substr(0, i);
  const std::size_t first = line.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

std::vector<std::string_view> linesOf(std::string_view text) {
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

struct Reading {
  std::vector<std::string_view> lines;
  std::size_t next = 0;
  Settings settings;
};

// Why inih must not see the line, or nothing.
std::string_view complaintOf(std::string_view line) {
  if (line.size() > kLineLimit) return "is too long (199 bytes at most)";
  if (line.find('\0') != std::string_view::npos) return "holds a NUL byte";
  // Of the first line inih would pass over it, wherever the line begins.
  if (line.starts_with(kByteOrderMark)) return "begins with a byte order mark in mid-file";
  if (line.starts_with('[') && line.find(']') != std::string_view::npos &&
      line.find(']') > kSectionLimit + 1)
    return "has a section name that is too long (49 bytes at most)";
  return {};
}

char* nextLine(char* out, int size, void* stream) {
  auto& reading = *static_cast<Reading*>(stream);
  if (reading.next == reading.lines.size()) return nullptr;
  std::string_view line = tidy(reading.lines[reading.next++]);
  if (!complaintOf(line).empty()) line = "[";
  out[line.copy(out, static_cast<std::size_t>(size) - 1)] = '\0';
  return out;
}

int keep(void* user, const char* section, const char* key, const char* value) {
  auto& reading = *static_cast<Reading*>(user);
  if (*key == '\0') return 0;
  reading.settings[{section, key}] = {value, static_cast<int>(reading.next)};
  return 1;
}

std::string shown(std::string_view line) {
  line = tidy(line);
  std::string text = "\"" + std::string(line.substr(0, kShown)) + "\"";
  for (char& c : text)
    if (static_cast<unsigned char>(c) < ' ') c = '?';
  return line.size() > kShown ? text + "..." : text;
}

}  // namespace

Settings readSettings(const std::string& path, const SectionAndKey& wanted) {
  std::string text, distrust;
  if (const int error = readWhole(path, text, distrust); error != 0)
    fail(path, wanted, distrust.empty() ? " cannot be read: " + errnoText(error) : distrust, error);
  Reading reading;
  reading.lines = linesOf(text);
  const int bad = ini_parse_stream(nextLine, &reading, keep, &reading);
  if (bad == 0) return std::move(reading.settings);
  if (bad < 0) fail(path, wanted, " cannot be parsed: out of memory", ENOMEM);
  const std::string_view line = reading.lines[static_cast<std::size_t>(bad) - 1];
  std::string_view why = complaintOf(tidy(line));
  if (why.empty()) why = "is no \"key = value\", no \"[section]\" and no comment";
  fail(path, wanted, ":" + std::to_string(bad) + ": " + shown(line) + " " + std::string(why), -1);
}

}  // namespace kddc
