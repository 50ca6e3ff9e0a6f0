// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/sequence_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "agent/errors.h"
#include "platform/unique_fd.h"

namespace kddc {
namespace {

constexpr unsigned long long kFarAhead = 1ULL << 32;  // more than a run gives
// No row of runs and crashes leads there; from a number beyond it the next one would start anew.
constexpr unsigned long long kMostNumber = 1ULL << 63;

// As much as a file of some hundred file systems holds.
std::string textOf(const std::string& file) {
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  std::string text(64 * 1024, 0);
  const ssize_t length = fd ? read(fd.get(), text.data(), text.size()) : 0;
  text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
  return text;
}

// "<devt> <next> <expected>" and no more; sscanf would take "-1" for the greatest number of all.
bool readLine(const std::string& line, unsigned long long& devt, RecordNumbers& numbers) {
  const char* at = line.data();
  const char* const end = at + line.size();
  for (unsigned long long* number : {&devt, &numbers.next, &numbers.expected}) {
    if (number != &devt && (at == end || *at++ != ' ')) return false;
    const auto [behind, error] = std::from_chars(at, end, *number);
    if (error != std::errc()) return false;
    at = behind;
  }
  return at == end && numbers.expected > 0 && numbers.next >= numbers.expected &&
         numbers.next <= kMostNumber;
}

NumbersByDevt readNumbers(const std::string& file) {
  NumbersByDevt all;
  std::istringstream lines(textOf(file));
  for (std::string line; std::getline(lines, line);) {
    unsigned long long devt = 0;
    RecordNumbers numbers;
    if (readLine(line, devt, numbers)) all[devt] = numbers;
  }
  return all;
}

void fail(const std::string& file) {
  throw systemFailure("cannot keep the numbers of records in " + file, errno);
}

}  // namespace

NumbersByDevt beginNumbering(const std::string& file, const std::set<unsigned long long>& devts) {
  NumbersByDevt known = readNumbers(file), numbers;
  for (const unsigned long long devt : devts) numbers[devt] = known[devt];
  keepFarAhead(file, numbers);
  return numbers;
}

void keepFarAhead(const std::string& file, const NumbersByDevt& all) {
  NumbersByDevt afterCrash;
  for (const auto& [devt, numbers] : all)
    afterCrash[devt] = {numbers.next + kFarAhead, numbers.next + kFarAhead};
  keepNumbers(file, afterCrash);
}

void keepNumbers(const std::string& file, const NumbersByDevt& all) {
  std::string text;
  for (const auto& [devt, numbers] : all)
    text += fmt::format("{} {} {}\n", devt, numbers.next, numbers.expected);
  const std::string beside = file + ".new";
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
  const UniqueFd fd(open(beside.c_str(), kFlags, 0600));
  if (!fd || write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()) ||
      fsync(fd.get()) != 0 || std::rename(beside.c_str(), file.c_str()) != 0)
    fail(file);
  const std::string folder = std::filesystem::path(file).parent_path();
  const UniqueFd parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!parent || fsync(parent.get()) != 0) fail(file);
}

}  // namespace kddc
