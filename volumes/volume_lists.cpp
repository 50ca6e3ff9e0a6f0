// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
#include "volumes/volume_lists.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string_view>
#include <utility>

namespace {

constexpr std::size_t kLongestPiece = 2047;
constexpr std::string_view kBlanks = " \t\n\v\f\r";

// Calls `take` with each line, or piece of a long one, without its last byte. Counts bytes instead
// of looking for the end of a text, so that a NUL neither hides what is behind it nor makes the
// last byte one in front of the line.
template <class Take>
void forEachPiece(const std::string& path, Take take) {
  if (access(path.c_str(), R_OK) != 0) return;
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"),
                                                             std::fclose);
  if (!file) return;
  std::string piece;
  const auto takePiece = [&] {
    piece.pop_back();
    take(piece);
    piece.clear();
  };
  for (int c = std::getc(file.get()); c != EOF; c = std::getc(file.get())) {
    piece += static_cast<char>(c);
    if (c == '\n' || piece.size() == kLongestPiece) takePiece();
  }
  if (!piece.empty()) takePiece();
}

std::string firstWord(const std::string& text) {
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_first_of(kBlanks, begin) - begin);
}

}  // namespace

void ReadVolListFromFile(const std::string& path, std::list<std::string>& volumes) {
  volumes.clear();
  forEachPiece(path, [&](const std::string& line) { volumes.push_back(line); });
}

void ReadVolListFromFailOverHookFile(const std::string& path, std::list<std::string>& volumes) {
  volumes.clear();
  forEachPiece(path, [&](const std::string& line) {
    if (std::string word = firstWord(line); !word.empty()) volumes.push_back(std::move(word));
  });
}
