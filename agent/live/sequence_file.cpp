// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "agent/live/sequence_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "agent/errors.h"
#include "platform/unique_fd.h"

namespace kddc {
namespace {

constexpr unsigned long long kFarAhead = 1ULL << 32;  // more than a run gives

RecordNumbers read(const std::string& file) {
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  char text[64] = {};
  RecordNumbers numbers;
  if (!fd || ::read(fd.get(), text, sizeof text - 1) <= 0 ||
      std::sscanf(text, "%llu %llu", &numbers.next, &numbers.expected) != 2 ||
      numbers.expected == 0 || numbers.next < numbers.expected)
    return {};
  return numbers;
}

void fail(const std::string& file) {
  throw systemFailure("cannot keep the numbers of records in " + file, errno);
}

}  // namespace

RecordNumbers beginNumbering(const std::string& file) {
  const RecordNumbers numbers = read(file);
  keepNumbers(file, {numbers.next + kFarAhead, numbers.next + kFarAhead});
  return numbers;
}

void keepNumbers(const std::string& file, const RecordNumbers& numbers) {
  const std::string text = fmt::format("{} {}\n", numbers.next, numbers.expected);
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
