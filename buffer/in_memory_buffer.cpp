// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The two private helpers that matter: Access, which is the lock or the promise that none is
// needed, and skipTheRest, where everything ends that a damaged file may hold.
#include "buffer/in_memory_buffer.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>

#include "platform/logged.h"
#include "platform/platform_info.h"

using kddc::absorbed;
using kddc::logged;

namespace {

constexpr int kSingleThreaded = 0, kShared = 2;  // 1, write-only, is all the rest
constexpr int kPrefix = sizeof(short);
constexpr int kWaitMilliseconds = 60000;

bool mayBeRead(int mode) {
  return mode == kSingleThreaded || mode == kShared;
}

std::size_t asSize(int count) {
  return static_cast<std::size_t>(count);
}

}  // namespace

// The right to touch the pointers, for the life of a scope: the monitor in shared mode, in the
// other modes the owner's promise that there is one thread, which the compiler takes for the lock.
class SCOPED_CAPABILITY InMemoryBuffer::Access {
 public:
  explicit Access(InMemoryBuffer& block) ACQUIRE(block.Monitor_m) NO_THREAD_SAFETY_ANALYSIS
      : monitor_(block.Mode_m == kShared ? &block.Monitor_m : nullptr) {
    if (monitor_) monitor_->enter();
  }
  ~Access() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
    if (monitor_) monitor_->leave();
  }
  Access(const Access&) = delete;
  Access& operator=(const Access&) = delete;

  bool shared() const { return monitor_ != nullptr; }

 private:
  KdMonitor* monitor_;
};

InMemoryBuffer::InMemoryBuffer(int size) : BufferSize_m(size) {
  logged("InMemoryBuffer :: InMemoryBuffer", [&] {
    if (size < 0) throw std::bad_array_new_length();
    Buffer_m = std::make_unique<unsigned char[]>(asSize(size));
    long long trials = 0;
    if (!KDPlatformInfo::getNumber("DataClassification", "TolerateWriteErrors", &trials)) return;
    constexpr long long kMost = std::numeric_limits<unsigned int>::max();
    if (trials > 10) MaxTrials_m = static_cast<unsigned int>(std::min(trials, kMost));
  });
}

// Nobody but the writer moves the position while records are written, so it needs no lock to look.
int InMemoryBuffer::writersPosition() const NO_THREAD_SAFETY_ANALYSIS {
  return WritePointer_m;
}

// A reader that waits for more in this block must go on to the next one.
void InMemoryBuffer::markFull() {
  const Access access(*this);
  if (!access.shared()) return;
  Full_m = true;
  Monitor_m.broadcast();
}

bool InMemoryBuffer::Write(unsigned char* data, short len) {
  return logged("InMemoryBuffer :: Write", [&] {
    if (len < 0) return false;
    const int start = writersPosition();
    if (kPrefix + len > BufferSize_m - start) {
      markFull();
      return false;
    }
    // The reader cannot see these bytes before the position moves.
    std::memcpy(&Buffer_m[asSize(start)], &len, kPrefix);
    std::copy_n(data, len, &Buffer_m[asSize(start)] + kPrefix);

    const Access access(*this);
    WritePointer_m += kPrefix + len;
    if (access.shared()) {
      Full_m = false;
      Monitor_m.broadcast();
    }
    return true;
  });
}

bool InMemoryBuffer::Read(bool* eof, unsigned char** data, int* len) {
  return logged("InMemoryBuffer :: Read", [&] {
    unsigned char* prefix = nullptr;
    if (!ReadData(eof, &prefix, kPrefix)) {
      skipHalfALength();
      return false;
    }
    short length = 0;
    std::memcpy(&length, prefix, kPrefix);
    if (length == 0) return false;
    if (!takePayload(eof, data, length)) return false;
    *len = length;
    return true;
  });
}

bool InMemoryBuffer::ReadData(bool* eof, unsigned char** data, int n) {
  return logged("InMemoryBuffer :: ReadData", [&] {
    if (n < 0 || !mayBeRead(Mode_m)) return false;
    if (takeSeen(eof, data, n)) return true;
    const Access access(*this);
    if (access.shared() && !waitForData(n)) return false;
    return take(eof, data, n);
  });
}

// Time-outs are no failure: the condition is tested again. True when it is time to look: the data
// are there, or no more will come into this block.
bool InMemoryBuffer::waitForData(int n) {
  while (n > WritePointer_m - ReadPointer_m && !Full_m) {
    if (!Blocking_m) return false;
    Monitor_m.wait(kWaitMilliseconds);
    if (Abort_m) return false;
  }
  return true;
}

bool InMemoryBuffer::take(bool* eof, unsigned char** data, int n) {
  seen_ = WritePointer_m;
  *eof = true;
  return takeSeen(eof, data, n);
}

// Nobody but the reader moves its position, and what it has seen written stays, so most records
// cost it no lock: it takes the monitor once for all that was written in the meantime.
// Compared as a difference: a sum could run over for a large `n`.
bool InMemoryBuffer::takeSeen(bool* eof, unsigned char** data, int n) NO_THREAD_SAFETY_ANALYSIS {
  if (n > seen_ - ReadPointer_m) return false;
  *eof = false;
  *data = &Buffer_m[asSize(ReadPointer_m)];
  ReadPointer_m += n;
  return true;
}

