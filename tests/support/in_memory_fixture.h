// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// One block, and a file that it is loaded from.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string_view>

#include "buffer/in_memory_buffer.h"
#include "tests/support/queue_folders.h"

namespace kddc::test {

class InMemory : public QueueFolders {
 protected:
  // Looks at the fields; one thread, no locks.
  class Block : public InMemoryBuffer {
   public:
    explicit Block(int size = 64) : InMemoryBuffer(size) {}
    using InMemoryBuffer::Blocking_m;
    using InMemoryBuffer::Buffer_m;
    using InMemoryBuffer::BufferSize_m;
    using InMemoryBuffer::MaxTrials_m;
    using InMemoryBuffer::Mode_m;
    int readPointer() const NO_THREAD_SAFETY_ANALYSIS { return ReadPointer_m; }
    int writePointer() const NO_THREAD_SAFETY_ANALYSIS { return WritePointer_m; }
    bool full() const NO_THREAD_SAFETY_ANALYSIS { return Full_m; }
    void setFull() NO_THREAD_SAFETY_ANALYSIS { Full_m = true; }
  };

  // A block in single-threaded mode that was loaded from a file of these bytes.
  void load(Block& block, std::string_view bytes) {
    put(folder / "image", bytes);
    const int fd = ::open((folder / "image").c_str(), O_RDONLY);
    block.SetMode(0);
    EXPECT_EQ(block.Load(fd, 1000), static_cast<int>(bytes.size()));
    ::close(fd);
  }
};

}  // namespace kddc::test
