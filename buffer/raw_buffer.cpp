// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The first mode's two roads, nextWriteBlock and nextReadBlock, hold the monitor for as long as
// they move blocks about, files included; the other modes' are swapWriteBlock and loadReadBlock.
//
// A block of the first mode is in exactly one place: free, queued, the producer's or the consumer's
// (the last two may be the same). With two blocks or more a producer that shares the consumer's
// block thus always finds a free one, and never empties a block under the consumer's hands.
#include "buffer/raw_buffer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "buffer/open_folder.h"
#include "buffer/swap_files.h"
#include "platform/logged.h"
#include "platform/platform_info.h"

using kddc::absorbed;
using kddc::logged;
using kddc::swapName;

namespace {

constexpr char kSection[] = "DataClassification";
// Bytes; how long a wait lasts before the condition is tested again.
constexpr int kBlockSize = 2 * 1024 * 1024;
constexpr int kWaitMilliseconds = 60000;
constexpr int kSingleThreaded = 0, kWriteOnly = 1, kShared = 2;

// The record path logs what leaves it at debug level: a full disk would fill the error log too.
template <class Operation>
auto loggedAsDebug(const char* tag, Operation&& operation) {
  try {
    return operation();
  } catch (UDCException& e) {
    e.AddFunction(tag);
    dbg.Debug(tag, "eRRoR -- %s", e.what());
    throw;
  } catch (const std::exception& e) {
    dbg.Debug(tag, "eRRoR -- %s", e.what());
    throw;
  }
}

// Wakes the waiters of a monitor at the end of a scope, however it is left.
class WakeAtExit {
 public:
  explicit WakeAtExit(KdMonitor& monitor) : monitor_(monitor) {}
  ~WakeAtExit() { monitor_.broadcast(); }
  WakeAtExit(const WakeAtExit&) = delete;
  WakeAtExit& operator=(const WakeAtExit&) = delete;

 private:
  KdMonitor& monitor_;
};

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

}  // namespace

DCRawBuffer::DCRawBuffer(unsigned long long id, UDCRawBufferMode mode, bool create,
                         bool keepStrangers)
    : Id_m(id), InMemoryBufferSize_m(kBlockSize), Mode_m(mode), NumBuffers_m(2) {
  logged("DCRawBuffer :: DCRawBuffer",
         [&]() NO_THREAD_SAFETY_ANALYSIS {  // nobody else knows it yet
           ReadRegistryAndSetupFolder(create, keepStrangers);
           if (mode == UDC_RAW_MODE1) {
             for (int i = 0; i < NumBuffers_m; ++i)
               FreeBuffers_m.push_back(newBlock(kShared, true));
             WriteBuffer_m = ReadBuffer_m = FreeBuffers_m.front();
             FreeBuffers_m.pop_front();
             LoadBuffer_m = newBlock(kSingleThreaded, true);
             return;
           }
           WriteBuffer_m = ReadBuffer_m = newBlock(kWriteOnly, false);
           if (mode == UDC_RAW_MODE2) ReadBuffer_m = newBlock(kSingleThreaded, false);
         });
}

DCRawBuffer::~DCRawBuffer() {
  absorbed(
      "DCRawBuffer :: ~DCRawBuffer",
      [&] {
        blocks_.clear();
        if (Mode_m == UDC_RAW_MODE2 || (Mode_m == UDC_RAW_MODE3 && DcIfindContext_m))
          RemoveSwapDir(SwapDir_m.c_str());
        return true;
      },
      false);
}

// Only the first mode moves blocks about, and numbers them for the log.
InMemoryBuffer* DCRawBuffer::newBlock(int mode, bool blocking) {
  InMemoryBuffer* block =
      blocks_.emplace_back(std::make_unique<InMemoryBuffer>(InMemoryBufferSize_m)).get();
  block->SetMode(mode);
  if (!blocking) block->SetNonBlocking();
  if (Mode_m != UDC_RAW_MODE1) return block;
  AllBuffers_m.push_back(block);
  block->BufferId_m = AllBuffers_m.size();
  return block;
}

