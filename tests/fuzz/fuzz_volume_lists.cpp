// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The two readers of lists of volumes, on any bytes: of each piece of a line one byte is dropped
// and no other, and the first words of a hook file are words of the same pieces, in the same order.
#include <list>
#include <string>

#include "tests/fuzz/fuzz.h"
#include "volumes/volume_lists.h"

using kddc::fuzz::require;

namespace {

constexpr char kBlanks[] = " \t\n\v\f\r";

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
  const std::string file = kddc::fuzz::textOf(data, size);
  const kddc::fuzz::InputFile input(data, size);
  std::list<std::string> lines{"old"}, words{"old"};
  ReadVolListFromFile(input.path(), lines);
  ReadVolListFromFailOverHookFile(input.path(), words);
  checkLines(lines, file);
  checkWords(words, lines);
  return 0;
}
