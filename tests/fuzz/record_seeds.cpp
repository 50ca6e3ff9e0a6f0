// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// record_seeds DIR: empties DIR and writes one record of each command to it, a file each, and all
// of them as one stream and as one swap file.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/support/record_files.h"
#include "tests/support/record_samples.h"

namespace {

void write(const std::filesystem::path& file, const std::string& text) {
  std::ofstream(file, std::ios::binary) << text;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: record_seeds DIR\n";
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  std::string stream, swapFile;
  for (const kddc::test::Sample& sample : kddc::test::oneOfEachCommand()) {
    const std::string wire = kddc::test::wireOf(sample);
    write(folder / sample.name, wire);
    stream += wire;
    swapFile += kddc::test::framed(wire);
  }
  write(folder / "STREAM", stream);
  write(folder / "SWAP_FILE", swapFile);
}