void DCRawBuffer::ReadRegistryAndSetupFolder(bool create, bool keepStrangers) {
  constexpr char kTag[] = "DCRawBuffer :: ReadRegistryAndSetupFolder";
  try {
    readSettings();
    if (create)
      recreateFolder(kTag, keepStrangers);
    else if (::access(SwapDir_m.c_str(), R_OK) != 0)
      throw UDCException(kTag, 1, "Buffer Folder does not exist", 0);
  } catch (const std::exception& e) {
    dbg.Error(kTag, "eRRoR -- %s", e.what());
    throw;
  } catch (const KdException& e) {
    dbg.Error(kTag, "eRRoR -- %s", e.getMessage().c_str());
    throw UDCException(kTag, 5, e.getMessage(), 0);
  } catch (...) {
    dbg.Error(kTag, "eRRoR -- UnHandled Exception ");
    throw UDCException(kTag, 1, "UnHandled Exception", 0);
  }
}

void DCRawBuffer::readSettings() {
  constexpr char kTag[] = "DCRawBuffer :: ReadRegistryAndSetupFolder";
  if (!KDPlatformInfo::getString(kSection, "dRawBufferDir", &SwapDir_m))
    throw UDCException(kTag, 1, "failed to get buufer_dir from the registry", 0);
  NumBuffers_m = 2;
  if (Mode_m == UDC_RAW_MODE1) {
    long long blocks = 0;
    if (KDPlatformInfo::getNumber(kSection, "nRawBufferMaxVMSize", &blocks) && blocks > 2) {
      if (blocks > std::numeric_limits<int>::max())
        throw UDCException(kTag, 1, "nRawBufferMaxVMSize is out of range", 0);
      NumBuffers_m = static_cast<int>(blocks);
    }
    return;
  }
  SwapDir_m += "/" + std::to_string(Id_m);
  if (Mode_m == UDC_RAW_MODE2) SwapDir_m += "_mode2";
}

void DCRawBuffer::recreateFolder(const char* tag, bool keepStrangers) {
  if (exists(SwapDir_m)) {
    try {
      RemoveSwapDir(SwapDir_m.c_str());
    } catch (const UDCException& e) {
      if (keepStrangers && e.GetType() == 1) return;  // logged; the folder is there and stays
      throw;
    }
  }
  dbg.DebugLvl(tag, 2, "Buffer Folder: %s", SwapDir_m.c_str());
  if (::mkdir(SwapDir_m.c_str(), 0700) != 0)
    throw UDCException(tag, 0, "Unable to Create the Buffer Dir", errno);
}

void DCRawBuffer::RemoveSwapDir(const char* dir) {
  constexpr char kTag[] = "DCRawBuffer :: RemoveSwapDir";
  logged(kTag, [&] {
    if (!kddc::removeSwapFolder(kTag, dir))
      throw UDCException(kTag, 1, "Unexpected file encountered", 0);
  });
}

// Nobody but the producer moves its block, and nobody but the consumer the other one.
InMemoryBuffer& DCRawBuffer::producersBlock() const NO_THREAD_SAFETY_ANALYSIS {
  return *WriteBuffer_m;
}
InMemoryBuffer& DCRawBuffer::consumersBlock() const NO_THREAD_SAFETY_ANALYSIS {
  return *ReadBuffer_m;
}

// The block refuses a record when it is full; a fresh one must take it, since no record is larger
// than a block.
int DCRawBuffer::AddEntry(unsigned char* data, int len) {
  constexpr char kTag[] = "DCRawBuffer :: AddEntry";
  constexpr char kCannotWrite[] = "Write failed even after the Buffers are flushed!";
  return loggedAsDebug(kTag, [&] {
    if (len > InMemoryBufferSize_m - 2) {
      dbg.Error(kTag, "eRRoR -- InMemoryBufferSize_m[%u] is smaller than Data size[%u] ",
                static_cast<unsigned>(InMemoryBufferSize_m), static_cast<unsigned>(len));
      throw UDCException(kTag, 1, "Improper usage. InMemoryBufferSize_m is smaller than Data size",
                         0);
    }
    // A length that 16 bits cannot carry would come back as another one.
    if (len < 0 || len > std::numeric_limits<short>::max())
      throw UDCException(kTag, 1, kCannotWrite, 0);
    const auto length = static_cast<short>(len);
    if (producersBlock().Write(data, length)) return 0;
    unsigned long long fileCounter = 0;
    int offset = 0;
    SwapOrFlushBuffer(&fileCounter, &offset);
    if (!producersBlock().Write(data, length)) throw UDCException(kTag, 1, kCannotWrite, 0);
    return 0;
  });
}

