// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The two readers of lists of volumes, on any bytes: of each piece of a line one byte is dropped
// and no other, and the first words of a hook file are words of the same pieces, in the same order.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <string>

#include "volumes/volume_lists.h"

namespace {

constexpr char kBlanks[] = " \t\n\v\f\r";

// Not assert, which a release build drops.
void require(bool holds) {
  if (!holds) std::abort();
}

void checkLines(const std::list<std::string>& lines, const std::string& file) {
  std::size_t at = 0;
  for (const std::string& line : lines) {
    require(line.size() <= 2046 && line.find('\n') == std::string::npos);
    require(file.compare(at, line.size(), line) == 0);
    at += line.size() + 1;
  }
  require(at == file.size());
}

void checkWords(const std::list<std::string>& words, const std::list<std::string>& lines) {
  auto word = words.begin();
  for (const std::string& line : lines) {
    const std::size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string::npos) continue;
    require(word != words.end() && !word->empty());
    require(word->find_first_of(kBlanks) == std::string::npos);
    require(line.compare(begin, word->size(), *word) == 0);
    ++word;
  }
  require(word == words.end());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string file(reinterpret_cast<const char*>(data), size);
  const int memory = memfd_create("input", MFD_CLOEXEC);
  require(write(memory, data, size) == static_cast<ssize_t>(size));
  const std::string path = "/proc/self/fd/" + std::to_string(memory);
  std::list<std::string> lines{"old"}, words{"old"};
  ReadVolListFromFile(path, lines);
  ReadVolListFromFailOverHookFile(path, words);
  close(memory);
  checkLines(lines, file);
  checkWords(words, lines);
  return 0;
}
