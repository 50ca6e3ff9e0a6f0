// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as the swap files of a graceful stop, restored and read to the end. What comes out must
// be what a reader written here finds in the same bytes, and each damage must be counted and
// reported. AddressSanitizer sees a read outside of the block. What passes the check of a record
// must decode.
//
// The last byte of an input says how many files the others are cut into, and whether the last of
// them begins so late in a block that it runs over the end.
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "buffer/persistent_raw_buffer.h"
#include "platform/ev_debug.h"
#include "records/journal_record.h"
#include "tests/fuzz/fuzz.h"
#include "tests/support/temp_folder.h"

using kddc::fuzz::require;

namespace {

using Texts = std::vector<std::string>;

constexpr std::size_t kBlock = 2097152;
constexpr const char* kNames[] = {"swap.0", "swap.3", "swap.10"};  // in their order as numbers

int reported = 0;

class Queue : public PersistentDCRawBuffer {
 public:
  Queue() : PersistentDCRawBuffer(false) {}

  // What a start does. The same object for all inputs: making the blocks would take most of the
  // time.
  void restore() {
    InitializeFromDisk();
    LoadFromDiskPending_m = true;
  }
  bool isEmpty() const NO_THREAD_SAFETY_ANALYSIS {
    return SwapQueue_m.empty() && ReadBuffer_m == WriteBuffer_m && ReadBuffer_m->Unread() == 0;
  }
};

const kddc::test::TempFolder& folder() {
  static const kddc::test::TempFolder folder(kddc::test::inMemory());
  return folder;
}

Queue& queue() {
  static Queue queue = [] {
    const std::string& path = folder().path();
    for (const char* name : {"DriverThreadShutdownIndicator", "DbThreadShutdownIndicator"})
      folder().write(name, "");
    const kddc::test::TempFolder settings;
    settings.write("settings.ini", "[DataClassification]\ndRawBufferDir = " + path +
                                       "\ndCacheRootDir = " + settings.path() + "\n");
    ::setenv("KELDARA_REGISTRY_ROOT", settings.path().c_str(), 1);
    dbg.SetSink([](const EvDebug::Line&) { ++reported; });
    return Queue();
  }();
  return queue;
}

// Records that leave only so many bytes of a block.
std::string almostABlock(unsigned room) {
  std::string text;
  for (std::size_t left = kBlock - room; left > 0;) {
    const auto length = static_cast<short>(std::min<std::size_t>(left, 32768) - 2);
    text.append(reinterpret_cast<const char*>(&length), 2);
    text.append(static_cast<std::size_t>(length), '.');
    left -= static_cast<std::size_t>(length) + 2;
  }
  return text;
}

Texts filesOf(std::string_view input) {
  const unsigned how = static_cast<unsigned char>(input.back());
  input.remove_suffix(1);
  Texts files(how % 3 + 1);
  for (std::size_t i = 0; i < files.size(); ++i) {
    const std::size_t begin = input.size() * i / files.size();
    files[i] = input.substr(begin, input.size() * (i + 1) / files.size() - begin);
  }
  if (how >= 224) files.back().insert(0, almostABlock(how - 224));
  return files;
}

// Each record behind its length, up to a length that does not fit.
struct Expected {
  Texts records;
  int damages = 0;

  void read(std::string_view file) {
    if (file.size() > kBlock) ++damages;
    file = file.substr(0, kBlock);
    while (file.size() >= 2) {
      short length = 0;
      std::memcpy(&length, file.data(), 2);
      file.remove_prefix(2);
      const auto size = static_cast<std::size_t>(length);
      if (length < 0 || size > file.size()) {
        ++damages;
        return;
      }
      if (length > 0) records.emplace_back(file.substr(0, size));
      file.remove_prefix(size);
    }
    if (!file.empty()) ++damages;
  }
};

void decode(const std::string& record) {
  // A copy, so that a read beyond the record is one beyond the buffer.
  const std::vector<unsigned char> wire(record.begin(), record.end());
  if (!kddc::isWellFormedRecord(wire.data(), wire.size())) return;
  FlrJrnCommandRaw decoded;
  require(decodeRawCmd(wire.data(), &decoded) == 0);
  require(getRawCmdSize(&decoded) <= wire.size());
}

Texts readToTheEnd() {
  Texts records;
  while (!queue().isEmpty()) {
    unsigned char* data = nullptr;
    int length = 0;
    if (!queue().ReadEntry(&data, &length)) continue;
    records.emplace_back(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
    decode(records.back());
  }
  return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const auto damagesBefore = queue().DamagedBlocks();
  reported = 0;
  Expected expected;
  const Texts files = filesOf({reinterpret_cast<const char*>(data), size});
  for (std::size_t i = 0; i < files.size(); ++i) {
    folder().write(kNames[i], files[i]);
    expected.read(files[i]);
  }
  queue().restore();
  require(readToTheEnd() == expected.records);
  require(queue().DamagedBlocks() - damagesBefore == static_cast<unsigned>(expected.damages));
  require(reported == expected.damages);
  for (const char* name : kNames) require(::access((folder() / name).c_str(), F_OK) != 0);
  return 0;
}
