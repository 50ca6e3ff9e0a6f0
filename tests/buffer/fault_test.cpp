// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// A queue lives, stops, starts again and is emptied while each of its system calls fails once, in
// a process of its own for each. A call that threw is made again; what is missing in the end must
// have been announced.
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstring>

#include "buffer/persistent_raw_buffer.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_folders.h"
#include "tests/support/stride.h"

namespace {

using Lines = std::vector<std::string>;

constexpr int kLoad = 340;  // of 32766 bytes

std::string record(int number) {
  std::string text = std::to_string(number) + " ";
  text.resize(32766, static_cast<char>('a' + number % 26));
  return text;
}

// Tells whether anything is left, as a reader without a producer would wait for ever.
class WatchedQueue : public PersistentDCRawBuffer {
 public:
  using PersistentDCRawBuffer::PersistentDCRawBuffer;
  bool isEmpty() const NO_THREAD_SAFETY_ANALYSIS {
    return SwapQueue_m.empty() && ReadBuffer_m == WriteBuffer_m && ReadBuffer_m->Unread() == 0;
  }
};

// The life of a service, told line by line: "read <number>", "closed <database>", and what it
// learned of losses: "rescan", "inexact", "damaged", "gave up <call>".
class Life {
 public:
  Life(const std::string& folder, const std::string& story) : folder_(folder), story_(story) {}

  void tell() {
    if (auto queue = start(true)) {
      add(*queue, 0, 250);
      read(*queue, 200);
      add(*queue, 250, kLoad);
      insist("DbShutDown", [&] { queue->DbShutDown(12); });
      insist("DbShutDown", [&] { queue->DbShutDown(34); });
      stop(*queue);
      // Not through the C library, where it could be the call that fails.
      ::syscall(SYS_mkdirat, AT_FDCWD, (folder_ + "/8_mode2").c_str(), 0700);
    }
    if (auto queue = start(false)) {
      if (queue->IsRescanNeeded(nullptr)) note("rescan");
      std::list<std::string> closed;
      queue->GetListOfDBsGracefullyClosed(&closed);
      for (const std::string& name : closed) note("closed " + name);
      queue->FinishedHandlingCorruptDbs();
      insist("RemoveStrayFolders", [&] { queue->RemoveStrayFolders(); });
      read(*queue, kLoad);
      stop(*queue);
    }
    note("end");
  }

 private:
  void note(const std::string& line) { story_ << line << std::endl; }

  // Makes a call until it succeeds; twice, because only one system call fails.
  template <class Call>
  bool insist(const char* name, Call call) {
    for (int i = 0; i < 2; ++i) try {
        call();
        return true;
      } catch (const UDCException&) {
      } catch (const KdException&) {
      }
    note(std::string("gave up ") + name);
    return false;
  }
  std::unique_ptr<WatchedQueue> start(bool clean) {
    std::unique_ptr<WatchedQueue> queue;
    insist("start", [&] { queue = std::make_unique<WatchedQueue>(clean); });
    if (!queue) return nullptr;
    insist("DriverThreadStarted", [&] { queue->DriverThreadStarted(); });
    insist("DbThreadStarted", [&] { queue->DbThreadStarted(); });
    return queue;
  }
  void add(WatchedQueue& queue, int first, int end) {
    for (int i = first; i < end; ++i)
      insist("AddEntry", [&] { kddc::test::add(queue, record(i)); });
  }
  // Until record `end` is the next one, or nothing is left.
  void read(WatchedQueue& queue, int end) {
    for (int last = -1; last + 1 < end && !queue.isEmpty();) {
      unsigned char* data = nullptr;
      int length = 0;
      bool found = false;
      if (!insist("ReadEntry", [&] { found = queue.ReadEntry(&data, &length); })) return;
      if (!found) continue;
      const std::string text = kddc::test::asText(data, length);
      last = std::atoi(text.c_str());
      note(text == record(last) ? "read " + std::to_string(last) : "wrong bytes");
    }
  }
  void stop(WatchedQueue& queue) {
    queue.DriverThreadShutDown();
    queue.DbThreadShutDown();
    if (!queue.IsSaveExact()) note("inexact");
    if (queue.DamagedBlocks() > 0) note("damaged");
  }

  const std::string folder_;
  std::ofstream story_;
};

class Fault : public kddc::test::QueueFolders {
 protected:
  const kddc::test::LogCapture quiet{0};

