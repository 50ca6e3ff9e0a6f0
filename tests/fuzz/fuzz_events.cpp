// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The parser of kernel events, on any bytes: nothing outside of them is read, and what comes out is
// what an event may hold: names that end, identifiers of at most 20 bytes.
#include <cstring>
#include <vector>

#include "driver/event.h"
#include "platform/file_handle.h"
#include "tests/fuzz/fuzz.h"

using kddc::fuzz::require;

namespace {

void check(bool has, const fsf_fid& fid) {
  if (has) require(fid.data[1] != 0 && fid.data[1] <= kddc::kMaxHandleBytes);
}

void check(const std::string& name, bool has) {
  require(has == !name.empty() && name.find('\0') == std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy, so that a read beyond the bytes is one beyond the buffer.
  const std::vector<unsigned char> bytes(data, data + size);
  std::vector<kddc::Event> events;
  kddc::parseEvents(bytes, events);
  for (const kddc::Event& event : events) {
    check(event.hasName, event.folder);
    check(event.hasNewName, event.newFolder);
    check(event.hasObject, event.object);
    check(event.name, event.hasName);
    check(event.newName, event.hasNewName);
  }
  return 0;
}

// Most mutations make the first length a lie, and nothing would be parsed. So it is put right,
// three times out of four.
extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
  size = LLVMFuzzerMutate(data, size, maxSize);
  const auto length = static_cast<uint32_t>(size);
  if (size >= sizeof length && seed % 4 != 0) std::memcpy(data, &length, sizeof length);
  return size;
}
