// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A temporary folder for one test, removed with all it holds when the test is done with it.
#pragma once

#include <stdlib.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <ios>
#include <string>
#include <string_view>
#include <system_error>

namespace kddc::test {

// Where files cost the disk nothing, if there is room; else the usual place.
inline std::string inMemory() {
  constexpr char kMemory[] = "/dev/shm";
  struct statvfs status {};
  const bool room = ::access(kMemory, W_OK) == 0 && ::statvfs(kMemory, &status) == 0 &&
                    status.f_bavail > (1U << 30) / status.f_frsize;
  return room ? kMemory : std::filesystem::temp_directory_path().string();
}

class TempFolder {
 public:
  explicit TempFolder(const std::string& base = std::filesystem::temp_directory_path().string())
      : path_(base + "/kddc-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr)
      throw std::system_error(errno, std::generic_category(), path_);
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const std::string& path() const { return path_; }
  // The path of an entry in the folder, whether or not it exists.
  std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

  // Writes a file in the folder, replacing what was there, and returns its path.
  std::string write(std::string_view name, std::string_view text) const {
    std::string file = *this / name;
    std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    return file;
  }

 private:
  std::string path_;
};

}  // namespace kddc::test
