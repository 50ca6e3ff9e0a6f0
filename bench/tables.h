// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The figures of a run as text: one table of them all for a terminal, and the tables of a document.
// A table whose figures name columns is a grid of rows and columns; any other has a line for each
// figure. What missed its aim is bold.
#pragma once

#include <algorithm>
#include <istream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bench/results.h"

namespace kddc::bench {

using Figures = std::vector<Figure>;
using Rows = std::vector<std::vector<std::string>>;  // the first one is the heading
using Tables = std::map<std::string, std::string>;   // by name

inline Figures figuresIn(std::istream& results) {
  Figures figures;
  for (std::string line; std::getline(results, line);)
    figures.push_back(figureOf(nlohmann::json::parse(line)));
  return figures;
}

// The values in the order in which they come first.
inline std::vector<std::string> distinct(const Figures& figures, std::string Figure::*member) {
  std::vector<std::string> values;
  for (const Figure& figure : figures)
    if (std::find(values.begin(), values.end(), figure.*member) == values.end())
      values.push_back(figure.*member);
  return values;
}

inline std::string boldIf(bool missed, const std::string& text) {
  return missed ? "**" + text + "**" : text;
}

// What several lines in a row have in common is said in the first.
inline Rows listOf(const Figures& figures) {
  Rows rows = {{"", "kddc", "beside", "takes", "ratio", "aim"}};
  std::string said;
  for (const Figure& f : figures) {
    const std::string ours = amountText(f.ours, f.unit);
    const bool isNew = std::exchange(said, f.what + ours) != said;
    rows.push_back({isNew ? f.what : "", isNew ? boldIf(f.isAlone() && f.isMissed(), ours) : "",
                    f.beside, f.isAlone() ? "" : amountText(f.theirs, f.unit),
                    f.isAlone() ? "" : boldIf(f.isMissed(), ratioText(f)), aimText(f)});
  }
  return rows;
}

// The aim that all figures of a column share; empty when there is none.
inline std::string aimOf(const Figures& figures, const std::string& column) {
  std::set<std::string> aims;
  for (const Figure& figure : figures)
    if (figure.column == column) aims.insert(aimText(figure));
  return aims.size() == 1 ? *aims.begin() : "";
}

inline std::string withAim(const std::string& text, const std::string& aim) {
  return aim.empty() ? text : text + " (" + aim + ")";
}

inline std::string cellOf(const Figure& f, bool hasAimOfItsOwn) {
  const std::string text = f.isAlone() ? amountText(f.ours, f.unit) : timesText(f);
  return withAim(boldIf(f.isMissed(), text), hasAimOfItsOwn ? aimText(f) : "");
}

inline Rows gridOf(const Figures& figures) {
  const std::vector<std::string> columns = distinct(figures, &Figure::column);
  Rows rows = {{""}};
  for (const std::string& column : columns)
    rows[0].push_back(withAim(column, aimOf(figures, column)));
  for (const std::string& what : distinct(figures, &Figure::what)) {
    rows.push_back({what});
    for (const std::string& column : columns) {
      const auto cell = std::find_if(figures.begin(), figures.end(), [&](const Figure& f) {
        return f.what == what && f.column == column;
      });
      rows.back().push_back(cell == figures.end() ? ""
                                                  : cellOf(*cell, aimOf(figures, column).empty()));
    }
  }
  return rows;
}

// Without the columns that hold nothing but their heading.
inline Rows withoutEmptyColumns(Rows rows) {
  for (std::size_t column = rows[0].size(); column-- > 0;) {
    const auto isEmpty = [&](const auto& row) { return row[column].empty(); };
    if (!std::all_of(rows.begin() + 1, rows.end(), isEmpty)) continue;
    for (auto& row : rows) row.erase(row.begin() + static_cast<std::ptrdiff_t>(column));
  }
  return rows;
}

inline std::string markdown(const Rows& rows) {
  std::string text;
  for (std::size_t i = 0; i < rows.size(); ++i) {
    for (const std::string& cell : rows[i]) text += (cell.empty() ? "| " : "| " + cell + " ");
    text += "|\n";
    if (i > 0) continue;
    for (std::size_t column = 0; column < rows[0].size(); ++column) text += "|---";
    text += "|\n";
  }
  return text;
}

inline Tables tablesOf(const Figures& figures) {
  Tables tables;
  for (const std::string& name : distinct(figures, &Figure::table)) {
    Figures its;
    std::copy_if(figures.begin(), figures.end(), std::back_inserter(its),
                 [&](const Figure& figure) { return figure.table == name; });
    const bool isGrid = !its[0].column.empty();
    tables[name] = markdown(withoutEmptyColumns(isGrid ? gridOf(its) : listOf(its)));
  }
  return tables;
}

// For terminals: columns of equal width, without marks.
inline std::string plain(Rows rows) {
  std::vector<std::size_t> widths(rows[0].size());
  const auto widthOf = [](const std::string& text) {  // µ has two bytes
    return text.size() - static_cast<std::size_t>(std::count(text.begin(), text.end(), '\xc2'));
  };
  for (auto& row : rows)
    for (std::size_t i = 0; i < row.size(); ++i) {
      std::erase(row[i], '`');
      widths[i] = std::max(widths[i], widthOf(row[i]));
    }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i)
      line += row[i] + std::string(widths[i] - widthOf(row[i]) + 2, ' ');
    text += line.erase(line.find_last_not_of(' ') + 1) + '\n';
  }
  return text;
}

// All figures, and a warning for each aim that was missed.
inline std::string overviewOf(const Figures& figures) {
  Rows rows = {{"table", "what", "kddc", "beside", "takes", "ratio", "aim"}};
  std::string warnings;
  for (const Figure& f : figures) {
    const std::string what = f.what + (f.column.empty() ? "" : ", " + f.column);
    rows.push_back({f.table, what, amountText(f.ours, f.unit), f.beside,
                    f.isAlone() ? "" : amountText(f.theirs, f.unit), ratioText(f), aimText(f)});
    if (f.isMissed()) warnings += "warning: aim missed: " + lineOf(f) + '\n';
  }
  return plain(rows) + warnings;
}

}  // namespace kddc::bench
