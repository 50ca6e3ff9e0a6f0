// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// list_seeds DIR: empties DIR and writes some lists of volumes to it, a file each.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: list_seeds DIR\n";
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  const std::string seeds[] = {"/a\n/b\n", "/a\n\n/b", "/data\tnode2\n \t\n",
                               std::string("\0\n/a\0b\n", 7),
                               std::string(2046, 'a') + "\n" + std::string(2050, 'b') + "\n"};
  int number = 0;
  for (const std::string& seed : seeds)
    std::ofstream(folder / std::to_string(number++), std::ios::binary) << seed;
}
