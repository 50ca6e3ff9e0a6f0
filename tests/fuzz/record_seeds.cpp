// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// record_seeds DIR: empties DIR and writes one record of each command to it, a file each.
#include <filesystem>
#include <fstream>
#include <iostream>

#include "tests/support/bytes.h"
#include "tests/support/record_samples.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: record_seeds DIR\n";
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  for (const kddc::test::Sample& sample : kddc::test::oneOfEachCommand()) {
    const kddc::test::Bytes wire = kddc::test::bytes(sample.wire);
    std::ofstream(folder / sample.name, std::ios::binary)
        .write(reinterpret_cast<const char*>(wire.data()),
               static_cast<std::streamsize>(wire.size()));
  }
}