// The end of a block is no end of records: the next block is taken up, and asked once more.
bool DCRawBuffer::ReadEntry(unsigned char** data, int* len) {
  return loggedAsDebug("DCRawBuffer :: ReadEntry", [&] {
    bool eof = false;
    if (consumersBlock().Read(&eof, data, len)) return true;
    return eof && SwapOrLoadBuffer() && consumersBlock().Read(&eof, data, len);
  });
}

void DCRawBuffer::SwapOrFlushBuffer(unsigned long long* fileCounter, int* offset) {
  logged("DCRawBuffer :: SwapOrFlushBuffer", [&] {
    if (Mode_m == UDC_RAW_MODE1)
      nextWriteBlock(fileCounter, offset);
    else
      swapWriteBlock(fileCounter, offset);
  });
}

// Writes a block into swap file `number` and empties it.
int DCRawBuffer::dump(InMemoryBuffer& block, unsigned long long number) {
  constexpr char kTag[] = "DCRawBuffer :: SwapOrFlushBuffer";
  const kddc::UniqueFd file = kddc::createSwapFile(SwapDir_m, number, SwapFilePermissions_m);
  if (!file) {
    const int error = errno;
    dbg.Error(kTag, "eRRoR -- failed to open files[%s/%s].errno[%d]", SwapDir_m.c_str(),
              swapName(number).c_str(), error);
    throw UDCException(kTag, 0, "swap file open failed", error);
  }
  try {
    return block.Flush(file.get());
  } catch (...) {
    kddc::removeSwapFile(kTag, SwapDir_m, number);  // half of it, and the block still has the whole
    throw;
  }
}

void DCRawBuffer::nextWriteBlock(unsigned long long* fileCounter, int* offset) {
  constexpr char kTag[] = "DCRawBuffer :: SwapOrFlushBuffer";
  const KdMonitor::Guard guard(Monitor_m);
  const WakeAtExit wake(Monitor_m);
  logBlocks(kTag, "Start");
  // Made first: once a block is emptied into its file, nothing may fail.
  std::list<Buf_File_s> entry{{nullptr, WriteFileCounter_m}};
  if (!FreeBuffers_m.empty()) {
    if (WriteBuffer_m != ReadBuffer_m) {  // else the consumer has it already
      entry.front().buffer = WriteBuffer_m;
      SwapQueue_m.splice(SwapQueue_m.end(), entry);
    }
    WriteBuffer_m = FreeBuffers_m.front();
    FreeBuffers_m.pop_front();
    WriteBuffer_m->ReInitialize();
  } else {
    dbg.DebugLvl(kTag, 4, "Dumping to swap [%s/%s]", SwapDir_m.c_str(),
                 swapName(WriteFileCounter_m).c_str());
    *offset = dump(*WriteBuffer_m, WriteFileCounter_m);
    *fileCounter = WriteFileCounter_m;
    SwapQueue_m.splice(SwapQueue_m.end(), entry);
  }
  ++WriteFileCounter_m;
  logBlocks(kTag, "End");
}

// One thread at a time by the rule of these modes.
void DCRawBuffer::swapWriteBlock(unsigned long long* fileCounter,
                                 int* offset) NO_THREAD_SAFETY_ANALYSIS {
  *offset = dump(*WriteBuffer_m, WriteFileCounter_m);
  *fileCounter = WriteFileCounter_m;
  dbg.DebugLvl("DCRawBuffer :: SwapOrFlushBuffer", 2,
               "MODE2/MODE3 Swapped to [%s/%s]. FileCounter[%llu] Offset[%u]", SwapDir_m.c_str(),
               swapName(*fileCounter).c_str(), *fileCounter, static_cast<unsigned>(*offset));
  ++WriteFileCounter_m;
}

bool DCRawBuffer::SwapOrLoadBuffer() {
  return logged("DCRawBuffer :: SwapOrLoadBuffer",
                [&] { return Mode_m == UDC_RAW_MODE1 ? nextReadBlock() : loadReadBlock(); });
}

// Answers false in any case: callers expect one empty answer between two blocks, and call again.
bool DCRawBuffer::nextReadBlock() {
  constexpr char kTag[] = "DCRawBuffer :: SwapOrLoadBuffer";
  const KdMonitor::Guard guard(Monitor_m);
  if (ReadBuffer_m == WriteBuffer_m) {  // caught up: the producer's next switch wakes us
    Monitor_m.wait(kWaitMilliseconds);
    return false;
  }
  logBlocks(kTag, "Start");
  if (ReadBuffer_m != LoadBuffer_m) FreeBuffers_m.push_back(ReadBuffer_m);
  takeUpNextBlock();
  logBlocks(kTag, "End");
  return false;
}