// A record is published with its length, so whoever has seen the one has seen the other: there is
// nothing to wait for here.
bool InMemoryBuffer::takePayload(bool* eof, unsigned char** data, int n) {
  if (n > 0 && takeSeen(eof, data, n)) return true;
  const Access access(*this);
  *eof = false;
  skipTheRest(n);
  return false;
}

// A block that was cut in the middle of a length has one byte too many.
void InMemoryBuffer::skipHalfALength() {
  if (!mayBeRead(Mode_m)) return;
  const Access access(*this);
  if (WritePointer_m - ReadPointer_m == 1) skipTheRest(0);
}

void InMemoryBuffer::skipTheRest(int length) {
  ++damagedLengths_;
  dbg.Error(
      "InMemoryBuffer :: Read",
      "Block %llu is damaged before byte %d of %d: a record of %d bytes does not fit, what is "
      "behind it is lost",
      BufferId_m, ReadPointer_m, WritePointer_m, length);
  ReadPointer_m = WritePointer_m;
}

int InMemoryBuffer::Load(int fd, int len) {
  constexpr char kTag[] = "InMemoryBuffer :: Load";
  return logged(kTag, [&] {
    const Access access(*this);
    const int length = std::clamp(len, 0, BufferSize_m);  // never past the block
    const auto count = static_cast<int>(::read(fd, Buffer_m.get(), asSize(length)));
    const int error = errno;
    // Afterwards, as a full block has no rest.
    std::fill(&Buffer_m[asSize(std::max(count, 0))], Buffer_m.get() + BufferSize_m,
              static_cast<unsigned char>(0));
    if (count < 0) throw UDCException(kTag, 0, "Failed to Load data", error);
    Full_m = false;
    ReadPointer_m = seen_ = 0;
    WritePointer_m = count;
    return WritePointer_m;
  });
}

// A short write is tried again, but not for ever: a disk that takes a byte at a time holds up the
// thread that fills the queue.
int InMemoryBuffer::Flush(int fd) {
  constexpr char kTag[] = "InMemoryBuffer :: Flush";
  return logged(kTag, [&] {
    const Access access(*this);
    const unsigned char* position = Buffer_m.get();
    int remaining = WritePointer_m;
    for (unsigned int trials = MaxTrials_m; trials > 0; --trials) {
      const int written = static_cast<int>(::write(fd, position, asSize(remaining)));
      if (written == -1) {
        const int error = errno;
        dbg.Error(kTag, "WritePointer_m:%d, Ret:%d, errno:%d", WritePointer_m, written, error);
        throw UDCException(kTag, 0, "Failed to Flush data", error);
      }
      if (written >= remaining) {
        clear();
        return written;
      }
      position += written;
      remaining -= written;
    }
    throw UDCException(kTag, 0, "Failed to Flush data after Max Trials", errno);
  });
}

void InMemoryBuffer::FlushRemainingData(int fd) NO_THREAD_SAFETY_ANALYSIS {
  constexpr char kTag[] = "InMemoryBuffer :: FlushRemainingData";
  logged(kTag, [&]() NO_THREAD_SAFETY_ANALYSIS {
    const unsigned char* position = &Buffer_m[asSize(ReadPointer_m)];
    int remaining = WritePointer_m - ReadPointer_m;
    for (unsigned int trials = MaxTrials_m; remaining > 0;) {
      const int written = static_cast<int>(::write(fd, position, asSize(remaining)));
      if (written == -1) {  // users rely on this being tried until the disk has room again
        dbg.Error(kTag, "WritePointer_m:%d, Ret:%d, errno:%d", WritePointer_m, written, errno);
        continue;
      }
      position += written;
      remaining -= written;
      if (remaining > 0 && --trials == 0)
        throw UDCException(kTag, 0, "Failed to Flush data after Max Trials", errno);
    }
  });
}

void InMemoryBuffer::clear() {
  std::fill_n(Buffer_m.get(), BufferSize_m, static_cast<unsigned char>(0));
  Full_m = false;
  ReadPointer_m = WritePointer_m = seen_ = 0;
}

void InMemoryBuffer::ReInitialize() {
  const Access access(*this);
  clear();
  if (access.shared()) Monitor_m.broadcast();
}

void InMemoryBuffer::SetNonBlocking() {
  absorbed(
      "InMemoryBuffer :: SetNonBlocking",
      [&] {
        const KdMonitor::Guard guard(Monitor_m);
        Blocking_m = false;
        Monitor_m.broadcast();
        return true;
      },
      false);
}

void InMemoryBuffer::Abort() {
  absorbed(
      "InMemoryBuffer :: Abort",
      [&] {
        Abort_m = true;
        const KdMonitor::Guard guard(Monitor_m);
        Monitor_m.broadcast();
        return true;
      },
      false);
}

int InMemoryBuffer::Unread() const NO_THREAD_SAFETY_ANALYSIS {
  return WritePointer_m - ReadPointer_m;
}