  // The life in a child, with the n-th call failing; the name of that call, "" when there were
  // fewer, and what the child told.
  std::string liveWith(int n, int error, Lines& told) const {
    const kddc::test::TempFolder notes;
    const pid_t child = fork();
    if (child == 0) become(n, error, notes);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status)) << (WTERMSIG(status) == SIGALRM ? "it hung" : "it crashed")
                                   << ", signal " << WTERMSIG(status);
    std::ifstream story(notes / "story");
    for (std::string line; std::getline(story, line);) told.push_back(line);
    return contents(notes / "report");
  }

  [[noreturn]] void become(int n, int error, const kddc::test::TempFolder& notes) const {
    ::alarm(20);
    if (!std::freopen("/dev/null", "w", stdout)) _exit(126);
    ::setenv("LD_PRELOAD", KDDC_FAULT_SHIM, 1);
    // AddressSanitizer wants to come first, but need not.
    ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0", 1);
    ::setenv("KDDC_FAULT_FOLDER", folder.path().c_str(), 1);
    ::setenv("KDDC_FAULT_CALL", std::to_string(n).c_str(), 1);
    ::setenv("KDDC_FAULT_ERROR", std::to_string(error).c_str(), 1);
    ::setenv("KDDC_FAULT_REPORT", (notes / "report").c_str(), 1);
    ::setenv("KDDC_FAULT_STORY", (notes / "story").c_str(), 1);
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    ::execl(program.c_str(), program.c_str(), "--gtest_also_run_disabled_tests",
            "--gtest_filter=*DISABLED_IsLivedInAProcessOfItsOwn", "--gtest_brief=1", nullptr);
    _exit(127);
  }

  static bool has(const Lines& told, const std::string& line) {
    return std::find(told.begin(), told.end(), line) != told.end();
  }
  static std::vector<int> numbersRead(const Lines& told) {
    std::vector<int> numbers;
    for (const std::string& line : told)
      if (line.starts_with("read ")) numbers.push_back(std::stoi(line.substr(5)));
    return numbers;
  }

  static void expectNothingAmissUnannounced(const Lines& told) {
    EXPECT_TRUE(has(told, "end"));
    EXPECT_FALSE(has(told, "wrong bytes")) << "or a record that was thrown away";
    const std::vector<int> numbers = numbersRead(told);
    const bool rising = std::is_sorted(numbers.begin(), numbers.end(), std::less_equal<>());
    EXPECT_TRUE(rising || has(told, "inexact")) << ::testing::PrintToString(told);
    const bool announced = std::any_of(told.begin(), told.end(), [](const std::string& line) {
      return line == "rescan" || line == "inexact" || line == "damaged" ||
             line.starts_with("gave up");
    });
    if (!announced) {
      EXPECT_EQ(numbers.size(), static_cast<std::size_t>(kLoad));
    }
    Lines closed;
    std::copy_if(told.begin(), told.end(), std::back_inserter(closed),
                 [](const std::string& line) { return line.starts_with("closed "); });
    for (const std::string& line : closed)
      EXPECT_TRUE(line == "closed 12" || line == "closed 34") << line;
  }

  // For the clean start to throw away.
  void leaveOldFiles() const {
    std::filesystem::remove_all(buffer);
    std::filesystem::remove(cacheRoot + "/GracefullClosedDbs");
    std::filesystem::create_directories(buffer + "/7_mode2");
    for (const char* name : {"/swap.1", "/swap.9", "/7_mode2/swap.0"})
      put(buffer + name, stored("9999 "));
    configure("nRawBufferMaxVMSize = 3");
  }

  void failEachCallWith(int error) {
    for (int n = 1; !HasFailure(); n += kddc::test::kStride) {
      ::alarm(120);
      leaveOldFiles();
      Lines told;
      const std::string call = liveWith(n, error, told);
      SCOPED_TRACE("call " + std::to_string(n) + ", " + call + ", fails: " + std::strerror(error));
      expectNothingAmissUnannounced(told);
      if (!call.empty()) continue;
      EXPECT_GT(n, error == 0 ? 10 : 50) << "the shim must have seen the calls";
      EXPECT_EQ(told.front(), "read 0");
      EXPECT_EQ(told.back(), "end");
      EXPECT_EQ(told.size(), kLoad + 3u) << "nothing failed, so nothing is announced";
      return;
    }
  }
};

// The part that runs under the shim, started by the other tests.
TEST_F(Fault, DISABLED_IsLivedInAProcessOfItsOwn) {
  const char *story = std::getenv("KDDC_FAULT_STORY"), *root = std::getenv("KDDC_FAULT_FOLDER");
  if (!story || !root) GTEST_SKIP() << "only with a story to write";
  ::setenv("KELDARA_REGISTRY_ROOT", root, 1);
  Life(root + std::string("/buffer"), story).tell();
}

TEST_F(Fault, OfAnyCallIsSurvivedOrAnnouncedWhenTheDeviceFails) {
  failEachCallWith(EIO);
}
TEST_F(Fault, OfAnyCallIsSurvivedOrAnnouncedWhenTheDiskIsFull) {
  failEachCallWith(ENOSPC);
}
TEST_F(Fault, OfAnyCallIsSurvivedOrAnnouncedWhenASignalArrives) {
  failEachCallWith(EINTR);
}
TEST_F(Fault, OfAnyReadOrWriteIsSurvivedOrAnnouncedWhenItMovesOnlyHalf) {
  failEachCallWith(0);
}

}  // namespace
