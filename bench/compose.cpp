// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Prints the figures of a run as one table, and writes them into a document.
//
//   compose RESULTS [DOCUMENT MACHINE]
//
// RESULTS is what bench/results.h wrote. MACHINE is a line that says where the run was. A document
// holds figures of one machine: on another, a run that has not figures for all its tables leaves it
// alone.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "bench/document.h"
#include "bench/tables.h"

namespace {

using kddc::bench::Document;
using kddc::bench::Tables;

std::ifstream opened(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  return file;
}

void replace(const std::string& path, const std::string& text) {
  const std::string beside = path + ".new";
  std::ofstream file(beside);
  file << text;
  file.close();
  if (!file) throw std::runtime_error("cannot write " + beside);
  std::filesystem::rename(beside, path);
}

void write(const std::string& path, Tables tables, const std::string& machine) {
  std::ifstream file = opened(path);
  Document document(file);
  tables[kddc::bench::kMachine] = machine + "\n";
  if (wouldMixMachines(document, tables)) {
    std::printf("%s is of another machine and stays as it is; run all benchmarks to replace it\n",
                path.c_str());
    return;
  }
  document.put(std::move(tables));
  replace(path, document.text());
  std::printf("wrote %s\n", path.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 && argc != 4) {
    std::fprintf(stderr, "usage: compose RESULTS [DOCUMENT MACHINE]\n");
    return 2;
  }
  try {
    std::ifstream results = opened(argv[1]);
    const kddc::bench::Figures figures = kddc::bench::figuresIn(results);
    std::fputs(kddc::bench::overviewOf(figures).c_str(), stdout);
    if (argc == 4) write(argv[2], kddc::bench::tablesOf(figures), argv[3]);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "compose: %s\n", e.what());
    return 1;
  }
}
