// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A queue in any of its three modes, on one thread, and the folder that it keeps its files in.
#pragma once

#include <string>
#include <vector>

#include "buffer/raw_buffer.h"
#include "tests/support/queue_folders.h"

namespace kddc::test {

class Raw : public QueueFolders {
 protected:
  // Looks at the fields; one thread, no locks.
  class Queue : public DCRawBuffer {
   public:
    explicit Queue(UDCRawBufferMode mode = UDC_RAW_MODE1, bool create = true)
        : DCRawBuffer(2049, mode, create) {}
    using DCRawBuffer::AllBuffers_m;
    using DCRawBuffer::InMemoryBufferSize_m;
    using DCRawBuffer::LoadBuffer_m;
    using DCRawBuffer::NumBuffers_m;
    using DCRawBuffer::SwapDir_m;
    using DCRawBuffer::SwapFilePermissions_m;
    const InMemoryBuffer* readBlock() const NO_THREAD_SAFETY_ANALYSIS { return ReadBuffer_m; }
    const InMemoryBuffer* writeBlock() const NO_THREAD_SAFETY_ANALYSIS { return WriteBuffer_m; }
    const auto& freeBlocks() const NO_THREAD_SAFETY_ANALYSIS { return FreeBuffers_m; }
    unsigned long long counter() const NO_THREAD_SAFETY_ANALYSIS { return WriteFileCounter_m; }

    // Each queued block as "<block or swap>:<number>".
    std::vector<std::string> queued() const NO_THREAD_SAFETY_ANALYSIS {
      std::vector<std::string> entries;
      for (const Buf_File_s& entry : SwapQueue_m)
        entries.push_back(
            (entry.buffer ? "block " + std::to_string(entry.buffer->BufferId_m) : "swap") + ":" +
            std::to_string(entry.fileNumber));
      return entries;
    }
  };

  std::string in(const std::string& name) const { return buffer + "/" + name; }
};

}  // namespace kddc::test
