// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A block between a writer and a reader that waits.
#include <thread>

#include "buffer/in_memory_buffer.h"
#include "tests/support/queue_folders.h"

using kddc::test::add;

namespace {

class SharedBlock : public kddc::test::QueueFolders {
 protected:
  // One read: the record, or what it says instead; `eof` starts as false.
  static std::string readOnce(InMemoryBuffer& block) {
    bool eof = false;
    unsigned char* data = nullptr;
    int length = 0;
    if (block.Read(&eof, &data, &length)) return kddc::test::asText(data, length);
    return eof ? "eof" : "none";
  }
  // What a reader that may have to wait gets when `change` comes from another thread.
  template <class Change>
  static std::string readDuring(InMemoryBuffer& block, Change change) {
    std::string result;
    std::thread reader([&] { result = readOnce(block); });
    change();
    reader.join();
    return result;
  }
};

TEST_F(SharedBlock, DeliversEveryRecordInOrderToAReaderThatWaits) {
  InMemoryBuffer block(2 * 1024 * 1024);
  std::vector<std::string> expected, got;
  for (int i = 0; i < 20000; ++i) expected.push_back("record " + std::to_string(i));
  std::thread writer([&] {
    for (const std::string& record : expected) ASSERT_TRUE(add(block, record));
  });
  for (size_t i = 0; i < expected.size(); ++i) got.push_back(readOnce(block));
  writer.join();
  EXPECT_EQ(got, expected);
}

TEST_F(SharedBlock, WakesAReaderWithARecord) {
  InMemoryBuffer block(64);
  EXPECT_EQ(readDuring(block, [&] { add(block, "abc"); }), "abc");
}

TEST_F(SharedBlock, TellsAReaderThatTheWriterFoundNoRoom) {
  InMemoryBuffer block(8);
  EXPECT_EQ(readDuring(block, [&] { add(block, "1234567"); }), "eof");
}

TEST_F(SharedBlock, LetsAReaderGoThatNeedNotWaitAnyMore) {
  InMemoryBuffer block(64);
  EXPECT_EQ(readDuring(block, [&] { block.SetNonBlocking(); }), "none");
}

TEST_F(SharedBlock, LetsReadersGoThatHaveToWaitOnceItWasAborted) {
  InMemoryBuffer block(64);
  block.Abort();
  add(block, "abc");
  EXPECT_EQ(readOnce(block), "abc") << "what is there is still read";
  std::string result;
  std::atomic<bool> done = false;
  std::thread reader([&] {
    result = readOnce(block);
    done = true;
  });
  while (!done) block.Abort();  // wakes it, should it wait already
  reader.join();
  EXPECT_EQ(result, "none");
}

}  // namespace
