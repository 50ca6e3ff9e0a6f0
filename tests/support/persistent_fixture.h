// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A queue that outlives its process, the buffer folder that it is found in, and the cache root.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "buffer/persistent_raw_buffer.h"
#include "tests/support/queue_folders.h"

namespace kddc::test {

class Persistent : public QueueFolders {
 protected:
  static constexpr char kDriver[] = "DriverThreadShutdownIndicator",
                        kDb[] = "DbThreadShutdownIndicator";
  static constexpr char kClosed[] = "GracefullClosedDbs";

  // Looks at the fields; one thread, no locks.
  class Queue : public PersistentDCRawBuffer {
   public:
    explicit Queue(bool cleanStart) : PersistentDCRawBuffer(cleanStart) {}
    using DCRawBuffer::Aborted_m;
    using PersistentDCRawBuffer::DbThreadState_m;
    using PersistentDCRawBuffer::DriverThreadState_m;
    using PersistentDCRawBuffer::LoadFromDiskPending_m;
    using PersistentDCRawBuffer::StrayFolders_m;
    unsigned long long counter() const NO_THREAD_SAFETY_ANALYSIS { return WriteFileCounter_m; }

    // The numbers of the queued swap files.
    std::vector<unsigned long long> numbers() const NO_THREAD_SAFETY_ANALYSIS {
      std::vector<unsigned long long> all;
      for (const Buf_File_s& entry : SwapQueue_m) {
        EXPECT_EQ(entry.buffer, nullptr);
        all.push_back(entry.fileNumber);
      }
      return all;
    }
  };

  std::string in(const std::string& name) const { return buffer + "/" + name; }
  std::string cached(const std::string& name) const { return cacheRoot + "/" + name; }

  // A buffer folder as a graceful stop leaves it.
  void leave(const std::map<std::string, std::string>& files) const {
    std::filesystem::create_directory(buffer);
    for (const char* indicator : {kDriver, kDb}) put(in(indicator), "");
    for (const auto& [name, text] : files) put(in(name), text);
  }
  static void startThreads(PersistentDCRawBuffer& queue) {
    queue.DriverThreadStarted();
    queue.DbThreadStarted();
  }
  static void stop(PersistentDCRawBuffer& queue) {
    queue.DriverThreadShutDown();
    queue.DbThreadShutDown();
  }
  static std::list<std::string> strays(PersistentDCRawBuffer& queue) {
    std::list<std::string> names;
    queue.IsRescanNeeded(&names);
    return names;
  }
  static std::list<std::string> closed(PersistentDCRawBuffer& queue) {
    std::list<std::string> names;
    queue.GetListOfDBsGracefullyClosed(&names);
    return names;
  }
};

}  // namespace kddc::test
