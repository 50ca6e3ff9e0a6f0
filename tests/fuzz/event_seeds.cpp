// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// event_seeds DIR: empties DIR and writes the events of some operations to it, a file each.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "tests/support/fake_volume.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: event_seeds DIR\n";
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  kddc::test::FakeVolume volume;
  volume.mkdir("folder");
  volume.create("file");
  volume.write("file", 5);
  volume.rename("file", "folder/" + std::string(255, 'x'));
  volume.chmod("folder", 0700);
  volume.unlink("folder/" + std::string(255, 'x'));
  int number = 0;
  for (const auto& event : volume.read()) {
    const auto bytes = kddc::test::kernelBytes(event);
    std::ofstream(folder / std::to_string(number++), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
  }
}
