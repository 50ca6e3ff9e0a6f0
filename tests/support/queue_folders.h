// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The folders and settings that a journal queue needs, and short words for what goes through one.
#pragma once

#include <gmock/gmock.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "buffer/in_memory_buffer.h"
#include "platform/exceptions.h"
#include "tests/support/temp_folder.h"

namespace kddc::test {

// "type number message" of the UDCException that `call` throws.
template <class Call>
std::string exceptionOf(Call call) {
  try {
    call();
  } catch (const UDCException& e) {
    return std::to_string(e.GetType()) + " " + std::to_string(e.GetErrorNumber()) + " " +
           e.GetMessage();
  }
  return "no exception";
}

// Works for a queue and for a block.
template <class Target>
auto add(Target& target, std::string_view record) {
  const auto* begin = reinterpret_cast<const unsigned char*>(record.data());
  std::vector<unsigned char> bytes(begin, begin + record.size());
  if constexpr (requires { target.AddEntry(bytes.data(), 0); })
    return target.AddEntry(bytes.data(), static_cast<int>(bytes.size()));
  else
    return target.Write(bytes.data(), static_cast<short>(bytes.size()));
}

inline std::string asText(const unsigned char* data, int length) {
  return {reinterpret_cast<const char*>(data), static_cast<std::size_t>(length)};
}

// What one read of a block answers: the record, or "eof", "end" (false with *eof false) or "none"
// (false and *eof untouched, which a second read with another *eof shows).
inline std::string read(InMemoryBuffer& block) {
  for (const bool before : {true, false}) {
    bool eof = before;
    unsigned char* data = nullptr;
    int length = -1;
    if (block.Read(&eof, &data, &length)) return asText(data, length);
    if (eof != before) return eof ? "eof" : "end";
  }
  return "none";
}

// A folder with settings, a place for the buffer folder, and a cache root; a watchdog besides.
class QueueFolders : public ::testing::Test {
 protected:
  void SetUp() override {
    ::alarm(120);
    ::setenv("KELDARA_REGISTRY_ROOT", folder.path().c_str(), 1);
    std::filesystem::create_directory(cacheRoot);
    configure();
  }
  void TearDown() override {
    ::unsetenv("KELDARA_REGISTRY_ROOT");
    ::alarm(0);
  }

  // The usual settings and more lines.
  void configure(const std::string& more = "") const {
    folder.write("settings.ini", "[DataClassification]\ndRawBufferDir = " + buffer +
                                     "\ndCacheRootDir = " + cacheRoot + "\n" + more + "\n");
  }

  // Names in a folder, sorted; none when it is not there.
  static std::vector<std::string> listing(const std::string& path) {
    std::vector<std::string> names;
    if (!std::filesystem::exists(path)) return names;
    for (const auto& entry : std::filesystem::directory_iterator(path))
      names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  static std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void put(const std::string& path, std::string_view text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }
  // The bytes of one record as a swap file holds them, on a little-endian host.
  static std::string stored(std::string_view record) {
    std::string bytes{static_cast<char>(record.size() & 0xff),
                      static_cast<char>(record.size() >> 8)};
    return bytes.append(record);
  }
  static int modeOf(const std::string& path) {
    return static_cast<int>(std::filesystem::status(path).permissions());
  }

  const TempFolder folder{inMemory()};  // millions of records, and thousands of stops, come by
  const std::string buffer = folder / "buffer", cacheRoot = folder / "cache";
};

}  // namespace kddc::test