// When a file cannot be loaded the entry stays in front, and the next call tries it again.
void DCRawBuffer::takeUpNextBlock() {
  constexpr char kTag[] = "DCRawBuffer :: SwapOrLoadBuffer";
  if (SwapQueue_m.empty()) {
    ReadBuffer_m = WriteBuffer_m;
    return;
  }
  const Buf_File_s next = SwapQueue_m.front();
  ReadBuffer_m = next.buffer ? next.buffer : LoadBuffer_m;
  if (!next.buffer) loadAndRemove(kTag, next.fileNumber);
  SwapQueue_m.pop_front();
}

void DCRawBuffer::loadAndRemove(const char* tag, unsigned long long number) {
  dbg.DebugLvl(tag, 4, "Loading swap file[%s/%s]", SwapDir_m.c_str(), swapName(number).c_str());
  const kddc::Loaded loaded = kddc::loadSwapFile(tag, SwapDir_m, number, *LoadBuffer_m,
                                                 InMemoryBufferSize_m, InMemoryBufferSize_m);
  if (!loaded.all) ++damagedFiles_;
  if (!kddc::removeSwapFile(tag, SwapDir_m, number)) fileLeftBehind_ = true;
}

// One thread at a time by the rule of these modes.
bool DCRawBuffer::loadReadBlock() NO_THREAD_SAFETY_ANALYSIS {
  constexpr char kTag[] = "DCRawBuffer :: SwapOrLoadBuffer";
  // Deleted only now: the consumer has finished with what came from it.
  if (!LastLoadedSwapFile_m.empty())
    kddc::OpenFolder(SwapDir_m).removeFile(swapName(ReadFileCounter_m - 1));
  int length = InMemoryBufferSize_m;
  if (Mode_m == UDC_RAW_MODE2) {
    if (ReadFileCounter_m == WriteFileCounter_m) return false;
  } else {
    if (ReadFileCounter_m > WriteFileCounter_m) return false;
    if (ReadFileCounter_m == WriteFileCounter_m) length = ReadUntilOffset_m;
  }
  const kddc::Loaded loaded = kddc::loadSwapFile(kTag, SwapDir_m, ReadFileCounter_m, *ReadBuffer_m,
                                                 length, InMemoryBufferSize_m);
  if (!loaded.all) ++damagedFiles_;
  LastLoadedSwapFile_m = SwapDir_m + "/" + swapName(ReadFileCounter_m);
  dbg.DebugLvl(kTag, 2, "MODE2/MODE3 Loaded [%s]. FileCounter[%llu] Offset[%u]",
               LastLoadedSwapFile_m.c_str(), ReadFileCounter_m,
               static_cast<unsigned>(loaded.bytes));
  ++ReadFileCounter_m;
  return true;
}

void DCRawBuffer::logBlocks(const char* tag, const char* moment) {
  dbg.DebugLvl(tag, 5, "^^^^^^^^^^%s--WriteBuf:%llu", moment, WriteBuffer_m->BufferId_m);
  dbg.DebugLvl(tag, 5, "^^^^^^^^^^%s--ReadBuf:%llu", moment, ReadBuffer_m->BufferId_m);
}

void DCRawBuffer::ReadUntil(unsigned long long fileCounter, int offset) NO_THREAD_SAFETY_ANALYSIS {
  WriteFileCounter_m = fileCounter;
  ReadUntilOffset_m = offset;
}

void DCRawBuffer::SetContextDcIfind() {
  DcIfindContext_m = true;
  consumersBlock().SetMode(kSingleThreaded);
}

void DCRawBuffer::SetContextDbThreadWrite() {
  producersBlock().SetMode(kWriteOnly);
}

void DCRawBuffer::SetContextDbThreadRead() {
  absorbed(
      "DCRawBuffer :: SetContextDbThreadRead",
      [&] {
        unsigned long long fileCounter = 0;
        int offset = 0;
        SwapOrFlushBuffer(&fileCounter, &offset);
        return true;
      },
      false);
}

unsigned long long DCRawBuffer::DamagedBlocks() const {
  unsigned long long count = damagedFiles_;
  for (const auto& block : blocks_) count += block->DamagedLengths();
  return count;
}
