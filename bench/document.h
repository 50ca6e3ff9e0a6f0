// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A document whose tables come from runs of the benchmarks. Each stands between two lines:
//
//   <!-- figures: NAME -->
//   ...
//   <!-- end -->
//
// One named "machine" is a line that says where the others were measured.
#pragma once

#include <algorithm>
#include <istream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kddc::bench {

class Document {
 public:
  // std::runtime_error when a table has no end.
  explicit Document(std::istream& in) {
    pieces_.emplace_back();
    for (std::string line; std::getline(in, line);) {
      if (line == kEnd && !pieces_.back().name.empty()) pieces_.emplace_back();
      pieces_.back().text += line + '\n';
      if (const std::string name = nameIn(line); !name.empty()) pieces_.push_back({name, ""});
    }
    if (!pieces_.back().name.empty())
      throw std::runtime_error("the table '" + pieces_.back().name + "' has no end");
  }

  // Tables that are not named stay as they are; std::runtime_error when there is no place for one.
  void put(std::map<std::string, std::string> tables) {
    for (Piece& piece : pieces_)
      if (auto table = tables.extract(piece.name)) piece.text = table.mapped();
    if (!tables.empty())
      throw std::runtime_error("there is no place for '" + tables.begin()->first + "'");
  }

  // By name.
  std::map<std::string, std::string> tables() const {
    std::map<std::string, std::string> tables;
    for (const Piece& piece : pieces_)
      if (!piece.name.empty()) tables[piece.name] = piece.text;
    return tables;
  }

  std::string text() const {
    std::string text;
    for (const Piece& piece : pieces_) text += piece.text;
    return text;
  }
  // All but the tables.
  std::string prose() const {
    std::string text;
    for (const Piece& piece : pieces_)
      if (piece.name.empty()) text += piece.text;
    return text;
  }

 private:
  struct Piece {
    std::string name;  // of a table; prose has none
    std::string text;
  };
  static constexpr std::string_view kEnd = "<!-- end -->";

  // Empty for a line that begins no table.
  static std::string nameIn(std::string_view line) {
    constexpr std::string_view kBegin = "<!-- figures: ", kClose = " -->";
    if (!line.starts_with(kBegin) || !line.ends_with(kClose)) return "";
    line.remove_prefix(kBegin.size());
    line.remove_suffix(kClose.size());
    return std::string(line);
  }

  std::vector<Piece> pieces_;
};

inline constexpr const char* kMachine = "machine";

// Whether figures of another machine would stay in the document beside those of `tables`.
inline bool wouldMixMachines(const Document& document,
                             const std::map<std::string, std::string>& tables) {
  const auto old = document.tables();
  const auto machine = old.find(kMachine);
  if (machine == old.end() || machine->second.empty() || machine->second == tables.at(kMachine))
    return false;
  return std::any_of(old.begin(), old.end(),
                     [&](const auto& table) { return !tables.contains(table.first); });
}

}  // namespace kddc::bench
