// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// What the fuzz targets share.
#pragma once

#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/ev_debug.h"
#include "platform/unique_fd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed);

namespace kddc::fuzz {

// Not assert, which a release build drops.
inline void require(bool holds) {
  if (!holds) std::abort();
}

inline std::string textOf(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// What is said of bad input would fill the disk.
inline void sayNothing() {
  dbg.SetSink([](const EvDebug::Line&) {});
}

// The bytes as a file, in memory.
class InputFile {
 public:
  InputFile(const uint8_t* data, size_t size) : file_(memfd_create("input", MFD_CLOEXEC)) {
    require(write(file_.get(), data, size) == static_cast<ssize_t>(size));
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }

 private:
  UniqueFd file_;
};

// Most mutations make the length in a record's header a lie, and its check would stop there. So it
// is put right, as if the record were alone.
inline void putRecordLengthRight(uint8_t* data, size_t size) {
  if (size < 4) return;
  data[1] = static_cast<uint8_t>(size >> 16);
  data[2] = static_cast<uint8_t>(size >> 8);
  data[3] = static_cast<uint8_t>(size);
}

}  // namespace kddc::fuzz
